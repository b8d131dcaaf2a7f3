// What mode_derivatives.cpp says of one block of effects holds for a nest with all its effects stacked: G is then block
// diagonal, the likelihood lives on the chains of the leaves, and products with V = L H^-1 L' go through the eliminated
// arrow, parameter by parameter. Where every level has one effect four nodes stand side by side; what goes to ancestors
// is added node by node, in their order.

#include "integration/nests/nest_moves.h"

#include "evaluation/slot_group.h"
#include "modes/joint_density.h"
#include "modes/nest_elimination.h"
#include "modes/nest_steps.h"

#include <algorithm>

namespace torvale::integration {

using evaluation::Four;
using evaluation::SlotGroup;
using model::BatchWork;
using model::NestLevel;
using model::NestWork;
using model::NX;
using model::REFFECT;
using model::TVLThreadCtx;
using modes::packed;

namespace {

// Calls f(argument, its derivative's place) for the arguments that a parameter moves.
template <class F> void for_moved(const REFFECT& reff, int parameter, F&& f)
{
  const auto j = static_cast<std::size_t>(parameter);
  for (int m = reff.moved_first[j]; m < reff.moved_first[j + 1]; ++m) {
    const auto& [argument, place] = reff.moved[static_cast<std::size_t>(m)];
    f(argument, place);
  }
}

// --- any number of effects, nest by nest ---

class NestMoves {
public:
  NestMoves(const NX& n, TVLThreadCtx& ctx, const double* cross)
      : n_(n), b_(ctx.batch), w_(ctx.nests), cross_(cross), stride_(ctx.batch.mode_stride)
  {
  }

  void find(int nest)
  {
    nest_ = static_cast<std::size_t>(nest);
    sum_slopes();
    for (int j = 0; j < n_.nparm; ++j) {
      for_nodes([&](NestLevel& l, const REFFECT& reff, int v) {
        find_lead(l, reff, v, j);
        std::fill_n(l.mode_bar.begin() + static_cast<long>(v) * l.own, l.own, 0.0);
      });
      const NestLevel& leaves = w_.level.front();
      for (int v = first(leaves); v < last(leaves); ++v) add_pulls(v, j);
      for_nodes([](NestLevel& l, const REFFECT&, int v) { times_transpose(l, v); });
      modes::solve(w_, nest, &NestLevel::mode_bar);
      for_nodes([&](NestLevel& l, const REFFECT&, int v) { keep(l, v, j); });
    }
  }

private:
  int first(const NestLevel& l) const { return l.nodes->first[nest_]; }
  int last(const NestLevel& l) const { return l.nodes->first[nest_ + 1]; }

  template <class F> void for_nodes(F&& f)
  {
    for (std::size_t k = 0; k < w_.level.size(); ++k)
      for (int v = first(w_.level[k]); v < last(w_.level[k]); ++v) f(w_.level[k], n_.reff[k], v);
  }

  // Calls f(level, node) for a leaf and its ancestors.
  template <class F> void for_chain(int leaf, F&& f)
  {
    int node = leaf;
    for (NestLevel& l : w_.level) {
      f(l, node);
      node = l.nodes->parent[static_cast<std::size_t>(node)];
    }
  }

  const double* sums(int leaf) const
  {
    return w_.leaf.data() + w_.level.front().nodes->slot[static_cast<std::size_t>(leaf)];
  }

  void sum_slopes()
  {
    for (NestLevel& l : w_.level) std::fill_n(l.slope.begin() + first(l) * l.own, (last(l) - first(l)) * l.own, 0.0);
    const NestLevel& leaves = w_.level.front();
    for (int v = first(leaves); v < last(leaves); ++v)
      for_chain(v, [&](NestLevel& l, int node) {
        for (int i = 0; i < l.own; ++i)
          l.slope[static_cast<std::size_t>(node * l.own + i)] += sums(v)[n_.programs.slope(l.place + i) * stride_];
      });
  }

  // dm/dtheta + dG/dtheta ll_u.
  static void find_lead(NestLevel& l, const REFFECT& reff, int v, int j)
  {
    const double* const slope = l.slope.data() + static_cast<long>(v) * l.own;
    const double* const by = l.arguments.data() + static_cast<long>(l.prior_of(v)) * reff.setup.places;
    double* const to = l.lead.data() + static_cast<long>(v) * l.own;
    std::fill_n(to, l.own, 0.0);
    for_moved(reff, j, [&](int a, int place) {
      if (a < l.own) {
        to[a] += by[place];
        return;
      }
      int row = 0; // of the element of G
      while (packed(row, row) < a - l.own) ++row;
      const int column = a - l.own - packed(row, 0);
      to[row] += by[place] * slope[column];
      if (row != column) to[column] += by[place] * slope[row];
    });
  }

  // ll_uu lead + ll_u., along the chain of a leaf.
  void add_pulls(int leaf, int j)
  {
    const auto slot = static_cast<std::size_t>(w_.level.front().nodes->slot[static_cast<std::size_t>(leaf)]);
    const double* const cross = cross_ + b_.column[slot];
    for_chain(leaf, [&](NestLevel& to, int node) {
      for (int i = 0; i < to.own; ++i) {
        double pull = cross[n_.programs.cross_place(to.place + i, j) * stride_];
        for_chain(leaf, [&](const NestLevel& from, int other) {
          for (int e = 0; e < from.own; ++e)
            pull += sums(leaf)[n_.programs.curve(packed(to.place + i, from.place + e)) * stride_] *
                    from.lead[static_cast<std::size_t>(other * from.own + e)];
        });
        to.mode_bar[static_cast<std::size_t>(node * to.own + i)] += pull;
      }
    });
  }

  // L' times what a node has; row by row from the first, which the others do not need any more.
  static void times_transpose(NestLevel& l, int v)
  {
    const double* const factor = modes::factor_of(l, v);
    double* const x = l.mode_bar.data() + static_cast<long>(v) * l.own;
    for (int i = 0; i < l.own; ++i) {
      x[i] *= factor[packed(i, i)];
      for (int k = i + 1; k < l.own; ++k) x[i] += factor[packed(k, i)] * x[k];
    }
  }

  // lead + L x
  void keep(NestLevel& l, int v, int j) const
  {
    const double* const factor = modes::factor_of(l, v);
    const double* const x = l.mode_bar.data() + static_cast<long>(v) * l.own;
    for (int i = 0; i < l.own; ++i) {
      double t = l.lead[static_cast<std::size_t>(v * l.own + i)];
      for (int k = 0; k <= i; ++k) t += factor[packed(i, k)] * x[k];
      l.move[static_cast<std::size_t>(move_place(l, v, i, j, n_.nparm))] = t;
    }
  }

  const NX& n_;
  const BatchWork& b_;
  NestWork& w_;
  const double* const cross_;
  const long stride_;
  std::size_t nest_ = 0;
};

// --- one effect at every level ---

template <class T> class SingleMoves {
public:
  SingleMoves(const NX& n, const TVLThreadCtx& ctx, NestWork& w, const double* cross)
      : n_(n), b_(ctx.batch), w_(w), cross_(cross), levels_(static_cast<int>(w.level.size()))
  {
  }

  void find()
  {
    const std::size_t top = w_.level.size() - 1;
    for (std::size_t k = 1; k <= top; ++k) {
      NestLevel& l = w_.level[k];
      std::fill(l.slope.begin(), l.slope.end(), 0.0);
      std::fill(l.move.begin(), l.move.end(), 0.0);
    }
    for_nodes(0, [&](const SlotGroup<T>& leaves) { add_slopes(leaves); });
    for_nodes(0, [&](const SlotGroup<T>& leaves) { add_pulls(leaves); });
    for (std::size_t k = 1; k < top; ++k)
      for_nodes(k, [&](const SlotGroup<T>& nodes) {
        for_ancestors(k, nodes, [&](NestLevel& a, const SlotGroup<T>& up) {
          const T b = nodes.gather(w_.level[k].regression.data() + a.place, w_.level[k].above);
          for (int j = 0; j < n_.nparm; ++j) up.add_in_order(b * nodes.from_row(moves(w_.level[k], j)), moves(a, j), 1);
        });
      });
    for (std::size_t k = top + 1; k-- > 0;) for_nodes(k, [&](const SlotGroup<T>& nodes) { solve(k, nodes); });
    for (std::size_t k = 0; k <= top; ++k) for_nodes(k, [&](const SlotGroup<T>& nodes) { add_leads(k, nodes); });
  }

private:
  static constexpr int longest = modes::most_single_levels; // chain

  template <class F> void for_nodes(std::size_t level, F&& f) { evaluation::for_groups<T>(w_.level[level].listed, f); }

  template <class F> void for_ancestors(std::size_t level, const SlotGroup<T>& nodes, F&& f)
  {
    SlotGroup<T> up = nodes;
    for (std::size_t k = level + 1; k < w_.level.size(); ++k) {
      up = up.through(w_.level[k - 1].nodes->parent.data());
      f(w_.level[k], up);
    }
  }

  SlotGroup<T> slots_of(const SlotGroup<T>& leaves) const
  {
    return leaves.through(w_.level.front().nodes->slot.data());
  }

  T sum(int place, const SlotGroup<T>& slots) const { return slots.from_row(w_.leaf.data() + place * b_.mode_stride); }

  double* moves(NestLevel& l, int j) const { return l.move.data() + move_place(l, 0, 0, j, n_.nparm); }

  T lead(const NestLevel& l, const SlotGroup<T>& nodes, int j) const
  {
    const REFFECT& reff = n_.reff[static_cast<std::size_t>(&l - w_.level.data())];
    T t = {};
    for_moved(reff, j, [&](int a, int place) {
      const T by = nodes.gather_or_share(l.varies, l.arguments.data() + place, reff.setup.places);
      t += a == 0 ? by : by * nodes.from_row(l.slope.data());
    });
    return t;
  }

  void add_slopes(const SlotGroup<T>& leaves)
  {
    NestLevel& leaf = w_.level.front();
    const auto slots = slots_of(leaves);
    leaves.into_row(sum(n_.programs.slope(leaf.place), slots), leaf.slope.data());
    for_ancestors(0, leaves, [&](NestLevel& l, const SlotGroup<T>& up) {
      up.add_in_order(sum(n_.programs.slope(l.place), slots), l.slope.data(), 1);
    });
  }

  // L' (ll_uu lead + ll_u.) of a leaf, and what it and its elimination give to those of its ancestors.
  void add_pulls(const SlotGroup<T>& leaves)
  {
    NestLevel& leaf = w_.level.front();
    const auto slots = slots_of(leaves), columns = slots.through(b_.column.data());
    SlotGroup<T> chain[longest];
    T factor[longest], curve[longest * longest], b[longest];
    NestLevel* level[longest];
    const auto take = [&](NestLevel& l, const SlotGroup<T>& nodes) {
      level[l.place] = &l;
      chain[l.place] = nodes;
      factor[l.place] = nodes.from_row_or_share(l.varies, l.factor.data());
    };
    take(leaf, leaves);
    for_ancestors(0, leaves, take);
    for (int i = 0; i < levels_; ++i)
      for (int k = 0; k < levels_; ++k) curve[i * longest + k] = sum(n_.programs.curve(packed(i, k)), slots);
    for (int a = 0; a < leaf.above; ++a) b[a] = leaves.gather(leaf.regression.data() + a, leaf.above);
    for (int j = 0; j < n_.nparm; ++j) {
      T by[longest], y = {};
      for (int k = 0; k < levels_; ++k) by[k] = lead(*level[k], chain[k], j);
      for (int i = levels_; i-- > 0;) {
        T pull = columns.from_row(cross_ + n_.programs.cross_place(i, j) * b_.mode_stride);
        for (int k = 0; k < levels_; ++k) pull += curve[i * longest + k] * by[k];
        pull *= factor[i];
        if (i == leaf.place) {
          y = pull;
          leaves.into_row(y, moves(leaf, j));
        } else {
          chain[i].add_in_order(pull + b[i] * y, moves(*level[i], j), 1);
        }
      }
    }
  }

  void solve(std::size_t level, const SlotGroup<T>& nodes)
  {
    NestLevel& l = w_.level[level];
    const T inverse = nodes.from_row(l.inverse.data());
    for (int j = 0; j < n_.nparm; ++j) nodes.into_row(inverse * nodes.from_row(moves(l, j)), moves(l, j));
    for_ancestors(level, nodes, [&](NestLevel& a, const SlotGroup<T>& up) {
      const T b = nodes.gather(l.regression.data() + a.place, l.above);
      for (int j = 0; j < n_.nparm; ++j)
        nodes.into_row(nodes.from_row(moves(l, j)) + b * up.from_row(moves(a, j)), moves(l, j));
    });
  }

  void add_leads(std::size_t level, const SlotGroup<T>& nodes)
  {
    NestLevel& l = w_.level[level];
    const T factor = nodes.from_row_or_share(l.varies, l.factor.data());
    for (int j = 0; j < n_.nparm; ++j)
      nodes.into_row(lead(l, nodes, j) + factor * nodes.from_row(moves(l, j)), moves(l, j));
  }

  const NX& n_;
  const BatchWork& b_;
  NestWork& w_;
  const double* const cross_;
  const int levels_;
};

template <class T> void find_single(const NX& n, TVLThreadCtx& ctx, const double* cross)
{
  SingleMoves<T>(n, ctx, ctx.nests, cross).find();
}
TORVALE_AVX2_BUILD void find_single_avx2(const NX& n, TVLThreadCtx& ctx, const double* cross)
{
  find_single<Four>(n, ctx, cross);
}

} // namespace

void find_nest_moves(const NX& n, TVLThreadCtx& ctx, const double* cross)
{
  NestWork& w = ctx.nests;
  if (modes::single_effects(w)) {
    modes::list_good_nests(w);
    static const auto build = evaluation::build_for_machine(find_single<Four>, find_single_avx2);
    return build(n, ctx, cross);
  }
  NestMoves moves(n, ctx, cross);
  for (int nest = 0; nest < w.nests; ++nest)
    if (w.failure[static_cast<std::size_t>(nest)] == 0) moves.find(nest);
}

} // namespace torvale::integration
