#include "engine/functions/distribution_parts.h"

// Each distribution is a group of rules named for it: logpdf, cdf, logcdf, sdf, logsdf, quantile. `v` holds the
// parameters. Outside the support a density is 0 (its log minus infinity) without a fault; a parameter outside its
// range is a fault. Tails are taken from the side on which they are small, never as 1 minus the other.

namespace torvale::engine {

NodeId gamma_log_density(GraphBuilder& g, NodeId x, NodeId shape)
{
  return g.call(Kernel::gamma_log_density, x, shape);
}

NodeId beta_log_density(GraphBuilder& g, NodeId x, NodeId y, NodeId a, NodeId b)
{
  return g.apply(Kernel::beta_log_density, {x, a, b, y});
}

// lgamma((n+1)/2) - lgamma(n/2) - log(pi n)/2 - (n+1)/2 log(1 + t^2/n)
NodeId t_log_density(GraphBuilder& g, NodeId t, NodeId n)
{
  const NodeId half = g.scale(0.5, n);
  const NodeId front =
      g.subtract(g.call(Kernel::lgamma_ratio, half, g.constant(0.5)), g.scale(0.5, g.call(Kernel::log, n)));
  const NodeId body = g.multiply(g.shift(half, 0.5), g.call(Kernel::log1p, g.divide(g.square(t), n)));
  return g.subtract(g.shift(front, -0.5 * log_pi), body);
}

namespace {

// One line each, so that the family reads as a table.
// clang-format off
// --- location and scale families: z = (x - location) / scale -------------------------------------------------------

NodeId standardized(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return g.divide(g.subtract(x, v[0]), positive(g, v[1]));
}
NodeId located(GraphBuilder& g, NodeId z, const NodeId* v) { return g.add(v[0], g.multiply(positive(g, v[1]), z)); }

namespace normal {
NodeId standard_log_density(GraphBuilder& g, NodeId z) { return g.shift(g.scale(-0.5, g.square(z)), -log_sqrt_two_pi); }
NodeId logpdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return g.subtract(standard_log_density(g, standardized(g, x, v)), g.call(Kernel::log, v[1]));
}
NodeId cdf(GraphBuilder& g, NodeId x, const NodeId* v) { return g.call(Kernel::normal_cdf, standardized(g, x, v)); }
NodeId logcdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return g.call(Kernel::normal_log_cdf, standardized(g, x, v));
}
NodeId sdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return g.call(Kernel::normal_cdf, g.negate(standardized(g, x, v)));
}
NodeId logsdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return g.call(Kernel::normal_log_cdf, g.negate(standardized(g, x, v)));
}
NodeId quantile(GraphBuilder& g, NodeId p, const NodeId* v)
{
  return located(g, g.call(Kernel::normal_quantile, p), v);
}
} // namespace normal

namespace logistic {
NodeId logpdf(GraphBuilder& g, NodeId x, const NodeId* v) // -log(1 + exp(z)) - log(1 + exp(-z)) - log s
{
  const NodeId z = standardized(g, x, v);
  const NodeId both = g.add(g.call(Kernel::softplus, z), g.call(Kernel::softplus, g.negate(z)));
  return g.negate(g.add(both, g.call(Kernel::log, v[1])));
}
NodeId cdf(GraphBuilder& g, NodeId x, const NodeId* v) { return g.call(Kernel::logistic, standardized(g, x, v)); }
NodeId logcdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return g.negate(g.call(Kernel::softplus, g.negate(standardized(g, x, v))));
}
NodeId sdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return g.call(Kernel::logistic, g.negate(standardized(g, x, v)));
}
NodeId logsdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return g.negate(g.call(Kernel::softplus, standardized(g, x, v)));
}
NodeId quantile(GraphBuilder& g, NodeId p, const NodeId* v) { return located(g, g.call(Kernel::logit, p), v); }
} // namespace logistic

namespace lognormal {
NodeId log_x(GraphBuilder& g, NodeId x)
{
  return g.call(Kernel::log_or_minus_infinity, g.call(Kernel::positive_part, x));
}
NodeId logpdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  const NodeId outside = g.or_(below(g, x, 0.0), g.compare(Kernel::equal, x, g.zero()));
  const NodeId l = g.call(Kernel::log, x);
  return g.select(outside, g.constant(minus_infinity), g.subtract(normal::logpdf(g, l, v), l));
}
NodeId cdf(GraphBuilder& g, NodeId x, const NodeId* v) { return normal::cdf(g, log_x(g, x), v); }
NodeId logcdf(GraphBuilder& g, NodeId x, const NodeId* v) { return normal::logcdf(g, log_x(g, x), v); }
NodeId sdf(GraphBuilder& g, NodeId x, const NodeId* v) { return normal::sdf(g, log_x(g, x), v); }
NodeId logsdf(GraphBuilder& g, NodeId x, const NodeId* v) { return normal::logsdf(g, log_x(g, x), v); }
NodeId quantile(GraphBuilder& g, NodeId p, const NodeId* v) { return g.call(Kernel::exp, normal::quantile(g, p, v)); }
} // namespace lognormal

namespace student {
NodeId logpdf(GraphBuilder& g, NodeId x, const NodeId* v) { return t_log_density(g, x, v[0]); }
NodeId cdf(GraphBuilder& g, NodeId x, const NodeId* v) { return g.call(Kernel::t_lower, x, v[0]); }
NodeId logcdf(GraphBuilder& g, NodeId x, const NodeId* v) { return g.call(Kernel::log_t_lower, x, v[0]); }
NodeId sdf(GraphBuilder& g, NodeId x, const NodeId* v) { return g.call(Kernel::t_lower, g.negate(x), v[0]); }
NodeId logsdf(GraphBuilder& g, NodeId x, const NodeId* v) { return g.call(Kernel::log_t_lower, g.negate(x), v[0]); }
NodeId quantile(GraphBuilder& g, NodeId p, const NodeId* v) { return g.call(Kernel::t_quantile, p, v[0]); }
} // namespace student

// --- the gamma family -----------------------------------------------------------------------------------------------

namespace gamma_family {
NodeId scaled(GraphBuilder& g, NodeId x, const NodeId* v) { return g.divide(x, positive(g, v[1])); }
NodeId logpdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  const NodeId inside = g.subtract(gamma_log_density(g, scaled(g, x, v), positive(g, v[0])), g.call(Kernel::log, v[1]));
  return g.select(below(g, x, 0.0), g.constant(minus_infinity), inside);
}
NodeId cdf(GraphBuilder& g, NodeId x, const NodeId* v) { return g.call(Kernel::gamma_lower, scaled(g, x, v), v[0]); }
NodeId logcdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return g.call(Kernel::log_gamma_lower, scaled(g, x, v), v[0]);
}
NodeId sdf(GraphBuilder& g, NodeId x, const NodeId* v) { return g.call(Kernel::gamma_upper, scaled(g, x, v), v[0]); }
NodeId logsdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return g.call(Kernel::log_gamma_upper, scaled(g, x, v), v[0]);
}
NodeId quantile(GraphBuilder& g, NodeId p, const NodeId* v)
{
  return g.multiply(positive(g, v[1]), g.call(Kernel::gamma_quantile, p, v[0]));
}
} // namespace gamma_family

// Chi-square with n degrees of freedom is gamma with shape n/2 and scale 2.
template <Distribution::Rule rule> NodeId chi_square(GraphBuilder& g, NodeId x, const NodeId* v)
{
  const NodeId as_gamma[] = {g.scale(0.5, v[0]), g.constant(2.0)};
  return rule(g, x, as_gamma);
}

// Weibull: u = (x / scale) ** shape is exponential with scale 1.
namespace weibull {
NodeId standard(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return g.power(g.divide(g.call(Kernel::positive_part, x), positive(g, v[1])), positive(g, v[0]));
}
NodeId logpdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  const NodeId ratio = g.divide(x, positive(g, v[1]));
  const NodeId front = g.add(g.subtract(g.call(Kernel::log, v[0]), g.call(Kernel::log, v[1])), log_power_factor(g,
      ratio, v[0]));
  return g.select(below(g, x, 0.0), g.constant(minus_infinity), g.subtract(front, standard(g, x, v)));
}
NodeId cdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return g.negate(g.call(Kernel::expm1, g.negate(standard(g, x, v))));
}
NodeId logcdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  return g.call(Kernel::log_one_minus_exp, g.negate(standard(g, x, v)));
}
NodeId sdf(GraphBuilder& g, NodeId x, const NodeId* v) { return g.call(Kernel::exp, g.negate(standard(g, x, v))); }
NodeId logsdf(GraphBuilder& g, NodeId x, const NodeId* v) { return g.negate(standard(g, x, v)); }
NodeId quantile(GraphBuilder& g, NodeId p, const NodeId* v)
{
  const NodeId u = g.negate(g.call(Kernel::log1p, g.negate(g.call(Kernel::probability, p))));
  return g.multiply(positive(g, v[1]), g.power(u, g.reciprocal(positive(g, v[0]))));
}
} // namespace weibull

// The exponential distribution is Weibull with shape 1.
template <Distribution::Rule rule> NodeId exponential(GraphBuilder& g, NodeId x, const NodeId* v)
{
  const NodeId as_weibull[] = {g.one(), v[0]};
  return rule(g, x, as_weibull);
}

// --- uniform --------------------------------------------------------------------------------------------------------

namespace uniform {
NodeId width(GraphBuilder& g, const NodeId* v) { return positive(g, g.subtract(v[1], v[0])); }
NodeId logpdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  const NodeId known = g.not_(g.is_missing(x));
  const NodeId outside = g.and_(known, g.or_(g.compare(Kernel::less, x, v[0]), g.compare(Kernel::less, v[1], x)));
  const NodeId inside = g.select(known, g.negate(g.call(Kernel::log, width(g, v))), g.missing());
  return g.select(outside, g.constant(minus_infinity), inside);
}
// The part of the interval below `x`, at most 1.
NodeId cdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  const NodeId part = g.call(Kernel::positive_part, g.divide(g.subtract(x, v[0]), width(g, v)));
  return g.select(above(g, part, 1.0), g.one(), part);
}
NodeId sdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  const NodeId part = g.call(Kernel::positive_part, g.divide(g.subtract(v[1], x), width(g, v)));
  return g.select(above(g, part, 1.0), g.one(), part);
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
  return g.add(v[0], g.multiply(width(g, v), g.call(Kernel::probability, p)));
}
} // namespace uniform

// --- the beta family ------------------------------------------------------------------------------------------------

namespace beta_family {
NodeId logpdf(GraphBuilder& g, NodeId x, const NodeId* v)
{
  if (g.is_constant(v[0], 1.0) && g.is_constant(v[1], 1.0)) { // the density 1 does not show that x is missing
    const NodeId ends[] = {g.zero(), g.one()};
    return uniform::logpdf(g, x, ends);
  }
  const NodeId outside = g.or_(below(g, x, 0.0), above(g, x, 1.0));
  return g.select(outside, g.constant(minus_infinity), beta_log_density(g, x, complement(g, x), positive(g, v[0]),
      positive(g, v[1])));
}
NodeId at(GraphBuilder& g, Kernel k, NodeId x, const NodeId* v)
{
  return g.apply(k, {x, v[0], v[1], complement(g, x)});
}
NodeId cdf(GraphBuilder& g, NodeId x, const NodeId* v) { return at(g, Kernel::beta_lower, x, v); }
NodeId logcdf(GraphBuilder& g, NodeId x, const NodeId* v) { return at(g, Kernel::log_beta_lower, x, v); }
NodeId sdf(GraphBuilder& g, NodeId x, const NodeId* v) { return at(g, Kernel::beta_upper, x, v); }
NodeId logsdf(GraphBuilder& g, NodeId x, const NodeId* v) { return at(g, Kernel::log_beta_upper, x, v); }
NodeId quantile(GraphBuilder& g, NodeId p, const NodeId* v) { return g.call(Kernel::beta_quantile, p, v[0], v[1]); }
} // namespace beta_family

// F with n and d degrees of freedom: u = n x / (n x + d) is beta with shapes n/2 and d/2.
namespace fisher {
// part / (part + rest), whose derivatives keep their digits where it is near 1: there its distance from 1 tells.
NodeId share(GraphBuilder& g, NodeId part, NodeId rest)
{
  const NodeId near_one = g.divide(g.one(), g.shift(g.divide(rest, part), 1.0));
  return g.select(above(g, g.divide(part, rest), 1.0), near_one, g.divide(part, g.add(part, rest)));
}
NodeId logpdf(GraphBuilder& g, NodeId x, const NodeId* v) // of u, times du/dx = n d / (n x + d)^2
{
  const NodeId n = positive(g, v[0]), d = positive(g, v[1]), scaled = g.multiply(n, x), sum = g.add(scaled, d);
  const NodeId slope = g.subtract(g.call(Kernel::log, g.divide(n, sum)), g.call(Kernel::log, g.divide(sum, d)));
  const NodeId of_u = beta_log_density(g, share(g, scaled, d), g.divide(d, sum), g.scale(0.5, n), g.scale(0.5, d));
  return g.select(below(g, x, 0.0), g.constant(minus_infinity), g.add(of_u, slope));
}
NodeId at(GraphBuilder& g, Kernel k, NodeId x, const NodeId* v)
{
  const NodeId n = g.multiply(positive(g, v[0]), g.call(Kernel::positive_part, x)), d = positive(g, v[1]),
      sum = g.add(n, d);
  return g.apply(k, {share(g, n, d), g.scale(0.5, v[0]), g.scale(0.5, v[1]), g.divide(d, sum)});
}
NodeId cdf(GraphBuilder& g, NodeId x, const NodeId* v) { return at(g, Kernel::beta_lower, x, v); }
NodeId logcdf(GraphBuilder& g, NodeId x, const NodeId* v) { return at(g, Kernel::log_beta_lower, x, v); }
NodeId sdf(GraphBuilder& g, NodeId x, const NodeId* v) { return at(g, Kernel::beta_upper, x, v); }
NodeId logsdf(GraphBuilder& g, NodeId x, const NodeId* v) { return at(g, Kernel::log_beta_upper, x, v); }
NodeId quantile(GraphBuilder& g, NodeId p, const NodeId* v)
{
  const NodeId a = g.scale(0.5, v[0]), b = g.scale(0.5, v[1]);
  const NodeId odds = g.divide(g.call(Kernel::beta_quantile, p, a, b), g.call(Kernel::beta_quantile_complement, p, a,
      b));
  return g.multiply(g.divide(v[1], v[0]), odds);
}
} // namespace fisher

constexpr Distribution rows[] = {
    {"NORMAL", "GAUSS GAUSSIAN", 0, 2, {0.0, 1.0}, {Domain::any, Domain::positive}, false,
     "mean = 0, sd = 1", "all numbers",
     normal::logpdf, normal::cdf, normal::logcdf, normal::sdf, normal::logsdf, normal::quantile},
    {"T", "STUDENT", 1, 1, {}, {Domain::positive}, false,
     "df", "all numbers",
     student::logpdf, student::cdf, student::logcdf, student::sdf, student::logsdf, student::quantile},
    {"CHISQUARE", "CHISQ CHISQUARED", 1, 1, {}, {Domain::positive}, true,
     "df", "x >= 0",
     chi_square<gamma_family::logpdf>, chi_square<gamma_family::cdf>, chi_square<gamma_family::logcdf>,
     chi_square<gamma_family::sdf>, chi_square<gamma_family::logsdf>, chi_square<gamma_family::quantile>},
    {"F", "FISHER", 2, 2, {}, {Domain::positive, Domain::positive}, true,
     "ndf, ddf", "x >= 0",
     fisher::logpdf, fisher::cdf, fisher::logcdf, fisher::sdf, fisher::logsdf, fisher::quantile},
    {"BETA", "", 2, 2, {}, {Domain::positive, Domain::positive}, true,
     "a, b", "0 <= x <= 1",
     beta_family::logpdf, beta_family::cdf, beta_family::logcdf, beta_family::sdf, beta_family::logsdf,
         beta_family::quantile},
    {"GAMMA", "", 1, 2, {0.0, 1.0}, {Domain::positive, Domain::positive}, true,
     "shape, scale = 1", "x >= 0",
     gamma_family::logpdf, gamma_family::cdf, gamma_family::logcdf, gamma_family::sdf, gamma_family::logsdf,
         gamma_family::quantile},
    {"EXPONENTIAL", "EXPO", 0, 1, {1.0}, {Domain::positive}, true,
     "scale = 1", "x >= 0",
     exponential<weibull::logpdf>, exponential<weibull::cdf>, exponential<weibull::logcdf>, exponential<weibull::sdf>,
     exponential<weibull::logsdf>, exponential<weibull::quantile>},
    {"WEIBULL", "", 1, 2, {0.0, 1.0}, {Domain::positive, Domain::positive}, true,
     "shape, scale = 1", "x >= 0",
     weibull::logpdf, weibull::cdf, weibull::logcdf, weibull::sdf, weibull::logsdf, weibull::quantile},
    {"LOGNORMAL", "", 0, 2, {0.0, 1.0}, {Domain::any, Domain::positive}, true,
     "mean of log = 0, sd of log = 1", "x > 0",
     lognormal::logpdf, lognormal::cdf, lognormal::logcdf, lognormal::sdf, lognormal::logsdf, lognormal::quantile},
    {"LOGISTIC", "", 0, 2, {0.0, 1.0}, {Domain::any, Domain::positive}, false,
     "location = 0, scale = 1", "all numbers",
     logistic::logpdf, logistic::cdf, logistic::logcdf, logistic::sdf, logistic::logsdf, logistic::quantile},
    {"UNIFORM", "", 0, 2, {0.0, 1.0}, {Domain::any, Domain::above_the_one_before}, true,
     "low = 0, high = 1", "low <= x <= high",
     uniform::logpdf, uniform::cdf, uniform::logcdf, uniform::sdf, uniform::logsdf, uniform::quantile},
};
// clang-format on

} // namespace

std::span<const Distribution> continuous_distributions()
{
  return rows;
}

} // namespace torvale::engine
