#include "probability/special/log_exp.h"

#include "probability/constants.h"

#include <algorithm>
#include <cmath>

namespace torvale::probability {

double zln1px(double z)
{
  return std::log1p(z);
}

double zexpm1(double z)
{
  return std::expm1(z);
}

double zlnSumOfExp(double x1, double x2)
{
  if (x1 == x2) return x1 + ln2; // also for two infinities, whose difference would be NaN
  const double high = std::max(x1, x2);
  const double low = std::min(x1, x2);
  if (std::isnan(x1) || std::isnan(x2)) return not_a_number;
  return high + std::log1p(std::exp(low - high));
}

// With r = v/(2 + v), log(1 + v) = 2 atanh(r) = 2r + 2r^3/3 + 2r^5/5 + ..., and 2r - v = -v r exactly, so
//     log(1 + v) - v = r (2 r^2 (1/3 + r^2/5 + r^4/7 + ...) - v r / r),
// in which the first term is at most a sixth of the second: nothing cancels. Own, from the atanh series.
// Beyond the window the plain difference is good to a few units in the last place.
double log1p_minus(double v)
{
  if (v < -0.5 || v > 0.75) return std::log1p(v) - v;
  const double r = v / (2.0 + v);
  const double y = r * r; // at most 1/9
  double sum = 0.0;
  double power = 1.0;
  for (int k = 3; power > 1e-17; k += 2) { // 17 terms at the edge of the window
    sum += power / k;
    power *= y;
  }
  return r * (2.0 * y * sum - v);
}

double log_complement(double t)
{
  return t > -ln2 ? std::log(-std::expm1(t)) : std::log1p(-std::exp(t));
}

} // namespace torvale::probability
