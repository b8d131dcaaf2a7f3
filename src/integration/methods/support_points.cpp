// Random effects with finitely many values: the integral is a sum over the support points.
//
// A point t has coordinates c_t and a probability p_t; the last point is derived, p = 1 - sum p_t, c = -sum p_t c_t /
// p, so that probabilities add up to one and the mean is zero. With l_t the log likelihood at c_t,
//     v = -log sum p_t exp l_t,   -v. = sum w_t (l_t. + c_t.'l_t,u) + sum p_t. exp(l_t) / S,   w_t = p_t exp(l_t) / S.
// A point with probability 0 is left out of the sum, but not out of its own derivative: it can come back.

#include "evaluation/random_covariance.h"
#include "evaluation/record_sums.h"
#include "host/messages/names/statements.h"
#include "integration/posterior/posterior.h"
#include "integration/subjects/evaluation_parts.h"
#include "modes/mode_search.h"

#include <algorithm>
#include <cmath>

namespace torvale::integration {

using model::BatchWork;
using model::NX;
using model::REFFECT;
using model::TVLThreadCtx;

namespace {

constexpr int impossible_support = message::likelihood_not_usable::message_number; // a probability outside its range
constexpr double largest_exponent = 709.0;

// The support of one prior.
struct Support {
  const double* row; // points x (nr + 1)
  const double* by;  // np such blocks
  int points, nr;
  double coordinate(int t, int k) const { return row[t * (nr + 1) + k]; }
  double probability(int t) const { return row[t * (nr + 1) + nr]; }
  double coordinate_by(int j, int t, int k) const { return by[(j * points + t) * (nr + 1) + k]; }
  double probability_by(int j, int t) const { return by[(j * points + t) * (nr + 1) + nr]; }
};

int points_of(const REFFECT& reff)
{
  return reff.nd / (reff.nr + 1) + 1;
}

// Copies the given points and derives the last one, with its derivatives when there are any. False when a probability
// is negative, or the last one is not inside (0, 1).
bool derive_support(const REFFECT& reff, int np, bool derivatives, const double* arguments, double* row, double* by)
{
  const int given = points_of(reff) - 1, width = reff.nr + 1, nr = reff.nr;
  double* const last = row + given * width;
  std::copy_n(arguments, given * width, row);
  std::fill_n(last, width, 0.0);
  double p = 1.0;
  for (int t = 0; t < given; ++t) {
    const double* const point = row + t * width;
    if (!(point[nr] >= 0.0)) return false;
    p -= point[nr];
    for (int k = 0; k < nr; ++k) last[k] -= point[nr] * point[k];
  }
  if (!(p > 0.0 && p < 1.0)) return false;
  last[nr] = p;
  for (int k = 0; k < nr; ++k) last[k] /= p;
  for (int j = 0; derivatives && j < np; ++j) {
    double* const d = by + j * (given + 1) * width;
    double* const end = d + given * width;
    std::fill_n(end, width, 0.0);
    for (int a = 0; a < given * width; ++a) d[a] = arguments[reff.argument_derivative(a, j, np)];
    for (int t = 0; t < given; ++t) {
      end[nr] -= d[t * width + nr];
      for (int k = 0; k < nr; ++k)
        end[k] -= d[t * width + nr] * row[t * width + k] + row[t * width + nr] * d[t * width + k];
    }
    for (int k = 0; k < nr; ++k) end[k] = (end[k] - last[k] * end[nr]) / p;
  }
  return true;
}

class SupportPoints final : public ClosesEach<SupportPoints> {
public:
  void size_batch(const NX& n, TVLThreadCtx& ctx) const override;
  int evaluate(const NX& n, TVLThreadCtx& ctx, bool gradient) const override;
  int close_value(const NX& n, const TVLThreadCtx& ctx, int slot, double& value) const;
  void close_gradient(const NX& n, const TVLThreadCtx& ctx, int slot, double* gradient) const;
  void close_modes(NX&, const TVLThreadCtx&, std::span<const int>) const override {}
};

void SupportPoints::size_batch(const NX& n, TVLThreadCtx& ctx) const
{
  const REFFECT& reff = n.leaf();
  BatchWork& b = ctx.batch;
  const long slots = static_cast<long>(b.subject.size()), priors = reff.setup_varies ? slots : 1;
  const long support = static_cast<long>(points_of(reff)) * (reff.nr + 1);
  b.pair_stride = evaluation::most_pairs + 8;
  size(b.ran, reff.nr * b.pair_stride);
  size(b.arguments, priors * reff.setup.places);
  size(b.outputs, reff.setup.places);
  size(b.support, priors * support);
  size(b.support_by, priors * support * n.nparm);
  size(b.point_sums, std::max(n.programs.gradient.places, n.programs.value.places) * b.pair_stride);
  size(b.prior, points_of(reff)); // one subject's weights
  for (std::vector<double>* v : {&b.peak, &b.total}) size(*v, slots);
  size(b.direct, slots * n.nparm);
  b.prior_loaded = false;
}

Support support_of(const NX& n, const BatchWork& b, int slot)
{
  const REFFECT& reff = n.leaf();
  const int points = points_of(reff);
  const long p = modes::prior_of(n, slot), size = static_cast<long>(points) * (reff.nr + 1);
  return {b.support.data() + p * size, b.support_by.data() + p * size * n.nparm, points, reff.nr};
}

// The supports of the batch; a slot without one fails.
int load_supports(const NX& n, TVLThreadCtx& ctx)
{
  const REFFECT& reff = n.leaf();
  BatchWork& b = ctx.batch;
  const bool derivatives = reff.setup.places > reff.setup_value.places;
  const bool loaded = b.prior_loaded;
  if (const int rc = evaluation::load_priors(n, ctx, derivatives); rc > 2) return rc;
  const long size = static_cast<long>(points_of(reff)) * (reff.nr + 1);
  for (int slot = 0; slot < (reff.setup_varies ? b.slots : 1); ++slot) {
    if (b.failure[static_cast<std::size_t>(slot)] != 0 || (loaded && !reff.setup_varies)) continue;
    const bool good =
        derive_support(reff, n.nparm, derivatives, b.arguments.data() + slot * static_cast<long>(reff.setup.places),
                       b.support.data() + slot * size, b.support_by.data() + slot * size * n.nparm);
    if (good) continue;
    if (reff.setup_varies) {
      b.failure[static_cast<std::size_t>(slot)] = impossible_support;
    } else {
      b.prior_failure = impossible_support;
      std::fill_n(b.failure.begin(), b.slots, impossible_support);
    }
  }
  return 0;
}

// Weights of a slot whose first pair stands at `at`; its sums of weights and of weighted derivatives.
void add_slot(const NX& n, BatchWork& b, int slot, int at, int step, bool gradient)
{
  const Support support = support_of(n, b, slot);
  const auto s = static_cast<std::size_t>(slot);
  const double* const ll = b.point_sums.data() + at;
  double* const e = b.prior.data();
  double peak = model::failed_point;
  for (int t = 0; t < support.points; ++t) {
    const double l = ll[t * step], p = support.probability(t);
    e[t] = l > model::impossible_loglik ? l : model::failed_point;
    if (p > 0.0 && e[t] > model::failed_point) peak = std::max(peak, e[t] + std::log(p));
  }
  b.peak[s] = peak;
  b.total[s] = 0.0;
  if (!(peak > model::failed_point)) return;
  for (int t = 0; t < support.points; ++t) {
    e[t] = e[t] > model::failed_point ? std::exp(std::min(e[t] - peak, largest_exponent)) : 0.0;
    b.total[s] += support.probability(t) * e[t];
  }
  if (!gradient) return;
  double* const direct = b.direct.data() + static_cast<long>(slot) * n.nparm;
  std::fill_n(direct, n.nparm, 0.0);
  for (int t = 0; t < support.points; ++t) {
    if (!(e[t] > 0.0)) continue;
    const double weight = support.probability(t) * e[t];
    const double* const d = ll + t * step;
    for (int j = 0; j < n.nparm; ++j) {
      direct[j] += e[t] * support.probability_by(j, t);
      if (!(weight > 0.0)) continue;
      double slope = d[n.programs.by_parameter(j) * b.pair_stride];
      for (int k = 0; k < support.nr; ++k)
        slope += d[n.programs.by_effect(k) * b.pair_stride] * support.coordinate_by(j, t, k);
      direct[j] += weight * slope;
    }
  }
}

// Runs the program at the points of all good slots; visit(slot, first pair, step from point to point) for each.
template <class Visit> int run_supports(const NX& n, TVLThreadCtx& ctx, bool gradient, Visit visit)
{
  BatchWork& b = ctx.batch;
  if (const int rc = load_supports(n, ctx); rc > 2) return rc;
  int good = 0;
  for (int slot = 0; slot < b.slots; ++slot)
    if (b.failure[static_cast<std::size_t>(slot)] == 0) b.active[static_cast<std::size_t>(good++)] = slot;
  const int points = points_of(n.leaf()), most = evaluation::most_pairs / points;
  const model::ModelProgram& program = gradient ? n.programs.gradient : n.programs.value;
  for (int first = 0; first < good; first += most) {
    const evaluation::Pairs pairs{b.active.data() + first, std::min(most, good - first), points};
    for (int i = 0; i < pairs.count; ++i) {
      const Support support = support_of(n, b, pairs.slots[i]);
      for (int t = 0; t < points; ++t)
        for (int k = 0; k < support.nr; ++k)
          b.ran[static_cast<std::size_t>(k * b.pair_stride + i * pairs.slot_step() + t * pairs.point_step())] =
              support.coordinate(t, k);
    }
    ctx.frame->set_points(b.ran.data(), pairs.count * points, static_cast<int>(b.pair_stride));
    const int rc = evaluation::tvllogl(n, ctx, pairs, {program, b.point_sums.data(), b.pair_stride});
    if (rc != 0) return rc;
    for (int i = 0; i < pairs.count; ++i) visit(pairs.slots[i], i * pairs.slot_step(), pairs.point_step());
  }
  return 0;
}

int SupportPoints::evaluate(const NX& n, TVLThreadCtx& ctx, bool gradient) const
{
  return run_supports(n, ctx, gradient,
                      [&](int slot, int at, int step) { add_slot(n, ctx.batch, slot, at, step, gradient); });
}

int SupportPoints::close_value(const NX& n, const TVLThreadCtx& ctx, int slot, double& value) const
{
  const BatchWork& b = ctx.batch;
  const auto s = static_cast<std::size_t>(slot);
  if (b.failure[s] != 0) return b.failure[s];
  value = -(std::log(b.total[s]) + b.peak[s]);
  return b.total[s] > 0.0 ? 0 : zero_integral(n);
}

void SupportPoints::close_gradient(const NX& n, const TVLThreadCtx& ctx, int slot, double* gradient) const
{
  const BatchWork& b = ctx.batch;
  const double per_total = 1.0 / b.total[static_cast<std::size_t>(slot)];
  const double* const direct = b.direct.data() + static_cast<long>(slot) * n.nparm;
  for (int j = 0; j < n.nparm; ++j) gradient[j] = -per_total * direct[j];
}

// One subject's posterior: probabilities w_t and, with a_t = p_t./p_t + l_t. + c_t.'l_t,u, their derivatives w_t (a_t -
// sum w a).
class SubjectPosterior {
public:
  SubjectPosterior(const NX& n, const BatchWork& b, int slot, Posterior& out)
      : n_(n), support_(support_of(n, b, slot)), out_(out), np_(n.nparm), points_(support_.points), nr_(support_.nr),
        subject_(b.subject[static_cast<std::size_t>(slot)])
  {
  }

  void keep(const BatchWork& b, int slot, int at, int step)
  {
    const double total = b.total[static_cast<std::size_t>(slot)];
    if (!(total > 0.0)) return;
    const double* const ll = b.point_sums.data() + at;
    double* const w = out_.probability.data() + static_cast<long>(subject_) * points_;
    double* const by = out_.probability_by.data() + static_cast<long>(subject_) * points_ * np_;
    for (int t = 0; t < points_; ++t) w[t] = support_.probability(t) * b.prior[static_cast<std::size_t>(t)] / total;
    for (int j = 0; j < np_; ++j) {
      double mean = 0.0;
      for (int t = 0; t < points_; ++t) {
        double a = b.prior[static_cast<std::size_t>(t)] / total *
                   support_.probability_by(j, t); // w_t p_t./p_t, also where p_t is 0
        if (w[t] > 0.0) {
          double slope = ll[t * step + n_.programs.by_parameter(j) * b.pair_stride];
          for (int k = 0; k < nr_; ++k)
            slope += ll[t * step + n_.programs.by_effect(k) * b.pair_stride] * support_.coordinate_by(j, t, k);
          a += w[t] * slope;
        }
        by[t * np_ + j] = a;
        mean += a;
      }
      for (int t = 0; t < points_; ++t) by[t * np_ + j] -= w[t] * mean;
    }
    moments(w, by);
    out_.known[static_cast<std::size_t>(subject_)] = 1;
  }

private:
  // E[u], E[u u'] - E[u] E[u]', and the derivative of E[u].
  void moments(const double* w, const double* by)
  {
    double* const mean = out_.estimate.data() + static_cast<long>(subject_) * nr_;
    double* const v = out_.covariance.data() + static_cast<long>(subject_) * (nr_ * (nr_ + 1) / 2);
    double* const d = out_.derivative.data() + static_cast<long>(subject_) * nr_ * np_;
    for (int k = 0; k < nr_; ++k) {
      mean[k] = 0.0;
      for (int t = 0; t < points_; ++t) mean[k] += w[t] * support_.coordinate(t, k);
      for (int j = 0; j < np_; ++j) {
        d[k * np_ + j] = 0.0;
        for (int t = 0; t < points_; ++t)
          d[k * np_ + j] += by[t * np_ + j] * support_.coordinate(t, k) + w[t] * support_.coordinate_by(j, t, k);
      }
    }
    for (int k = 0; k < nr_; ++k)
      for (int l = 0; l <= k; ++l) {
        double sum = 0.0;
        for (int t = 0; t < points_; ++t)
          sum += w[t] * (support_.coordinate(t, k) - mean[k]) * (support_.coordinate(t, l) - mean[l]);
        v[k * (k + 1) / 2 + l] = sum;
      }
  }

  const NX& n_;
  const Support support_;
  Posterior& out_;
  const int np_, points_, nr_, subject_;
};

} // namespace

int support_posteriors(const NX& n, TVLThreadCtx& ctx, Posterior& out)
{
  return run_supports(n, ctx, true, [&](int slot, int at, int step) {
    add_slot(n, ctx.batch, slot, at, step, true);
    SubjectPosterior(n, ctx.batch, slot, out).keep(ctx.batch, slot, at, step);
  });
}

int support_size(const REFFECT& reff)
{
  return points_of(reff);
}

const Integrator& support_points()
{
  static const SupportPoints integrator;
  return integrator;
}

} // namespace torvale::integration
