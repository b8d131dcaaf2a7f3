// The points of a batch: random effects at every point, log integrands, weights and weighted sums.

#include "integration/subjects/evaluation_parts.h"

#include "evaluation/lane_loops.h"
#include "evaluation/record_sums.h"
#include "modes/joint_density.h"
#include "modes/mode_search.h"
#include "modes/unrolled.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace torvale::integration {

using model::BatchWork;
using model::NX;
using model::REFFECT;
using model::TVLThreadCtx;

namespace {

constexpr int most_points = 256; // of one chunk of a subject
constexpr int most_slots = 128;  // of one block: one strip of lanes

// A sum over points has one chain when they are few, eight interleaved ones beyond: the order depends on their number
// alone.
constexpr int chains_of(int points)
{
  return points < 16 ? 1 : 8;
}

double joined(const double* part, long stride)
{
  return ((part[0] + part[4 * stride]) + (part[2 * stride] + part[6 * stride])) +
         ((part[stride] + part[5 * stride]) + (part[3 * stride] + part[7 * stride]));
}

double weighted_sum(const double* a, const double* b, int length)
{
  if (chains_of(length) == 1) {
    double sum = 0.0;
    for (int i = 0; i < length; ++i) sum += a[i] * b[i];
    return sum;
  }
  double part[8] = {};
  int i = 0;
  for (; i + 8 <= length; i += 8)
    for (int k = 0; k < 8; ++k) part[k] += a[i + k] * b[i + k];
  for (int k = 0; i + k < length; ++k) part[k] += a[i + k] * b[i + k];
  return joined(part, 1);
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
      : n_(n), ctx_(ctx), b_(ctx.batch), reff_(n.leaf()), gradient_(gradient),
        factored_(gradient && b_.factored.in_use), program_(!gradient   ? n.programs.value
                                                            : factored_ ? n.programs.factored.gradient
                                                                        : n.programs.gradient),
        nr_(n.leaf().nr), np_(n.nparm)
  {
  }

  // The shares of the points in the integrals, which are known from a run before.
  int run_shares(double* shares)
  {
    shares_ = shares;
    known_peak_ = b_.peak;
    known_total_ = b_.total;
    return run();
  }

  int run()
  {
    int good = 0;
    for (int slot = 0; slot < b_.slots; ++slot) {
      const auto s = static_cast<std::size_t>(slot);
      if (b_.failure[s] != 0) continue;
      b_.active[static_cast<std::size_t>(good++)] = slot;
      b_.peak[s] = model::failed_point;
      b_.total[s] = 0.0;
    }
    // Blocks of slots of about equal size.
    const int points = static_cast<int>(std::min<long>(reff_.nqpr, most_points));
    int most = std::min(most_slots, evaluation::most_pairs / points);
    if (factored_) most = std::clamp(static_cast<int>(block_lanes / (static_cast<long>(points) * b_.levels)), 1, most);
    const int blocks = (good + most - 1) / most;
    for (int block = 0, first = 0; block < blocks; ++block) {
      const int count = (good - first) / (blocks - block);
      if (const int rc = add_block(b_.active.data() + first, count); rc != 0) return rc;
      first += count;
    }
    return 0;
  }

private:
  int nr() const { return NR > 0 ? NR : nr_; }
  int nrs() const { return nr() * (nr() + 1) / 2; }
  const double* standard(int k) const { return reff_.points.data() + k * reff_.nqpr + first_; }

  // All points of a block of slots, chunk by chunk.
  int add_block(const int* slots, int count)
  {
    for (first_ = 0; first_ < reff_.nqpr; first_ += pairs_.points) {
      pairs_ = {slots, count, static_cast<int>(std::min<long>(reff_.nqpr - first_, most_points))};
      step_ = pairs_.point_step();
      for (int i = 0; i < count; ++i) place(slots[i], i * pairs_.slot_step());
      if (const int rc = add_chunks(); rc != 0) return rc;
    }
    return 0;
  }

  // Random effects and the log of weight times prior kernel at the points of a slot, whose first pair is `at`.
  void place(int slot, int at)
  {
    const PointMap<NR> map(n_, b_, slot, nr());
    double* const prior = b_.prior.data() + at;
    for (int i = 0; i < nr(); ++i) {
      const double* const zs = map.zspread + i * (i + 1) / 2;
      const double* const us = map.uspread + i * (i + 1) / 2;
      double* const u = b_.ran.data() + i * b_.pair_stride + at;
      for (int q = 0; q < pairs_.points; ++q) {
        double zi = map.zcentre[i], ui = map.ucentre[i];
        for (int k = 0; k <= i; ++k) {
          const double x = standard(k)[q];
          zi += zs[k] * x;
          ui += us[k] * x;
        }
        // What the dimensions so far have made of the weight.
        const double before = i == 0 ? reff_.logw[static_cast<std::size_t>(first_ + q)] : prior[q * step_];
        prior[q * step_] = before - 0.5 * zi * zi;
        u[q * step_] = ui;
      }
    }
  }

  // Runs the program at the pairs, and adds each slot's chunk of points to what it has.
  int add_chunks()
  {
    const int all = pairs_.count * pairs_.points;
    if (const int rc = run_points(all); rc != 0) return rc;
    make_weights(all);
    if (shares_ != nullptr) note_shares();
    weigh_chunks();
    if (!gradient_) return 0;
    clear_dropped(all);
    add_moments(all);
    if (factored_) weigh_coefficients();
    return 0;
  }

  int run_points(int all)
  {
    ctx_.frame->set_points(b_.ran.data(), all, static_cast<int>(b_.pair_stride));
    evaluation::RecordSums sums{program_, b_.point_sums.data(), b_.pair_stride};
    if (factored_) sums.lanes = kept_lanes(b_, n_.programs.factored.point_coefficients);
    return evaluation::tvllogl(n_, ctx_, pairs_, sums);
  }

  // Turns the prior terms of the pairs into weights relative to the largest of their slot, whose log is left in peak_.
  void make_weights(int all)
  {
    double* const e = b_.prior.data();
    const double* const ll = b_.point_sums.data();
    const int count = pairs_.count, points = pairs_.points;
    evaluation::join_above(e, ll, model::impossible_loglik, model::failed_point, all);
    std::fill_n(peak_, count, model::failed_point);
    if (pairs_.slots_aside()) {
      for (int q = 0; q < points; ++q) evaluation::keep_larger(peak_, e + q * count, count);
      for (int q = 0; q < points; ++q)
        for (int i = 0; i < count; ++i) e[q * count + i] -= peak_[i];
    } else {
      for (int i = 0; i < count; ++i) {
        for (int q = 0; q < points; ++q) peak_[i] = std::max(peak_[i], e[i * points + q]);
        for (int q = 0; q < points; ++q) e[i * points + q] -= peak_[i];
      }
    }
    evaluation::exponentials_of_nonpositive(e, all);
  }

  void note_shares()
  {
    for (int i = 0; i < pairs_.count; ++i) {
      const auto s = static_cast<std::size_t>(pairs_.slots[i]);
      const double weight = reff_.SubInfo[static_cast<std::size_t>(b_.subject[s])].weight;
      const double scale = weight * std::exp(peak_[i] - known_peak_[s]) / known_total_[s];
      const double* const e = b_.prior.data() + i * pairs_.slot_step();
      double* const own = shares_ + pairs_.slots[i] * reff_.nqpr + first_;
      for (int q = 0; q < pairs_.points; ++q) own[q] = scale * e[q * step_];
    }
  }

  // Puts the chunks and what their slots have so far on the scale of the larger peak, and adds the weights.
  void weigh_chunks()
  {
    for (int i = 0; i < pairs_.count; ++i) {
      double& peak = b_.peak[static_cast<std::size_t>(pairs_.slots[i])];
      const double old = peak, now = peak_[i];
      const bool fresh = !(old > model::failed_point);
      keep_[i] = fresh ? 0.0 : now > old ? std::exp(old - now) : 1.0;
      take_[i] = fresh || now >= old ? 1.0 : std::exp(now - old);
      fresh_[i] = fresh;
      if (fresh || now > old) peak = now;
    }
    sum(b_.prior.data());
    add_sums(b_.total.data(), 1);
  }

  // Adds sums_ to one number of each slot; slots are `stride` apart. A chunk whose points have all failed adds nothing.
  void add_sums(double* to, long stride) const
  {
    for (int i = 0; i < pairs_.count; ++i) {
      if (!(peak_[i] > model::failed_point)) continue;
      double& of_slot = to[pairs_.slots[i] * stride];
      of_slot = fresh_[i] ? sums_[i] : keep_[i] * of_slot + take_[i] * sums_[i];
    }
  }

  void add_moments(int all)
  {
    const double* const e = b_.prior.data();
    const long moments = nr() + nrs(), slopes = nr() + nr() * nr();
    double* moment = b_.point_moments.data();
    for (int k = 0; k < nr(); ++k) {
      sum_by_point(e, standard(k));
      add_sums(moment++, moments);
    }
    double* const product = b_.scratch.data();
    for (int k = 0; k < nr(); ++k) {
      multiply_by_point(product, e, standard(k));
      for (int l = 0; l <= k; ++l) {
        sum_by_point(product, standard(l));
        add_sums(moment++, moments);
      }
    }
    double* slope = b_.slope_moments.data();
    double* slope_by_point = slope + nr();
    for (int k = 0; k < nr(); ++k) {
      const double* const d = b_.point_sums.data() + n_.programs.by_effect(k) * b_.pair_stride;
      for (int j = 0; j < all; ++j) product[j] = e[j] * d[j];
      sum(product);
      add_sums(slope++, slopes);
      for (int l = 0; l < nr(); ++l) {
        sum_by_point(product, standard(l));
        add_sums(slope_by_point++, slopes);
      }
    }
    for (int i = 0; i < pairs_.count; ++i)
      if (fresh_[i]) std::fill_n(b_.direct.data() + static_cast<long>(pairs_.slots[i]) * np_, np_, 0.0);
    for (const int k : program_.outputs) {
      if (!n_.programs.parameter_place(k)) continue;
      sum_by_pair(e, b_.point_sums.data() + k * b_.pair_stride);
      add_sums(b_.direct.data() + k - n_.programs.by_parameter(0), np_);
    }
  }

  // A point without weight contributes nothing, whatever its derivatives are.
  void clear_dropped(int all)
  {
    const double* const e = b_.prior.data();
    bool dropped = false;
    for (int j = 0; j < all; ++j) dropped |= !(e[j] > 0.0);
    if (!dropped) return;
    for (const int k : program_.outputs) {
      double* const d = b_.point_sums.data() + k * b_.pair_stride;
      for (int j = 0; j < all; ++j)
        if (!(e[j] > 0.0)) d[j] = 0.0;
    }
    if (factored_) clear_dropped_lanes(e);
  }

  void clear_dropped_lanes(const double* e)
  {
    auto& f = b_.factored;
    const int points = pairs_.points;
    for (int k = 0; k < n_.programs.factored.point_coefficients; ++k)
      for (int level = 0; level < b_.levels; ++level) {
        double* const a = f.lanes.data() + k * f.lane_stride + f.level[static_cast<std::size_t>(level)];
        const int live = slots_of_level(level);
        for (int i = 0; i < live; ++i)
          for (int q = 0; q < points; ++q)
            if (!(e[i * pairs_.slot_step() + q * step_] > 0.0))
              a[pairs_.slots_aside() ? q * live + i : i * points + q] = 0.0;
      }
  }

  int slots_of_level(int level) const
  {
    const auto l = static_cast<std::size_t>(level);
    return static_cast<int>((b_.factored.level[l + 1] - b_.factored.level[l]) / pairs_.points);
  }

  // The coefficients of each record, weighted and added up over its points.
  void weigh_coefficients()
  {
    auto& f = b_.factored;
    const double* const e = b_.prior.data();
    const int count = pairs_.count, points = pairs_.points;
    for (int k = 0; k < n_.programs.factored.point_coefficients; ++k)
      for (int level = 0; level < b_.levels; ++level) {
        const double* const a = f.lanes.data() + k * f.lane_stride + f.level[static_cast<std::size_t>(level)];
        const int live = slots_of_level(level);
        if (live == 0) break;
        if (pairs_.slots_aside())
          sum_aside([&](double* to, int q) { evaluation::add_products(to, e + q * count, a + q * live, live); });
        else
          for (int i = 0; i < live; ++i) sums_[i] = weighted_sum(e + i * points, a + i * points, points);
        double* const to = f.coefficients.data() + k * f.record_stride + b_.level[level];
        for (int i = 0; i < live; ++i) to[pairs_.slots[i]] = sums_[i];
      }
  }

  // --- sums over the points of each slot, into sums_: of a, of a times a number of the point, of a times b ---

  void sum(const double* a)
  {
    const int count = pairs_.count, points = pairs_.points;
    std::fill_n(sums_, count, 0.0);
    if (pairs_.slots_aside()) {
      for (int q = 0; q < points; ++q) evaluation::add_lanes(sums_, a + q * count, count);
    } else {
      for (int i = 0; i < count; ++i)
        for (int q = 0; q < points; ++q) sums_[i] += a[i * points + q];
    }
  }

  void sum_by_point(const double* a, const double* x)
  {
    const int count = pairs_.count, points = pairs_.points;
    if (pairs_.slots_aside())
      return sum_aside([&](double* to, int q) { evaluation::add_multiples(to, a + q * count, x[q], count); });
    for (int i = 0; i < count; ++i) sums_[i] = weighted_sum(a + i * points, x, points);
  }

  void sum_by_pair(const double* a, const double* b)
  {
    const int count = pairs_.count, points = pairs_.points;
    if (pairs_.slots_aside())
      return sum_aside([&](double* to, int q) { evaluation::add_products(to, a + q * count, b + q * count, count); });
    for (int i = 0; i < count; ++i) sums_[i] = weighted_sum(a + i * points, b + i * points, points);
  }

  // In the order of weighted_sum; add(to, q) adds the terms of point q.
  void sum_aside(auto&& add)
  {
    const int chains = chains_of(pairs_.points);
    std::fill_n(sums_, chains * most_slots, 0.0);
    for (int q = 0; q < pairs_.points; ++q) add(sums_ + q % chains * most_slots, q);
    if (chains > 1)
      for (int i = 0; i < pairs_.count; ++i) sums_[i] = joined(sums_ + i, most_slots);
  }

  void multiply_by_point(double* to, const double* a, const double* x) const
  {
    const int count = pairs_.count, points = pairs_.points;
    if (pairs_.slots_aside()) {
      for (int q = 0; q < points; ++q)
        for (int i = 0; i < count; ++i) to[q * count + i] = a[q * count + i] * x[q];
    } else {
      for (int i = 0; i < count; ++i)
        for (int q = 0; q < points; ++q) to[i * points + q] = a[i * points + q] * x[q];
    }
  }

  const NX& n_;
  TVLThreadCtx& ctx_;
  BatchWork& b_;
  const REFFECT& reff_;
  const bool gradient_, factored_;
  const model::ModelProgram& program_;
  const int nr_, np_;
  evaluation::Pairs pairs_; // in hand
  long first_ = 0;          // their first point
  int step_ = 1;            // from a slot's pair to that of its next point
  // Per entry of pairs_: the log of the largest weight of its chunk; factors of what the slot has so far and of the
  // chunk.
  double peak_[most_slots], keep_[most_slots], take_[most_slots];
  bool fresh_[most_slots];
  double sums_[8 * most_slots];
  double* shares_ = nullptr; // of a second pass
  std::vector<double> known_peak_, known_total_;
};

// The only point is the mode, where the program has been run: its weight is 1, and log likelihood and prior are the
// sum's peak.
void take_values_at_modes(const NX& n, BatchWork& b)
{
  const int nr = n.leaf().nr;
  const double* const lls =
      b.curvature_sums.data() + n.programs.closing_gradient(model::ModelPrograms::ll) * b.mode_stride;
  for (int slot = 0; slot < b.slots; ++slot) {
    const auto s = static_cast<std::size_t>(slot);
    if (b.failure[s] != 0) continue;
    const double ll = lls[b.column[s]];
    const double* const z = b.z.data() + static_cast<long>(slot) * nr;
    double prior = n.leaf().logw[0];
    for (int i = 0; i < nr; ++i) prior -= 0.5 * z[i] * z[i];
    const bool failed = !(ll > model::impossible_loglik);
    b.peak[s] = failed ? model::failed_point : prior + ll;
    b.total[s] = failed ? 0.0 : 1.0;
  }
}

} // namespace

int sum_points(const NX& n, TVLThreadCtx& ctx, bool gradient)
{
  if (taken_at_modes(n, ctx.batch, gradient)) {
    take_values_at_modes(n, ctx.batch);
    return 0;
  }
  return modes::unrolled(n.leaf().nr, [&](auto order) { return PointLoop<order()>(n, ctx, gradient).run(); });
}

int find_shares(const NX& n, TVLThreadCtx& ctx, double* shares)
{
  return PointLoop<0>(n, ctx, false).run_shares(shares);
}

void size_point_sums(const NX& n, TVLThreadCtx& ctx)
{
  BatchWork& b = ctx.batch;
  const long slots = static_cast<long>(b.subject.size()), nr = n.leaf().nr, nrs = n.leaf().nrs;
  room(b.point_sums, std::max(n.programs.gradient.places, n.programs.value.places) * b.pair_stride);
  room(b.prior, b.pair_stride);
  room(b.peak, slots);
  room(b.total, slots);
  room(b.point_moments, slots * (nr + nrs));
  room(b.slope_moments, slots * (nr + nr * nr));
  room(b.direct, slots * n.nparm);
  room(b.gradients, slots * n.nparm);
  room(b.scratch, evaluation::most_pairs);
}

int list_good_slots(BatchWork& b)
{
  const auto slots = static_cast<std::size_t>(b.slots);
  int failed = 0;
  for (std::size_t s = 0; s < slots; ++s) failed |= b.failure[s];
  if (failed == 0) {
    std::iota(b.column.begin(), b.column.begin() + b.slots, 0);
    std::iota(b.active.begin(), b.active.begin() + b.slots, 0);
    return b.slots;
  }
  int good = 0;
  for (std::size_t s = 0; s < slots; ++s) {
    if (b.failure[s] != 0) continue;
    b.column[s] = good;
    b.active[static_cast<std::size_t>(good++)] = static_cast<int>(s);
  }
  return good;
}

int sum_curvature(const NX& n, TVLThreadCtx& ctx)
{
  BatchWork& b = ctx.batch;
  const int active = list_good_slots(b);
  if (active == 0) return 0;
  for (int a = 0; a < active; ++a) modes::place_point<0>(n, b, b.active[static_cast<std::size_t>(a)], a);
  ctx.frame->set_points(b.ran.data(), active, static_cast<int>(b.pair_stride));
  const model::ModelProgram& program = n.programs.curvature;
  return evaluation::tvllogl(n, ctx, {b.active.data(), active, 1}, {program, b.curvature_sums.data(), b.mode_stride});
}

int sum_at_modes(const NX& n, TVLThreadCtx& ctx, int active, int column)
{
  BatchWork& b = ctx.batch;
  modes::unrolled(n.leaf().nr, [&](auto order) {
    for (int a = 0; a < active; ++a) modes::place_point<order()>(n, b, b.active[static_cast<std::size_t>(a)], a);
  });
  ctx.frame->set_points(b.ran.data(), active, static_cast<int>(b.pair_stride));
  const bool factored = b.factored.in_use;
  const model::ModelProgram& program = factored          ? n.programs.factored.closing
                                       : closes_point(n) ? n.programs.closing_point
                                                         : n.programs.closing;
  evaluation::RecordSums sums{program, b.curvature_sums.data() + column, b.mode_stride};
  if (factored) sums.lanes = kept_lanes(b, n.programs.factored.mode_coefficients);
  const int rc = evaluation::tvllogl(n, ctx, {b.active.data(), active, 1}, sums);
  if (rc == 0 && factored) take_mode_coefficients(n, b);
  return rc;
}

} // namespace torvale::integration
