#include "engine/functions/distribution_parts.h"

// Rules as in continuous_distributions.cpp. A value that is not a whole number has probability 0; the distribution
// function of such a value is that of the whole number below it. Quantiles are the smallest value that reaches the
// probability; they are constant but for jumps, so their derivatives are 0.

namespace torvale::engine {
namespace {

// One line each, so that the family reads as a table.
// clang-format off
NodeId whole(GraphBuilder& g, NodeId x) { return g.call(Kernel::floor, x); }

// The log probability where x is a whole number in [0, top] (no_node: no upper end), else minus infinity.
NodeId on_whole_numbers(GraphBuilder& g, NodeId x, NodeId top, NodeId log_probability)
{
  const NodeId fraction = above(g, g.subtract(x, whole(g, x)), 1e-9);
  NodeId outside = g.or_(below(g, x, 0.0), fraction);
  if (top != no_node) outside = g.or_(outside, g.and_(g.compare(Kernel::less, top, x), g.not_(g.is_missing(top))));
  return g.select(outside, g.constant(minus_infinity), log_probability);
}

// A tail at k = floor(x), given for k >= 0, with its value below 0.
NodeId from_zero(GraphBuilder& g, NodeId k, double value_below, NodeId tail)
{
  return g.select(below(g, k, 0.0), g.constant(value_below), tail);
}

NodeId probability(GraphBuilder& g, NodeId p) { return g.call(Kernel::probability, p); }

namespace poisson { // mean
NodeId logpdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  // As a function of the mean it is the gamma density of shape x + 1.
  return on_whole_numbers(g, x, no_node, gamma_log_density(g, g.call(Kernel::nonnegative, v[0]), g.shift(x, 1.0)));
}
template <Kernel tail> NodeId at(GraphBuilder& g, NodeId x, const NodeId* v, double value_below)
{
  const NodeId k = whole(g, x);
  return from_zero(g, k, value_below, g.call(tail, g.call(Kernel::nonnegative, v[0]), g.shift(k, 1.0)));
}
NodeId cdf(GraphBuilder& g, NodeId x, const NodeId* v) { return at<Kernel::gamma_upper>(g, x, v, 0.0); }
NodeId logcdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return at<Kernel::log_gamma_upper>(g, x, v, minus_infinity);
}
NodeId sdf(GraphBuilder& g, NodeId x, const NodeId* v) { return at<Kernel::gamma_lower>(g, x, v, 1.0); }
NodeId logsdf(GraphBuilder& g, NodeId x, const NodeId* v) { return at<Kernel::log_gamma_lower>(g, x, v, 0.0); }
NodeId quantile(GraphBuilder& g, NodeId p, const NodeId* v) { return g.call(Kernel::poisson_quantile, p, v[0]); }
} // namespace poisson

namespace binomial { // trials, probability
NodeId logpdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  // As a function of p it is the beta density of shapes x + 1 and n - x + 1, over n + 1.
  const NodeId p = probability(g, v[1]), a = g.shift(x, 1.0), b = g.shift(g.subtract(v[0], x), 1.0);
  const NodeId density = beta_log_density(g, p, complement(g, p), a, b);
  return on_whole_numbers(g, x, v[0], g.subtract(density, g.call(Kernel::log, g.shift(v[0], 1.0))));
}
// P(X <= k) = 1 - I_p(k + 1, n - k), 0 <= k < n.
template <Kernel tail> NodeId at(GraphBuilder& g, NodeId x, const NodeId* v, double value_below, double value_above)
{
  const NodeId k = whole(g, x), p = probability(g, v[1]);
  const NodeId inside = g.apply(tail, {p, g.shift(k, 1.0), g.subtract(v[0], k), complement(g, p)});
  const NodeId beyond = g.and_(g.compare(Kernel::less_equal, v[0], k), g.not_(g.is_missing(v[0])));
  return from_zero(g, k, value_below, g.select(beyond, g.constant(value_above), inside));
}
NodeId cdf(GraphBuilder& g, NodeId x, const NodeId* v) { return at<Kernel::beta_upper>(g, x, v, 0.0, 1.0); }
NodeId logcdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return at<Kernel::log_beta_upper>(g, x, v, minus_infinity, 0.0);
}
NodeId sdf(GraphBuilder& g, NodeId x, const NodeId* v) { return at<Kernel::beta_lower>(g, x, v, 1.0, 0.0); }
NodeId logsdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return at<Kernel::log_beta_lower>(g, x, v, 0.0, minus_infinity);
}
NodeId quantile(GraphBuilder& g, NodeId p, const NodeId* v) { return g.call(Kernel::binomial_quantile, p, v[0], v[1]); }
} // namespace binomial

namespace negative_binomial { // size, probability: failures before the size-th success
NodeId logpdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  // As a function of p it is the beta density of shapes size and x + 1, times p / (size + x).
  const NodeId p = probability(g, v[1]), size = positive(g, v[0]);
  const NodeId density = beta_log_density(g, p, complement(g, p), size, g.shift(x, 1.0));
  const NodeId l = g.add(density, g.subtract(g.call(Kernel::log, p), g.call(Kernel::log, g.add(size, x))));
  const NodeId never = g.compare(Kernel::equal, p, g.zero());
  return on_whole_numbers(g, x, no_node, g.select(never, g.constant(minus_infinity), l));
}
// P(X <= k) = I_p(size, k + 1).
template <Kernel tail> NodeId at(GraphBuilder& g, NodeId x, const NodeId* v, double value_below)
{
  const NodeId k = whole(g, x), p = probability(g, v[1]);
  return from_zero(g, k, value_below, g.apply(tail, {p, positive(g, v[0]), g.shift(k, 1.0), complement(g, p)}));
}
NodeId cdf(GraphBuilder& g, NodeId x, const NodeId* v) { return at<Kernel::beta_lower>(g, x, v, 0.0); }
NodeId logcdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return at<Kernel::log_beta_lower>(g, x, v, minus_infinity);
}
NodeId sdf(GraphBuilder& g, NodeId x, const NodeId* v) { return at<Kernel::beta_upper>(g, x, v, 1.0); }
NodeId logsdf(GraphBuilder& g, NodeId x, const NodeId* v) { return at<Kernel::log_beta_upper>(g, x, v, 0.0); }
NodeId quantile(GraphBuilder& g, NodeId p, const NodeId* v)
{
  return g.call(Kernel::negative_binomial_quantile, p, v[0], v[1]);
}
} // namespace negative_binomial

namespace geometric { // probability: failures before the first success
NodeId logpdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  const NodeId p = probability(g, v[0]);
  const NodeId l = g.add(g.call(Kernel::log_or_minus_infinity, p), count_log(g, x, complement(g, p)));
  return on_whole_numbers(g, x, no_node, l);
}
// log P(X > k) = (k + 1) log(1 - p).
NodeId logsdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  const NodeId k = whole(g, x);
  const NodeId log_failure = g.call(Kernel::log_or_minus_infinity, complement(g, probability(g, v[0])));
  return from_zero(g, k, 0.0, g.multiply(g.shift(k, 1.0), log_failure));
}
NodeId sdf(GraphBuilder& g, NodeId x, const NodeId* v) { return g.call(Kernel::exp, logsdf(g, x, v)); }
NodeId cdf(GraphBuilder& g, NodeId x, const NodeId* v) { return g.negate(g.call(Kernel::expm1, logsdf(g, x, v))); }
NodeId logcdf(GraphBuilder& g, NodeId x, const NodeId* v) { return g.call(Kernel::log_one_minus_exp, logsdf(g, x, v)); }
NodeId quantile(GraphBuilder& g, NodeId p, const NodeId* v)
{
  return g.call(Kernel::negative_binomial_quantile, p, g.one(), v[0]);
}
} // namespace geometric

namespace bernoulli { // probability of 1
NodeId logpdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  const NodeId p = probability(g, v[0]);
  const NodeId l = g.select(g.compare(Kernel::equal, x, g.one()), g.call(Kernel::log_or_minus_infinity, p),
                            g.call(Kernel::log_or_minus_infinity, complement(g, p)));
  const NodeId known = g.select(g.is_missing(x), g.missing(), l);
  return on_whole_numbers(g, x, g.one(), known);
}
NodeId cdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  const NodeId k = whole(g, x), inside = g.select(g.is_missing(k), g.missing(), complement(g, probability(g, v[0])));
  return from_zero(g, k, 0.0, g.select(g.compare(Kernel::less_equal, g.one(), k), g.one(), inside));
}
NodeId sdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  const NodeId k = whole(g, x), inside = g.select(g.is_missing(k), g.missing(), probability(g, v[0]));
  return from_zero(g, k, 1.0, g.select(g.compare(Kernel::less_equal, g.one(), k), g.zero(), inside));
}
NodeId logcdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return g.call(Kernel::log_or_minus_infinity, cdf(g, x, v));
}
NodeId logsdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return g.call(Kernel::log_or_minus_infinity, sdf(g, x, v));
}
NodeId quantile(GraphBuilder& g, NodeId p, const NodeId* v)
{
  return g.call(Kernel::binomial_quantile, p, g.one(), v[0]);
}
} // namespace bernoulli

constexpr Distribution rows[] = {
    {"BINOMIAL", "", 2, 2, {}, {Domain::nonnegative, Domain::probability}, true,
     "n, p", "whole numbers 0 to n",
     binomial::logpdf, binomial::cdf, binomial::logcdf, binomial::sdf, binomial::logsdf, binomial::quantile},
    {"POISSON", "", 1, 1, {}, {Domain::nonnegative}, true,
     "mean", "whole numbers from 0",
     poisson::logpdf, poisson::cdf, poisson::logcdf, poisson::sdf, poisson::logsdf, poisson::quantile},
    {"NEGBINOMIAL", "NEGBIN NEGATIVEBINOMIAL", 2, 2, {}, {Domain::positive, Domain::probability}, true,
     "n, p", "failures before the n-th success, from 0",
     negative_binomial::logpdf, negative_binomial::cdf, negative_binomial::logcdf, negative_binomial::sdf,
     negative_binomial::logsdf, negative_binomial::quantile},
    {"GEOMETRIC", "", 1, 1, {}, {Domain::probability}, true,
     "p", "failures before the first success, from 0",
     geometric::logpdf, geometric::cdf, geometric::logcdf, geometric::sdf, geometric::logsdf, geometric::quantile},
    {"BERNOULLI", "", 1, 1, {}, {Domain::probability}, true,
     "p", "0 and 1",
     bernoulli::logpdf, bernoulli::cdf, bernoulli::logcdf, bernoulli::sdf, bernoulli::logsdf, bernoulli::quantile},
};
// clang-format on

} // namespace

std::span<const Distribution> discrete_distributions()
{
  return rows;
}

} // namespace torvale::engine
