// What the points of the leaves come to where every level has one effect: direct derivatives, and what they pull at the
// modes, scales and regressions of their nest (nest_gradient.cpp has the formulas). Four leaves stand side by side;
// what goes to their parents is added leaf by leaf, in their order. With more than two levels several points of a leaf
// meet at one of an ancestor, and the order would depend on who stands together: there only leaves of one nest do.

#include "evaluation/slot_group.h"
#include "integration/nests/nest_gradient.h"
#include "integration/nests/nest_points.h"
#include "integration/subjects/evaluation_parts.h"
#include "modes/joint_density.h"

#include <algorithm>
#include <array>
#include <utility>

namespace torvale::integration {

using evaluation::Four;
using evaluation::SlotGroup;
using model::BatchWork;
using model::NestLevel;
using model::NestWork;
using model::NX;
using model::TVLThreadCtx;

namespace {

template <class T> class LeafSums {
public:
  LeafSums(const NX& n, TVLThreadCtx& ctx, const LeafMoments& rows, const SlotGroup<T>& leaves)
      : n_(n), b_(ctx.batch), w_(ctx.nests), leaf_(ctx.nests.level.front()), rows_(rows), leaves_(leaves),
        slots_(leaves.through(leaf_.nodes->slot.data())), nests_(leaves.through(w_.nest_of_leaf.data())),
        s_(n.qscale * root_two), factor_(leaf_.varies ? leaves.from_row(leaf_.factor.data()) : T{} + leaf_.factor[0]),
        mode_(leaves.from_row(leaf_.z.data())), spread_(leaves.from_row(leaf_.spread.data()))
  {
    for (std::size_t k = 1; k < w_.level.size(); ++k)
      ancestors_[k].take(k == 1 ? leaves : ancestors_[k - 1], w_.level[k - 1].nodes->parent.data());
    for (int a = 0; a < leaf_.above; ++a) tilt_[a] = leaves.gather(leaf_.tilt.data() + a, leaf_.above);
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
    for (int a = 0; a < leaf_.above; ++a)
      leaves_.scatter(regression_bar_[a], leaf_.regression_bar.data() + a, leaf_.above);
  }

private:
  static constexpr int most_kept = 64; // weights

  // What a leaf's sums at joint point p of its ancestors are multiplied by; 0: they are not to be read.
  T weight_at(long p) const
  {
    const T above = ancestors_[1].gather(w_.level[1].weight.data() + p, leaf_.outer), total = total_at(p), none = {};
    const T weight = total > 0.0 ? above / total : none;
    return above > 0.0 ? weight : none;
  }

  T total_at(long p) const { return slots_.from_row(w_.total.data() + p * b_.mode_stride); }

  T sum(int row, long p, T weight) const
  {
    const T none = {};
    return weight > 0.0 ? slots_.from_row(w_.moments.data() + (row * leaf_.outer + p) * b_.mode_stride) : none;
  }

  void add_point(long p, T weight)
  {
    T centre = mode_, deviation[modes::most_effects];
    for (std::size_t k = 1; k < w_.level.size(); ++k) {
      NestLevel& a = w_.level[k];
      deviation[a.place] = ancestors_[k].gather(a.deviation.data() + p % a.joint(), a.joint());
      centre += tilt_[a.place] * deviation[a.place];
      add_to(a.slopes, k, p, weight * sum(rows_.slope + a.place, p, weight));
    }
    const T r = weight * sum(rows_.slope + leaf_.place, p, weight);
    const T rx = weight * sum(rows_.slope_by_point, p, weight), x = weight * sum(rows_.point, p, weight);
    const T pull = factor_ * r - (weight * total_at(p) * centre + s_ * spread_ * x);
    mean_bar_ += r;
    mode_bar_ += pull;
    factor_bar_ += r * centre + s_ * spread_ * rx;
    if (!n_.adscale) return;
    const T square = weight * sum(rows_.square, p, weight);
    spread_bar_ += s_ * (factor_ * rx - centre * x - s_ * spread_ * square); // s sum e (L'll_u - z) x'
    for (std::size_t k = 1; k < w_.level.size(); ++k) {
      NestLevel& a = w_.level[k];
      regression_bar_[a.place] += pull * deviation[a.place];
      add_to(a.pulls, k, p, tilt_[a.place] * pull);
    }
  }

  // To a number of each ancestor at the joint point that it has part in.
  void add_to(std::vector<double>& rows, std::size_t level, long p, T t)
  {
    double v[SlotGroup<T>::width];
    SlotGroup<T>::store(t, v);
    const long joint = w_.level[level].joint();
    double* const at = rows.data() + p % joint;
    for (int i = 0; i < leaves_.used; ++i) at[ancestors_[level].slot[i] * joint] += v[i];
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
      double v[SlotGroup<T>::width];
      SlotGroup<T>::store(t, v);
      double* const to = w_.gradient.data() + place - n_.programs.by_parameter(0);
      for (int i = 0; i < leaves_.used; ++i) to[static_cast<long>(nests_.slot[i]) * n_.nparm] -= v[i];
    }
  }

  const NX& n_;
  const BatchWork& b_;
  NestWork& w_;
  NestLevel& leaf_;
  const LeafMoments& rows_;
  const SlotGroup<T>& leaves_;
  const SlotGroup<T> slots_, nests_;
  std::array<SlotGroup<T>, modes::most_effects> ancestors_; // per level, from 1
  const double s_;
  const T factor_, mode_, spread_;
  T tilt_[modes::most_effects];
  T weight_[most_kept]; // at the first joint points
  T mean_bar_ = {}, mode_bar_ = {}, factor_bar_ = {}, spread_bar_ = {}, regression_bar_[modes::most_effects] = {};
};

template <class T> void add_all(const NX& n, TVLThreadCtx& ctx, const int* leaves, int count)
{
  const LeafMoments rows(n);
  for (int first = 0; first < count; first += SlotGroup<T>::width)
    LeafSums<T>(n, ctx, rows, SlotGroup<T>::of_list(leaves + first, count - first)).add();
}

TORVALE_AVX2_BUILD void add_all_avx2(const NX& n, TVLThreadCtx& ctx, const int* leaves, int count)
{
  add_all<Four>(n, ctx, leaves, count);
}

} // namespace

void sum_single_leaves(const NX& n, TVLThreadCtx& ctx)
{
  NestWork& w = ctx.nests;
  const auto& nodes = *w.level.front().nodes;
  static const auto build = evaluation::build_for_machine(add_all<Four>, add_all_avx2);
  int count = 0;
  for (int nest = 0; nest < w.nests; ++nest) {
    const auto k = static_cast<std::size_t>(nest);
    if (w.failure[k] != 0) continue;
    for (int v = nodes.first[k]; v < nodes.first[k + 1]; ++v) w.columns[static_cast<std::size_t>(count++)] = v;
    if (w.level.size() > 2) build(n, ctx, w.columns.data(), std::exchange(count, 0));
  }
  build(n, ctx, w.columns.data(), count);
}

} // namespace torvale::integration
