// Hardy integration: one random effect, the trapezoidal rule on the whole line, with more and more points until the log
// of the integral stops changing.
//
// With u = m + L z and f(z) = ll(u) - z^2/2 the integral is that of exp f over the line. f has its peak near the mode,
// and steps begin with 1.25 times the standard deviation that the curvature there gives. The first sweep takes the
// points nearest to the peak and goes on at either side until three terms in a row are small. Eight points of what the
// prior leaves at either side then look for other modes: where the integrand rises again outwards, that side goes on to
// there. Then the step is halved as often as it takes. Sums are kept relative to the largest term. The error falls so
// fast with the step that the change of the last halving is far more than what is left of it (P. J. Davis and P.
// Rabinowitz, Methods of Numerical Integration, 1984, 3.4).
//
// With the points' weights e (sum 1) the gradient is
//     -v. = sum e ll. + m. sum e ll_u + G. sum e ll_u z / (2 L),
// the last, at a variance of 0, G. (ll_u^2 + ll_uu)/2. Points that stand elsewhere would do as well: they need not be
// followed.

#include "evaluation/random_covariance.h"
#include "evaluation/record_sums.h"
#include "host/messages/names/methods.h"
#include "integration/subjects/evaluation_parts.h"
#include "modes/mode_search.h"

#include <algorithm>
#include <cmath>

namespace torvale::integration {

using model::BatchWork;
using model::LineSum;
using model::NX;
using model::REFFECT;
using model::TVLThreadCtx;

namespace {

constexpr double first_step = 1.25; // in standard deviations
constexpr int first_side = 7;       // points at either side in the first sweep
constexpr int sweep = 8;            // points of a further sweep
constexpr int gradient_sweep = 32;  // of the sweeps with derivatives
constexpr int most_terms = 32767;   // at one side
constexpr double tail_share = 1e-8; // of the sum: three outermost terms are small below a third of it, or of QTOL
constexpr double reach = 6.0;       // in z: how far other modes are looked for
constexpr double rounding = 1e-14;  // no smaller change of a log is looked for

class TrapezoidLoop {
public:
  TrapezoidLoop(const NX& n, TVLThreadCtx& ctx) : n_(n), ctx_(ctx), b_(ctx.batch) {}

  int integrate()
  {
    start();
    for (int points = 2 * first_side + 1; active_ > 0; points = sweep) {
      const int rc = run(n_.programs.value, points, [&](int slot, int at, int step) {
        LineSum& line = line_of(slot);
        add_terms(slot, points, at, step);
        advance(line, points);
        if (line.phase == LineSum::failed) b_.failure[static_cast<std::size_t>(slot)] = not_converging();
      });
      if (rc != 0) return rc;
      drop([&](const LineSum& line) { return line.phase == LineSum::done || line.phase == LineSum::failed; });
    }
    return 0;
  }

  // Weighted sums of the derivatives over the points of all good slots.
  int add_derivatives()
  {
    active_ = 0;
    for (int slot = 0; slot < b_.slots; ++slot) {
      if (b_.failure[static_cast<std::size_t>(slot)] != 0) continue;
      LineSum& line = line_of(slot);
      line.phase = LineSum::weighing;
      line.next = 0;
      line.weights = line.slope = line.slope_by_point = 0.0;
      std::fill_n(b_.direct.begin() + static_cast<long>(slot) * n_.nparm, n_.nparm, 0.0);
      b_.active[static_cast<std::size_t>(active_++)] = slot;
    }
    while (active_ > 0) {
      const int rc = run(n_.programs.gradient, gradient_sweep, [&](int slot, int at, int step) {
        for (int i = 0; i < std::min(gradient_sweep, left_to_do(line_of(slot))); ++i) weigh(slot, i, at + i * step);
        line_of(slot).next += gradient_sweep;
      });
      if (rc != 0) return rc;
      drop([&](const LineSum& line) { return left_to_do(line) <= 0; });
    }
    return 0;
  }

private:
  LineSum& line_of(int slot) { return b_.line[static_cast<std::size_t>(slot)]; }

  void start()
  {
    active_ = 0;
    for (int slot = 0; slot < b_.slots; ++slot) {
      if (b_.failure[static_cast<std::size_t>(slot)] != 0) continue;
      LineSum& line = line_of(slot);
      line = LineSum{};
      line.centre = b_.z[static_cast<std::size_t>(slot)];
      line.step = first_step * std::sqrt(b_.covariance[static_cast<std::size_t>(slot)]);
      line.peak = model::failed_point;
      b_.active[static_cast<std::size_t>(active_++)] = slot;
    }
  }

  // What the prior leaves beyond the points, in steps.
  static double beyond_right(const LineSum& line) { return (reach - line.centre) / line.step - line.right; }
  static double beyond_left(const LineSum& line) { return (reach + line.centre) / line.step - line.left; }

  // Looks go outwards by equal factors: the side of another mode that rises is as long as that mode is far.
  static double farther(int edge, double beyond, int i)
  {
    return edge * std::pow(1.0 + beyond / edge, (i + 1.0) / sweep);
  }

  // Place i of a slot's next sweep, in steps from the centre.
  static double place(const LineSum& line, int i)
  {
    switch (line.phase) {
    case LineSum::first:
      return i - first_side;
    case LineSum::right_side:
      return line.right + 1 + i;
    case LineSum::left_side:
      return -line.left - 1 - i;
    case LineSum::look_right:
      return farther(line.right, beyond_right(line), i);
    case LineSum::look_left:
      return -farther(line.left, beyond_left(line), i);
    case LineSum::halving:
      return -line.left + line.next + i + 0.5;
    default:
      return -line.left + line.next + i;
    }
  }

  // Runs the program at the next points of all active slots; take(slot, its first pair, step from point to point).
  template <class Take> int run(const model::ModelProgram& program, int points, Take take)
  {
    const int most = evaluation::most_pairs / points;
    for (int first = 0; first < active_; first += most) {
      const evaluation::Pairs pairs{b_.active.data() + first, std::min(most, active_ - first), points};
      for (int i = 0; i < pairs.count; ++i) {
        const int slot = pairs.slots[i];
        const auto prior = static_cast<std::size_t>(modes::prior_of(n_, slot));
        for (int q = 0; q < points; ++q)
          b_.ran[static_cast<std::size_t>(i * pairs.slot_step() + q * pairs.point_step())] =
              b_.mean[prior] + b_.factor[prior] * z(line_of(slot), q);
      }
      ctx_.frame->set_points(b_.ran.data(), pairs.count * points, static_cast<int>(b_.pair_stride));
      const int rc = evaluation::tvllogl(n_, ctx_, pairs, {program, b_.point_sums.data(), b_.pair_stride});
      if (rc != 0) return rc;
      for (int i = 0; i < pairs.count; ++i) take(pairs.slots[i], i * pairs.slot_step(), pairs.point_step());
    }
    return 0;
  }

  static double z(const LineSum& line, int i) { return line.centre + line.step * place(line, i); }

  // Log of the integrand at point i of a sweep.
  double term(const LineSum& line, int i, double ll) const
  {
    const double at = z(line, i);
    return ll > model::impossible_loglik ? ll - 0.5 * at * at : model::failed_point;
  }

  void add_terms(int slot, int points, int at, int step)
  {
    LineSum& line = line_of(slot);
    const double* const ll = b_.point_sums.data() + at;
    if (line.phase == LineSum::halving) points = std::min(points, line.left + line.right - line.next);
    for (int i = 0; i < points; ++i) {
      const double t = term(line, i, ll[i * step]);
      line.term[i] = t;
      if (line.phase == LineSum::look_right || line.phase == LineSum::look_left) continue;
      if (t > line.peak) {
        line.total = line.peak > model::failed_point ? line.total * std::exp(line.peak - t) : 0.0;
        line.peak = t;
      }
      if (t > model::failed_point) line.total += std::exp(t - line.peak);
    }
  }

  // Three terms from the i-th on are small, and those outwards fall: from `inner` to `outer`, the last two of the
  // three.
  bool closed(const LineSum& line, int i, int inner, int outer) const
  {
    if (line.term[outer] > line.term[inner]) return false;
    double sum = 0.0;
    for (int k = i; k < i + 3; ++k)
      if (line.term[k] > model::failed_point) sum += std::exp(line.term[k] - line.peak);
    return sum <= std::min(tail_share, n_.qtol) / 3.0 * line.total;
  }

  // The points at which the last rise outwards ends among those that looked, 0 where there is none. (A range that would
  // take too many steps is left.)
  int points_of_rise(const LineSum& line, int points) const
  {
    const double small_term = line.peak + std::log(tail_share / 3.0 * line.total);
    for (int k = points - 1; k >= 0; --k)
      if (line.term[k] > (k > 0 ? line.term[k - 1] : small_term)) {
        const double least = std::ceil(std::abs(place(line, k)));
        return least < most_terms / 8 ? static_cast<int>(least) : 0;
      }
    return 0;
  }

  // What a slot does after a sweep.
  void advance(LineSum& line, int points)
  {
    switch (line.phase) {
    case LineSum::first:
      line.left = line.right = first_side;
      line.left_closed = closed(line, 0, 1, 0);
      line.right_closed = closed(line, points - 3, points - 2, points - 1);
      break;
    case LineSum::right_side:
      line.right += points;
      line.right_closed = line.right >= line.least_right && closed(line, points - 3, points - 2, points - 1);
      break;
    case LineSum::left_side:
      line.left += points;
      line.left_closed = line.left >= line.least_left && closed(line, points - 3, points - 2, points - 1);
      break;
    case LineSum::look_right:
      line.looked_right = true;
      line.least_right = points_of_rise(line, points);
      line.right_closed = line.least_right == 0;
      break;
    case LineSum::look_left:
      line.looked_left = true;
      line.least_left = points_of_rise(line, points);
      line.left_closed = line.least_left == 0;
      break;
    default:
      line.next += points;
      if (line.next < line.left + line.right) return;
      line.step *= 0.5;
      line.left *= 2;
      line.right *= 2;
      close_sum(line);
      return;
    }
    if (std::max(line.left, line.right) > most_terms)
      line.phase = LineSum::failed;
    else if (!line.right_closed)
      line.phase = LineSum::right_side;
    else if (!line.left_closed)
      line.phase = LineSum::left_side;
    else if (!line.looked_right && beyond_right(line) > 0.0)
      line.phase = LineSum::look_right;
    else if (!line.looked_left && beyond_left(line) > 0.0)
      line.phase = LineSum::look_left;
    else
      close_sum(line);
  }

  // The integral with the present step: good enough, or the step is halved.
  void close_sum(LineSum& line) const
  {
    const double log_sum = std::log(line.total * line.step) + line.peak;
    const double change = std::abs(log_sum - line.log_integral);
    const bool again = line.phase == LineSum::halving;
    line.log_integral = log_sum;
    line.next = 0;
    if (again && change < std::max(n_.qtol, rounding * (1.0 + std::abs(log_sum))))
      line.phase = LineSum::done;
    else if (!std::isfinite(log_sum) || 2 * std::max(line.left, line.right) > most_terms)
      line.phase = LineSum::failed;
    else
      line.phase = LineSum::halving;
  }

  int left_to_do(const LineSum& line) const { return line.left + line.right + 1 - line.next; }

  // Adds the derivatives at point i of a sweep, whose results stand at `pair`.
  void weigh(int slot, int i, int pair)
  {
    LineSum& line = line_of(slot);
    const double* const d = b_.point_sums.data() + pair;
    const double t = term(line, i, d[0]);
    const double e = t > model::failed_point ? std::exp(t - line.peak) : 0.0;
    if (!(e > 0.0)) return;
    const double slope = d[n_.programs.by_effect(0) * b_.pair_stride];
    line.weights += e;
    line.slope += e * slope;
    line.slope_by_point += e * slope * z(line, i);
    double* const direct = b_.direct.data() + static_cast<long>(slot) * n_.nparm;
    for (const int k : n_.programs.gradient.outputs)
      if (n_.programs.parameter_place(k)) direct[k - n_.programs.by_parameter(0)] += e * d[k * b_.pair_stride];
  }

  template <class Finished> void drop(Finished finished)
  {
    int kept = 0;
    for (int a = 0; a < active_; ++a) {
      const int slot = b_.active[static_cast<std::size_t>(a)];
      if (!finished(line_of(slot))) b_.active[static_cast<std::size_t>(kept++)] = slot;
    }
    active_ = kept;
  }

  int not_converging() const
  {
    return n_.outer().sub_character ? message::integral_not_converging_text_subject::message_number
                                    : message::integral_not_converging::message_number;
  }

  const NX& n_;
  TVLThreadCtx& ctx_;
  BatchWork& b_;
  int active_ = 0;
};

// tvlhrdy: a nest is a slot. (hrdy Hardy.)
class Trapezoid final : public ClosesEach<Trapezoid> {
public:
  void size_batch(const NX& n, TVLThreadCtx& ctx) const override
  {
    size_subject_work(n, ctx);
    BatchWork& b = ctx.batch;
    const auto slots = static_cast<long>(b.subject.size());
    size(b.line, slots);
    size(b.direct, slots * n.nparm);
    size(b.point_sums, std::max(n.programs.gradient.places, n.programs.value.places) * b.pair_stride);
  }

  int evaluate(const NX& n, TVLThreadCtx& ctx, bool gradient) const override
  {
    const REFFECT& reff = n.leaf();
    if (const int rc = evaluation::load_priors(n, ctx, reff.setup.places > reff.setup_value.places); rc > 2) return rc;
    if (const int rc = modes::tvlebes(n, ctx); rc > 2) return rc;
    TrapezoidLoop loop(n, ctx);
    if (const int rc = loop.integrate(); rc != 0) return rc;
    return gradient ? loop.add_derivatives() : 0;
  }

  int close_value(const NX&, const TVLThreadCtx& ctx, int slot, double& value) const
  {
    const auto s = static_cast<std::size_t>(slot);
    value = 0.5 * log2pi - ctx.batch.line[s].log_integral;
    return ctx.batch.failure[s];
  }

  void close_gradient(const NX& n, const TVLThreadCtx& ctx, int slot, double* gradient) const
  {
    const BatchWork& b = ctx.batch;
    const REFFECT& reff = n.leaf();
    const auto s = static_cast<std::size_t>(slot);
    const LineSum& line = b.line[s];
    const auto prior = static_cast<std::size_t>(modes::prior_of(n, slot));
    const double l = b.factor[prior], per_weight = 1.0 / line.weights;
    const double mean = per_weight * line.slope;
    const double variance =
        l > 0.0 ? 0.5 * per_weight * line.slope_by_point / l : 0.5 * (b.slope[s] * b.slope[s] + b.curve[s]);
    const double* const argument = b.arguments.data() + prior * static_cast<std::size_t>(reff.setup.places);
    const double* const direct = b.direct.data() + static_cast<long>(slot) * n.nparm;
    for (int j = 0; j < n.nparm; ++j)
      gradient[j] = -(per_weight * direct[j] + mean * argument[reff.argument_derivative(0, j, n.nparm)] +
                      variance * argument[reff.argument_derivative(1, j, n.nparm)]);
  }

  void close_modes(NX& n, const TVLThreadCtx& ctx, std::span<const int> slots) const override
  {
    keep_trial_modes(n, ctx, slots);
  }
};

} // namespace

const Integrator& trapezoid()
{
  static const Trapezoid integrator;
  return integrator;
}

} // namespace torvale::integration
