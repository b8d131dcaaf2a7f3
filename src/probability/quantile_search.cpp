#include "probability/constants.h"
#include "probability/quantiles.h"

#include <algorithm>
#include <cmath>

namespace torvale::probability {

TailTarget lower_target(double p)
{
  return {std::log(p), std::log1p(-p)};
}

TailTarget upper_target(double q)
{
  return {std::log1p(-q), std::log(q)};
}

TailTarget log_lower_target(double log_p)
{
  return {log_p, log_complement(log_p)};
}

// The logit F = log P - log Q rises from -infinity to infinity and is close to a straight line in either tail when x is
// on a logarithmic scale, where P and Q themselves are flat: dF/dx = density/(P Q). Very far out that quotient is a
// difference of huge logarithms and has no digits left: a step is taken for convergence only when F is near its target
// as well.
int zquant(QuantileSearch* search)
{
  constexpr double least_tolerance =
      1.0536712127723509e-08; // square root of 2^-53: one Newton step more is full accuracy
  const double wanted = search->target.log_lower - search->target.log_upper;
  const double tolerance = std::max(search->tolerance, least_tolerance);
  double low = search->low;
  double high = search->high;
  double x = std::clamp(search->start, low, high);
  bool close = false; // the last change was below the tolerance
  for (search->steps = 1; search->steps <= 70; ++search->steps) {
    search->x = x;
    const Tails t = search->tails(search->distribution, x);
    const double excess = t.log_lower - t.log_upper - wanted;
    if (std::isnan(excess)) return 1;
    if (excess == 0.0) return 0;
    (excess > 0.0 ? high : low) = x;
    double next = x - excess * std::exp(t.log_lower + t.log_upper - t.log_density);
    const bool near = std::fabs(excess) <= 0.1 * std::max(1.0, std::fabs(wanted));
    const bool small = std::fabs(next - x) <= tolerance * std::max(1.0, std::fabs(x));
    if (small && near && close) {
      search->x = std::clamp(next, low, high);
      return 0;
    }
    close = small && near;
    if (!(next >= low && next <= high) || (small && !near)) {
      next = low + 0.5 * (high - low);
      if (next == low || next == high) return 0; // the target lies beyond an end, or between neighbours
    }
    x = next;
  }
  return 1;
}

} // namespace torvale::probability
