#pragma once
// Pieces that the rules of several distributions share.

#include "engine/functions/distributions.h"

#include <cmath>
#include <limits>

namespace torvale::engine {

constexpr double minus_infinity = -std::numeric_limits<double>::infinity();
constexpr double log_sqrt_two_pi = 0.91893853320467274;
constexpr double log_pi = 1.1447298858494002;

// 1 where x is below the bound; 0 where x is missing, so that a missing value gives a missing result.
inline NodeId below(GraphBuilder& g, NodeId x, double bound)
{
  return g.and_(g.compare(Kernel::less, x, g.constant(bound)), g.not_(g.is_missing(x)));
}
inline NodeId above(GraphBuilder& g, NodeId x, double bound)
{
  return g.compare(Kernel::less, g.constant(bound), x);
}

inline NodeId positive(GraphBuilder& g, NodeId x)
{
  return g.call(Kernel::positive, x);
}
inline NodeId complement(GraphBuilder& g, NodeId p)
{
  return g.subtract(g.one(), p);
}

// (a - 1) log x, the factor x**(a-1) of a density at x >= 0. At 0 its limit: infinite with the sign of 1 - a, 0 for a
// = 1.
inline NodeId log_power_factor(GraphBuilder& g, NodeId x, NodeId a)
{
  if (g.is_constant(a, 1.0)) return g.zero();
  const NodeId less_one = g.shift(a, -1.0);
  const NodeId at_zero = g.select(above(g, a, 1.0), g.constant(minus_infinity),
                                  g.select(below(g, a, 1.0), g.constant(-minus_infinity), g.zero()));
  return g.select(g.compare(Kernel::equal, x, g.zero()), at_zero, g.multiply(less_one, g.call(Kernel::log, x)));
}

// count * log p, where 0 log 0 is 0 and a positive count times log 0 is minus infinity.
inline NodeId count_log(GraphBuilder& g, NodeId count, NodeId p)
{
  const NodeId product = g.multiply(count, g.call(Kernel::log_or_minus_infinity, p));
  return g.select(g.compare(Kernel::equal, count, g.zero()), g.multiply(count, p), product);
}

// Log densities of standard distributions, which derivatives use too.
NodeId gamma_log_density(GraphBuilder& g, NodeId x, NodeId shape);                // scale 1, x > 0
NodeId beta_log_density(GraphBuilder& g, NodeId x, NodeId y, NodeId a, NodeId b); // y = 1 - x, 0 < x < 1
NodeId t_log_density(GraphBuilder& g, NodeId t, NodeId df);

// The rows of the two groups.
std::span<const Distribution> continuous_distributions();
std::span<const Distribution> discrete_distributions();

} // namespace torvale::engine
