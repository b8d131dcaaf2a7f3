#include "probability/constants.h"
#include "probability/normal.h"
#include "probability/special/error_function.h"

#include <algorithm>
#include <cmath>

namespace torvale::probability {
namespace {

template <int n> double polynomial(const double (&c)[n], double x) // highest power first
{
  double sum = c[0];
  for (int i = 1; i < n; ++i) sum = sum * x + c[i];
  return sum;
}

constexpr double centre_num[] = {0.00023850990628812184, 0.007748014532123519, 0.09433047102597236, 0.5906175347671243,
                                 2.0524292014826053,     3.926527220876258,    3.827787912267809,   1.4756646266356057};
constexpr double centre_den[] = {0.00023846672191006805, 0.007472090148248392, 0.08675117268832777, 0.5155497927835685,
                                 1.6853868285749263,     3.0193046324086072,   2.757985744718407,   1.0};
constexpr double tail_num[] = {2.2366406817573622e-07, 1.4756630668977935,    2.9349133839409465,
                               2.302486886454419,      0.9208235553699621,    0.1971184884114817,
                               0.021322238814693088,   0.0009933095513250212, 1.3896718225467155e-05};
constexpr double tail_den[] = {1.0,
                               2.152916059924272,
                               1.8195065884540687,
                               0.7785719242838022,
                               0.1775558927085442,
                               0.020255719894916695,
                               0.000977052221781334,
                               1.389640654034189e-05};

// x > 0 with upper tail q in (1e-16, 0.5]. u is 0 at the median, and both fractions are in it.
double upper_quantile(double q)
{
  const double u = std::sqrt(-2.0 * std::log(q)) - 1.1774100225154747;
  if (q > 0.01) return u * polynomial(centre_num, u) / polynomial(centre_den, u);
  const double v = 1.0 / u;
  return u * polynomial(tail_num, v) / polynomial(tail_den, v);
}

// u is a difference of numbers near 1.18 and loses its relative accuracy at the median, where p - 1/2 = erf(x/sqrt 2)/2
// has it exactly: one Newton step on that.
double polished_near_median(double x, double p_minus_half)
{
  const double excess = 0.5 * zferf(x * 0.7071067811865476) - p_minus_half;
  return x - excess * 2.5066282746310005 * std::exp(0.5 * x * x);
}

// Newton on the logarithm of the lower tail, which is nearly a parabola far out: four steps at most.
double far_quantile(double log_p)
{
  double t = -std::sqrt(-2.0 * log_p);
  for (int step = 0; step < 30; ++step) {
    double lpl, lpr, ldens;
    if (zlognrm(t, &lpl, &lpr, &ldens) != 0) break;
    const double change = (lpl - log_p) * std::exp(lpl - ldens);
    t -= change;
    if (std::fabs(change) <= 1e-12 * std::fabs(t)) return t;
  }
  return -std::sqrt(-2.0 * std::log(2.225073858507202e-306));
}

} // namespace

double zprobit(double p)
{
  if (!(p >= 0.0 && p <= 1.0)) return not_a_number;
  if (p == 0.0) return -37.64030867301702;
  if (p == 1.0) return 7.941345326170997;
  if (p == 0.5) return 0.0;
  if (p < 1e-16) return far_quantile(std::log(p));
  const double x = upper_quantile(std::min(p, 1.0 - p));
  if (std::fabs(p - 0.5) < 0.05) return polished_near_median(p < 0.5 ? -x : x, p - 0.5);
  return p < 0.5 ? -x : x;
}

double normal_quantile_log(double log_p)
{
  if (!(log_p <= 0.0)) return not_a_number;
  if (log_p == 0.0) return infinity;
  if (log_p < -36.0) return far_quantile(log_p);
  if (log_p > -0.1) return -zprobit(-std::expm1(log_p)); // from the upper tail, whose digits the logarithm still holds
  return zprobit(std::exp(log_p));
}

} // namespace torvale::probability
