#include "probability/normal.h"

#include "probability/constants.h"
#include "probability/special/error_function.h"

#include <cmath>

namespace torvale::probability {
namespace {

constexpr double sqrt_half = 0.7071067811865476;
constexpr double sqrt_half_rest = -4.8336466567264565e-17; // 1/sqrt(2) minus the constant above

double log_normal_density(double x)
{
  return -0.5 * x * x - ln_sqrt_2pi;
}

// exp(x^2/2) sqrt(2 pi), with x split so that the square of its high part is exact.
double inverse_density(double x)
{
  const double high = std::trunc(x * 16.0) / 16.0;
  const double rest = 0.5 * (x - high) * (x + high);
  return std::exp(0.5 * high * high) * std::exp(rest) * 2.5066282746310005;
}

} // namespace

double zprbnrm(double x)
{
  const double y = -x * sqrt_half;
  double r;
  if (x > 0.0) {
    calerf(-y, &r, 0);
    return (r + 1.0) / 2.0;
  }
  calerf(y, &r, 1);
  // y carries a rounding error delta, and d log erfc(y) = -2 y dy for large y: far out half an ulp of y is hundreds of
  // ulps of the tail. delta comes exactly from a fused product.
  if (r > 0.0) {
    const double delta = std::fma(-x, sqrt_half, -y) - x * sqrt_half_rest;
    r *= 1.0 - 2.0 * y * delta;
  }
  return r / 2.0;
}

int zlognrm(double x, double* lpl, double* lpr, double* ldens)
{
  if (!std::isfinite(x)) {
    *lpl = *lpr = *ldens = not_a_number;
    return 1;
  }
  *ldens = log_normal_density(x);
  const double y = std::fabs(x);
  double log_small; // the tail beyond |x|
  double log_large; // the other one, at least a half
  if (y < 5.0) {
    const double small = zprbnrm(-y);
    log_small = std::log(small);
    log_large = std::log1p(-small);
  } else {
    double ratio;
    zcnfmill(y, &ratio);
    log_small = *ldens + std::log(ratio);
    log_large = std::log1p(-zprbnrm(-y));
  }
  *lpl = x < 0.0 ? log_small : log_large;
  *lpr = x < 0.0 ? log_large : log_small;
  return 0;
}

Tails normal_tails(double x)
{
  if (std::isinf(x)) {
    const Tails far_left{0.0, 1.0, -infinity, 0.0, -infinity};
    return x < 0.0 ? far_left : exchanged(far_left);
  }
  Tails t;
  zlognrm(x, &t.log_lower, &t.log_upper, &t.log_density);
  t.lower = zprbnrm(x);
  t.upper = zprbnrm(-x);
  return t;
}

int zmillsr(double x, double* ratio)
{
  if (std::isnan(x)) {
    *ratio = x;
    return 1;
  }
  if (x >= 5.0) return zcnfmill(x, ratio);
  *ratio = x < -38.0 ? infinity : inverse_density(x) * zprbnrm(-x);
  return 0;
}

// Even part of Laplace's fraction 1/(x + 1/(x + 2/(x + ...))) (Abramowitz and Stegun 26.2.14), in w = x^2:
//     ratio = x / (w + 1 - 1*2/(w + 5 - 3*4/(w + 9 - ...)))
// by the modified Lentz rule; every partial denominator is positive, so nothing has to be guarded.
int zcnfmill(double x, double* ratio)
{
  if (!(x > 0.0)) {
    *ratio = not_a_number;
    return 1;
  }
  if (x > 1e8) { // 1/x - 1/x^3 + ...: the second term is below the last bit
    *ratio = 1.0 / x;
    return 0;
  }
  const double w = x * x;
  double denominator = w + 1.0;
  double c = denominator;
  double d = 0.0;
  for (int k = 1; k <= 400; ++k) {
    const double a = -(2.0 * k - 1.0) * (2.0 * k);
    const double b = w + 4.0 * k + 1.0;
    c = b + a / c;
    d = 1.0 / (b + a * d);
    const double change = c * d;
    denominator *= change;
    if (std::fabs(change - 1.0) <= series_tolerance) {
      *ratio = x / denominator;
      return 0;
    }
  }
  *ratio = x / denominator;
  return 1;
}

} // namespace torvale::probability
