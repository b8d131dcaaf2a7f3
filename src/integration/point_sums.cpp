// The points of a batch: random effects at every point, log integrands, weights and weighted sums.

#include "integration/evaluation_parts.h"

#include "evaluation/lane_loops.h"
#include "evaluation/record_sums.h"
#include "modes/joint_density.h"
#include "modes/mode_search.h"

#include <algorithm>
#include <cmath>

namespace torvale::integration {

using model::BatchWork;
using model::NX;
using model::PairRun;
using model::REFFECT;
using model::TVLThreadCtx;

namespace {

constexpr int most_pairs = 256;               // pairs of one run, and points of one chunk of a subject

// Sum of a[i] b[i]: one chain for short vectors, eight interleaved ones beyond; the order depends on the length alone.
double weighted_sum(const double* a, const double* b, int length)
{
  if (length < 16) {
    double sum = 0.0;
    for (int i = 0; i < length; ++i) sum += a[i] * b[i];
    return sum;
  }
  double part[8] = {};
  int i = 0;
  for (; i + 8 <= length; i += 8)
    for (int k = 0; k < 8; ++k) part[k] += a[i + k] * b[i + k];
  for (int k = 0; i + k < length; ++k) part[k] += a[i + k] * b[i + k];
  return ((part[0] + part[4]) + (part[2] + part[6])) + ((part[1] + part[5]) + (part[3] + part[7]));
}

// One slot's map from standard points x to z = centre + spread x and u = mean + L z.
template <int NR> struct PointMap {
  static constexpr int capacity = NR > 0 ? NR : modes::most_effects;
  double zcentre[capacity], zspread[capacity * (capacity + 1) / 2];
  double ucentre[capacity], uspread[capacity * (capacity + 1) / 2];

  PointMap(const NX& n, const BatchWork& b, int slot, int nr)
  {
    const double scale = n.qscale * root_two;
    const int nrs = nr * (nr + 1) / 2;
    const long p = modes::prior_of(n, slot);
    const double* const mean = b.mean.data() + p * nr;
    const double* const l = b.factor.data() + p * nrs;
    const double* const c = b.spread.data() + static_cast<long>(slot) * nrs;
    const double* const z = b.z.data() + static_cast<long>(slot) * nr;
    for (int k = 0; k < nrs; ++k) zspread[k] = scale * c[k];
    for (int i = 0; i < nr; ++i) {
      const double* const li = l + i * (i + 1) / 2;
      zcentre[i] = z[i];
      ucentre[i] = mean[i];
      for (int k = 0; k <= i; ++k) ucentre[i] += li[k] * z[k];
      for (int j = 0; j <= i; ++j) { // (L C)(i, j)
        double t = 0.0;
        for (int k = j; k <= i; ++k) t += li[k] * zspread[k * (k + 1) / 2 + j];
        uspread[i * (i + 1) / 2 + j] = t;
      }
    }
  }
};

template <int NR> class PointLoop {
public:
  PointLoop(const NX& n, TVLThreadCtx& ctx, bool gradient)
      : n_(n), ctx_(ctx), b_(ctx.batch), reff_(n.reff[0]), gradient_(gradient), nr_(n.reff[0].nr), np_(n.nparm)
  {
  }

  int run()
  {
    const long points = reff_.nqpr;
    for (int slot = 0; slot < b_.slots; ++slot) {
      if (b_.failure[static_cast<std::size_t>(slot)] != 0) continue;
      b_.peak[static_cast<std::size_t>(slot)] = model::failed_point;
      b_.total[static_cast<std::size_t>(slot)] = 0.0;
      for (long first = 0; first < points; first += most_pairs) {
        const int count = static_cast<int>(std::min<long>(points - first, most_pairs));
        if (pairs_ + count > most_pairs)
          if (const int rc = flush(); rc != 0) return rc;
        place(slot, first, count);
      }
    }
    return flush();
  }

private:
  int nr() const { return NR > 0 ? NR : nr_; }
  int nrs() const { return nr() * (nr() + 1) / 2; }
  const double* standard(int k, long first) const { return reff_.points.data() + k * reff_.nqpr + first; }

  // Random effects and the log of weight times prior kernel at points first..first+count-1 of a slot.
  void place(int slot, long first, int count)
  {
    const PointMap<NR> map(n_, b_, slot, nr());
    double* const prior = b_.prior.data() + pairs_;
    const double* before = reff_.logw.data() + first; // what the dimensions so far have made of the weight
    for (int i = 0; i < nr(); ++i, before = prior) {
      const double* const zs = map.zspread + i * (i + 1) / 2;
      const double* const us = map.uspread + i * (i + 1) / 2;
      double* const u = b_.ran.data() + i * b_.pair_stride + pairs_;
      for (int q = 0; q < count; ++q) {
        double zi = map.zcentre[i], ui = map.ucentre[i];
        for (int k = 0; k <= i; ++k) {
          const double x = standard(k, first)[q];
          zi += zs[k] * x;
          ui += us[k] * x;
        }
        prior[q] = before[q] - 0.5 * zi * zi;
        u[q] = ui;
      }
    }
    const auto r = static_cast<std::size_t>(runs_++);
    b_.runs[r] = modes::run_of(n_, b_.subject[static_cast<std::size_t>(slot)], count);
    b_.run_slot[r] = slot;
    run_first_ = runs_ == 1 ? first : run_first_;
    pairs_ += count;
  }

  int flush()
  {
    if (pairs_ == 0) return 0;
    const engine::Program& program = gradient_ ? *n_.programs.gradient : *n_.programs.value;
    static constexpr int value_only[] = {0};
    const std::span<const int> places = gradient_ ? std::span<const int>(n_.programs.gradient_list) : value_only;
    ctx_.frame->set_points(b_.ran.data(), pairs_, static_cast<int>(b_.pair_stride));
    const int rc = evaluation::tvllogl(n_, ctx_, {b_.runs.data(), static_cast<std::size_t>(runs_)},
                                       {&program, places, b_.point_sums.data(), b_.pair_stride});
    if (rc != 0) return rc;
    double peak[most_pairs];
    for (int r = 0, at = 0; r < runs_; at += run_pairs(r++)) peak[r] = find_peak(at, run_pairs(r));
    evaluation::exponentials_of_nonpositive(b_.prior.data(), pairs_);
    for (int r = 0, at = 0; r < runs_; at += run_pairs(r++))
      if (peak[r] > model::failed_point)
        add_chunk(b_.run_slot[static_cast<std::size_t>(r)], runs_ == 1 ? run_first_ : 0, at, run_pairs(r), peak[r]);
    pairs_ = runs_ = 0;
    return 0;
  }

  int run_pairs(int r) const { return b_.runs[static_cast<std::size_t>(r)].pairs; }

  // Turns the prior terms of pairs at..at+count-1 into log integrands relative to the largest, which is returned.
  double find_peak(int at, int count)
  {
    double* const e = b_.prior.data() + at;
    const double* const ll = b_.point_sums.data() + at;
    double peak = model::failed_point;
    for (int q = 0; q < count; ++q) {
      e[q] = ll[q] > model::impossible_loglik ? e[q] + ll[q] : model::failed_point;
      peak = e[q] > peak ? e[q] : peak;
    }
    for (int q = 0; q < count; ++q) e[q] -= peak;
    return peak;
  }

  // Adds the weights of one chunk, relative to its peak, to its slot.
  void add_chunk(int slot, long first, int at, int count, double peak)
  {
    const double* const e = b_.prior.data() + at;
    const auto s = static_cast<std::size_t>(slot);
    // The chunk and what the slot has so far, on the scale of the larger peak.
    const double old_peak = b_.peak[s];
    const bool fresh = !(old_peak > model::failed_point);
    const double keep = fresh ? 0.0 : peak > old_peak ? std::exp(old_peak - peak) : 1.0;
    const double take = fresh || peak >= old_peak ? 1.0 : std::exp(peak - old_peak);
    b_.peak[s] = fresh || peak > old_peak ? peak : old_peak;
    double total = 0.0;
    bool dropped = false;
    for (int q = 0; q < count; ++q) {
      total += e[q];
      dropped = dropped || !(e[q] > 0.0);
    }
    merge(b_.total[s], fresh, keep, take, total);
    if (gradient_) add_moments(slot, first, at, count, dropped, fresh, keep, take);
  }

  static void merge(double& sum, bool fresh, double keep, double take, double value)
  {
    sum = fresh ? value : keep * sum + take * value;
  }

  void add_moments(int slot, long first, int at, int count, bool dropped, bool fresh, double keep, double take)
  {
    const double* const e = b_.prior.data() + at;
    if (dropped) clear_dropped(e, at, count);
    double* moment = b_.point_moments.data() + static_cast<long>(slot) * (nr() + nrs());
    for (int k = 0; k < nr(); ++k) merge(*moment++, fresh, keep, take, weighted_sum(e, standard(k, first), count));
    double* const product = b_.scratch.data();
    for (int k = 0; k < nr(); ++k) {
      const double* const x = standard(k, first);
      for (int q = 0; q < count; ++q) product[q] = e[q] * x[q];
      for (int l = 0; l <= k; ++l) merge(*moment++, fresh, keep, take, weighted_sum(product, standard(l, first), count));
    }
    double* slope = b_.slope_moments.data() + static_cast<long>(slot) * (nr() + nr() * nr());
    double* slope_by_point = slope + nr();
    for (int k = 0; k < nr(); ++k) {
      const double* const d = b_.point_sums.data() + (1 + np_ + k) * b_.pair_stride + at;
      double sum = 0.0;
      for (int q = 0; q < count; ++q) {
        product[q] = e[q] * d[q];
        sum += product[q];
      }
      merge(*slope++, fresh, keep, take, sum);
      for (int l = 0; l < nr(); ++l) merge(*slope_by_point++, fresh, keep, take, weighted_sum(product, standard(l, first), count));
    }
    double* const direct = b_.direct.data() + static_cast<long>(slot) * np_;
    if (fresh) std::fill_n(direct, np_, 0.0);
    for (const int k : n_.programs.gradient_list)
      if (k > 0 && k <= np_)
        merge(direct[k - 1], fresh, keep, take, weighted_sum(e, b_.point_sums.data() + k * b_.pair_stride + at, count));
  }

  // A point without weight contributes nothing, whatever its derivatives are.
  void clear_dropped(const double* e, int at, int count)
  {
    for (const int k : n_.programs.gradient_list) {
      double* const d = b_.point_sums.data() + k * b_.pair_stride + at;
      for (int q = 0; q < count; ++q)
        if (!(e[q] > 0.0)) d[q] = 0.0;
    }
  }

  const NX& n_;
  TVLThreadCtx& ctx_;
  BatchWork& b_;
  const REFFECT& reff_;
  const bool gradient_;
  const int nr_, np_;
  int pairs_ = 0, runs_ = 0;
  long run_first_ = 0; // first point of the first run: runs share a flush only when each holds all points of its slot
};

} // namespace

int sum_points(const NX& n, TVLThreadCtx& ctx, bool gradient)
{
  switch (n.reff[0].nr) {
    case 1: return PointLoop<1>(n, ctx, gradient).run();
    case 2: return PointLoop<2>(n, ctx, gradient).run();
    case 3: return PointLoop<3>(n, ctx, gradient).run();
    default: return PointLoop<0>(n, ctx, gradient).run();
  }
}

long point_scratch(const NX&, const REFFECT&)
{
  return most_pairs;
}

int sum_curvature(const NX& n, TVLThreadCtx& ctx)
{
  BatchWork& b = ctx.batch;
  const int nr = n.reff[0].nr;
  int active = 0;
  for (int slot = 0; slot < b.slots; ++slot) {
    if (b.failure[static_cast<std::size_t>(slot)] != 0) continue;
    b.column[static_cast<std::size_t>(slot)] = active;
    b.runs[static_cast<std::size_t>(active)] = modes::run_of(n, b.subject[static_cast<std::size_t>(slot)], 1);
    const long p = modes::prior_of(n, slot);
    const double* l = b.factor.data() + p * n.reff[0].nrs;
    const double* const z = b.z.data() + static_cast<long>(slot) * nr;
    for (int i = 0; i < nr; ++i) {
      double u = b.mean[static_cast<std::size_t>(p * nr + i)];
      for (int k = 0; k <= i; ++k) u += l[k] * z[k];
      l += i + 1;
      b.ran[static_cast<std::size_t>(i * b.pair_stride + active)] = u;
    }
    ++active;
  }
  if (active == 0) return 0;
  ctx.frame->set_points(b.ran.data(), active, static_cast<int>(b.pair_stride));
  return evaluation::tvllogl(n, ctx, {b.runs.data(), static_cast<std::size_t>(active)},
                             {n.programs.curvature, n.programs.curvature_list, b.curvature_sums.data(), b.mode_stride});
}

} // namespace torvale::integration
