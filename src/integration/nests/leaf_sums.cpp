// What the points of the leaves come to where every level has one effect: direct derivatives, and what they pull at the
// modes, scales and regressions of their nest (nest_gradient.cpp has the formulas). Four leaves stand side by side;
// what goes to their parents is added leaf by leaf, in their order. With more than two levels several points of a leaf
// meet at one of an ancestor, and the order would depend on who stands together: there only leaves of one nest do.

#include "integration/nests/nest_gradient.h"
#include "integration/nests/nest_points.h"
#include "integration/subjects/evaluation_parts.h"
#include "modes/single_tree.h"

#include <utility>

namespace torvale::integration {

using evaluation::Four;
using model::NestLevel;
using model::NestWork;
using model::NX;
using model::TVLThreadCtx;

namespace {

template <class T, int Levels> class LeafSums : modes::SingleTree<T, Levels> {
  using Tree = modes::SingleTree<T, Levels>;
  using Tree::above, Tree::b_, Tree::level, Tree::levels, Tree::n_, Tree::w_;
  using typename Tree::Group;

public:
  LeafSums(const NX& n, TVLThreadCtx& ctx, const LeafMoments& rows, const Group& leaves)
      : Tree(n, ctx), leaf_(Tree::leaf()), rows_(rows), leaves_(leaves), slots_(Tree::slots_of(leaves)),
        nests_(leaves.through(w_.nest_of_leaf.data())), s_(n.qscale * root_two), factor_(Tree::factor(0, leaves)),
        mode_(leaves.from_row(leaf_.z.data())), spread_(leaves.from_row(leaf_.spread.data()))
  {
    Tree::for_ancestors(0, leaves, [&](int k, const Group& nodes) { ancestors_[above(k)] = nodes; });
    for (int a = 0; a < above(0); ++a) {
      tilt_[a] = leaves.gather(leaf_.tilt.data() + a, above(0));
      regression_bar_[a] = T{};
    }
  }

  void add()
  {
    for (long p = 0; p < leaf_.outer; ++p) {
      const T weight = weight_at(p);
      if (p < most_kept) weight_[p] = weight;
      add_point(p, weight);
    }
    add_direct();
    leaves_.scatter(mean_bar_, leaf_.mean_bar.data(), 1);
    leaves_.scatter(mode_bar_, leaf_.mode_bar.data(), 1);
    leaves_.scatter(factor_bar_, leaf_.factor_bar.data(), 1);
    if (!n_.adscale) return;
    leaves_.scatter(spread_bar_, leaf_.spread_bar.data(), 1);
    for (int a = 0; a < above(0); ++a) leaves_.scatter(regression_bar_[a], leaf_.regression_bar.data() + a, above(0));
  }

private:
  static constexpr int most_kept = 64; // weights

  // What a leaf's sums at joint point p of its ancestors are multiplied by; 0: they are not to be read.
  T weight_at(long p) const
  {
    const T joint = ancestors_[above(1)].gather(level(1).weight.data() + p, leaf_.outer), total = total_at(p),
            none = {};
    const T weight = total > 0.0 ? joint / total : none;
    return joint > 0.0 ? weight : none;
  }

  T total_at(long p) const { return slots_.from_row(w_.total.data() + p * b_.mode_stride); }

  T sum(int row, long p, T weight) const
  {
    const T none = {};
    return weight > 0.0 ? slots_.from_row(w_.moments.data() + (row * leaf_.outer + p) * b_.mode_stride) : none;
  }

  void add_point(long p, T weight)
  {
    T centre = mode_, deviation[Tree::longest];
    for (int a = above(0); a-- > 0;) {
      NestLevel& up = Tree::level_at(a);
      deviation[a] = ancestors_[a].gather(up.deviation.data() + p % up.joint(), up.joint());
      centre += tilt_[a] * deviation[a];
      add_to(a, up.slopes, p, weight * sum(rows_.slope + a, p, weight));
    }
    const T r = weight * sum(rows_.slope + above(0), p, weight);
    const T rx = weight * sum(rows_.slope_by_point, p, weight), x = weight * sum(rows_.point, p, weight);
    const T pull = factor_ * r - (weight * total_at(p) * centre + s_ * spread_ * x);
    mean_bar_ += r;
    mode_bar_ += pull;
    factor_bar_ += r * centre + s_ * spread_ * rx;
    if (!n_.adscale) return;
    const T square = weight * sum(rows_.square, p, weight);
    spread_bar_ += s_ * (factor_ * rx - centre * x - s_ * spread_ * square); // s sum e (L'll_u - z) x'
    for (int a = above(0); a-- > 0;) {
      regression_bar_[a] += pull * deviation[a];
      add_to(a, Tree::level_at(a).pulls, p, tilt_[a] * pull);
    }
  }

  // To a number of each ancestor at the joint point that it has part in.
  void add_to(int place, std::vector<double>& rows, long p, const T& t) const
  {
    const long joint = Tree::level_at(place).joint();
    ancestors_[place].add_in_order(t, rows.data() + p % joint, joint);
  }

  void add_direct()
  {
    int row = rows_.direct;
    for (const int place : n_.programs.gradient.outputs) {
      if (!n_.programs.parameter_place(place)) continue;
      T t = {};
      for (long p = 0; p < leaf_.outer; ++p) {
        const T weight = p < most_kept ? weight_[p] : weight_at(p);
        t += weight * sum(row, p, weight);
      }
      ++row;
      nests_.add_in_order(-t, w_.gradient.data() + place - n_.programs.by_parameter(0), n_.nparm);
    }
  }

  NestLevel& leaf_;
  const LeafMoments& rows_;
  const Group& leaves_;
  const Group slots_, nests_;
  Group ancestors_[Tree::longest]; // by place
  const double s_;
  const T factor_, mode_, spread_;
  T tilt_[Tree::longest];
  T weight_[most_kept]; // at the first joint points
  T mean_bar_ = {}, mode_bar_ = {}, factor_bar_ = {}, spread_bar_ = {}, regression_bar_[Tree::longest];
};

template <class T, int Levels> void add_all(const NX& n, TVLThreadCtx& ctx, const int* leaves, int count)
{
  const LeafMoments rows(n);
  using Group = evaluation::SlotGroup<T>;
  for (int first = 0; first < count; first += Group::width)
    LeafSums<T, Levels>(n, ctx, rows, Group::of_list(leaves + first, count - first)).add();
}

template <int Levels> TORVALE_AVX2_BUILD void add_all_avx2(const NX& n, TVLThreadCtx& ctx, const int* leaves, int count)
{
  add_all<Four, Levels>(n, ctx, leaves, count);
}

void add_leaves(const NX& n, TVLThreadCtx& ctx, int count)
{
  modes::by_levels(ctx.nests, [&](auto levels) {
    static const auto build = evaluation::build_for_machine(add_all<Four, levels()>, add_all_avx2<levels()>);
    build(n, ctx, ctx.nests.columns.data(), count);
  });
}

} // namespace

void sum_single_leaves(const NX& n, TVLThreadCtx& ctx)
{
  NestWork& w = ctx.nests;
  const auto& nodes = *w.level.front().nodes;
  int count = 0;
  for (int nest = 0; nest < w.nests; ++nest) {
    const auto k = static_cast<std::size_t>(nest);
    if (w.failure[k] != 0) continue;
    for (int v = nodes.first[k]; v < nodes.first[k + 1]; ++v) w.columns[static_cast<std::size_t>(count++)] = v;
    if (w.level.size() > 2) add_leaves(n, ctx, std::exchange(count, 0));
  }
  add_leaves(n, ctx, count);
}

} // namespace torvale::integration
