#pragma once
// Walks over nests in which every level has one effect, four nodes side by side in vectors (evaluation/slot_group.h).
// What goes from nodes to their parents and nests is added node by node, in their order. Files that use it are compiled
// with -Wno-psabi.

#include "evaluation/slot_group.h"
#include "model/run_record.h"
#include "modes/nest_steps.h"
#include "modes/packed.h"

#include <type_traits>

namespace torvale::modes {

// by_levels: act(levels), with the number of levels as a constant where it is small enough to unroll, and 0 for any
// other.
template <class Act> decltype(auto) by_levels(const model::NestWork& w, Act&& act)
{
  switch (w.level.size()) {
  case 2:
    return act(std::integral_constant<int, 2>{});
  case 3:
    return act(std::integral_constant<int, 3>{});
  default:
    return act(std::integral_constant<int, 0>{});
  }
}

// SingleTree: T is Four (or double), Levels as by_levels has it.
template <class T, int Levels> class SingleTree {
protected:
  using Group = evaluation::SlotGroup<T>;
  static constexpr int longest = Levels > 0 ? Levels : most_single_levels; // chain
  static constexpr int triangle = longest * (longest + 1) / 2;

  SingleTree(const model::NX& n, model::TVLThreadCtx& ctx)
      : n_(n), ctx_(ctx), b_(ctx.batch), w_(ctx.nests), levels_(static_cast<int>(ctx.nests.level.size()))
  {
  }

  int levels() const { return Levels > 0 ? Levels : levels_; }
  int elements() const { return levels() * (levels() + 1) / 2; } // of a triangle by the chain of a leaf
  model::NestLevel& level(int k) const { return w_.level[static_cast<std::size_t>(k)]; }
  model::NestLevel& leaf() const { return w_.level.front(); }
  model::NestLevel& level_at(int place) const { return level(levels() - 1 - place); }
  // The level of a place on the chain; the other way round it is the same.
  int above(int k) const { return levels() - 1 - k; }

  // Calls f(nodes) for the listed nodes of a level.
  template <class F> void for_nodes(int k, F&& f) const { evaluation::for_groups<T>(level(k).listed, f); }

  // Calls f(number of the level, nodes) for the ancestors of nodes of level k, the nearest first.
  template <class F> void for_ancestors(int k, const Group& nodes, F&& f) const
  {
    Group up = nodes;
    for (int a = k + 1; a < levels(); ++a) {
      up = up.through(level(a - 1).nodes->parent.data());
      f(a, up);
    }
  }

  // Leaves and their ancestors by place, with the factors of G.
  struct Chain {
    Group node[longest];
    T factor[longest];
  };
  void take_chain(Chain& chain, const Group& leaves) const
  {
    chain.node[above(0)] = leaves;
    chain.factor[above(0)] = factor(0, leaves);
    for_ancestors(0, leaves, [&](int k, const Group& nodes) {
      chain.node[above(k)] = nodes;
      chain.factor[above(k)] = factor(k, nodes);
    });
  }

  T factor(int k, const Group& nodes) const { return nodes.from_row_or_share(level(k).varies, level(k).factor.data()); }
  T mean(int k, const Group& nodes) const { return nodes.from_row_or_share(level(k).varies, level(k).mean.data()); }
  // How nodes of level k follow their ancestor at a place.
  T regression(int k, const Group& nodes, int place) const
  {
    return nodes.gather(level(k).regression.data() + place, above(k));
  }

  Group slots_of(const Group& leaves) const { return leaves.through(leaf().nodes->slot.data()); }
  Group columns_of(const Group& slots) const { return slots.through(b_.column.data()); }
  // Of results of programs.mode at the modes, and of curvature_sums.
  T at_mode(int place, const Group& slots) const { return slots.from_row(w_.leaf.data() + place * b_.mode_stride); }
  T curve(int i, int k, const Group& slots) const { return at_mode(n_.programs.curve(packed(i, k)), slots); }
  T closing(int place, const Group& columns) const
  {
    return columns.from_row(b_.curvature_sums.data() + place * b_.mode_stride);
  }

  const model::NX& n_;
  model::TVLThreadCtx& ctx_;
  model::BatchWork& b_;
  model::NestWork& w_;

private:
  const int levels_;
};

} // namespace torvale::modes
