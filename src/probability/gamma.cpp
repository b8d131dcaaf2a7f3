#include "probability/gamma.h"

#include "probability/constants.h"
#include "probability/special/log_gamma.h"
#include "probability/tail_quadrature.h"

#include <cmath>

namespace torvale::probability {
namespace {

constexpr double quadrature_from = 100.0; // series and fraction need about 6 sqrt(a) steps, the quadrature a fixed cost

// log of z^a exp(-z) / Gamma(a), the kernel that multiplies every expansion below. By Stirling, with u = (z - a)/a,
//     log(a/(2 pi))/2 + a (log(1 + u) - u) - tail(a):
// a log z - z - log Gamma(a) would lose as many digits as a has.
double log_kernel(double z, double log_z, double a)
{
  if (a < 1.0) return a * log_z - z - zlgamma(a);
  const double u = (z - a) / a;
  const double exponent = std::fabs(u) <= 0.5 ? a * log1p_minus(u) : a * (log_z - std::log(a)) - (z - a);
  return 0.5 * std::log(a / (2.0 * pi)) + exponent - zlgbern(a);
}

// a < 1, z small: log P = a log z - log Gamma(1 + a) + log(1 + a sum (-z)^n / (n! (a + n))). Every part vanishes with
// a, so that 1 - P keeps its digits although P is near 1.
Tails small_shape(double z, double log_z, double a)
{
  double term = 1.0;
  double sum = 0.0;
  for (int n = 1; n < 100; ++n) {
    term *= -z / n;
    const double next = term / (a + n);
    sum += next;
    if (std::fabs(next) <= 1e-17 * std::fabs(sum)) break;
  }
  return tails_from_log_lower(a * log_z - log_gamma_1p(a) + std::log1p(a * sum));
}

// Lower tail over the kernel: (1/a)(1 + z/(a+1) + z^2/((a+1)(a+2)) + ...), Abramowitz and Stegun 6.5.29.
double lower_series(double z, double a)
{
  double term = 1.0;
  double sum = 1.0;
  for (int n = 1; n < 2000; ++n) {
    term *= z / (a + n);
    sum += term;
    if (term <= 1e-17 * sum) break;
  }
  return sum / a;
}

// Upper tail over the kernel: 1/(z+1-a - 1(1-a)/(z+3-a - 2(2-a)/(z+5-a - ...))), the even part of Abramowitz and Stegun
// 6.5.31, by the modified Lentz rule.
double upper_fraction(double z, double a)
{
  double b = z + 1.0 - a;
  double c = b;
  double d = 0.0;
  double value = b;
  for (int n = 1; n < 2000; ++n) {
    const double numerator = -n * (n - a);
    b += 2.0;
    c = b + numerator / c;
    d = 1.0 / (b + numerator * d);
    const double change = c * d;
    value *= change;
    if (std::fabs(change - 1.0) <= eps) break;
  }
  return 1.0 / value;
}

// The tail away from the mode over the kernel, z = a or further out, by quadrature. With t = z (1 + s v), s the side,
//     density(t)/density(z) = exp(a (log(1 + s v) - s v) - v |z - a|) / (1 + s v),
// where both parts of the exponent are negative: no cancellation however large a is. Own.
double outer_tail(double z, double a)
{
  const double side = z < a ? -1.0 : 1.0;
  const double slope = std::fabs(z - a);
  const auto ratio = [=](double v) { return std::exp(a * log1p_minus(side * v) - v * slope) / (1.0 + side * v); };
  const double panel = 1.0 / (std::sqrt(a) / 2.25 + slope / 8.0);
  return integrate_tail(ratio, panel, side < 0.0 ? 1.0 : infinity);
}

Tails inside_tails(double z, double log_z, double a)
{
  const double log_k = log_kernel(z, log_z, a);
  Tails t;
  if (a < 1.0 && z <= 1.5) {
    t = small_shape(z, log_z, a);
  } else if (a >= quadrature_from) {
    t = tails_from_log_lower(log_k + std::log(outer_tail(z, a)));
    if (z >= a) t = exchanged(t);
  } else if (z < a + 1.0 && a >= 1.0) {
    t = tails_from_log_lower(log_k + std::log(lower_series(z, a)));
  } else {
    t = exchanged(tails_from_log_lower(log_k + std::log(upper_fraction(z, a))));
  }
  t.log_density = log_k - log_z;
  return t;
}

constexpr Tails outside{not_a_number, not_a_number, not_a_number, not_a_number, not_a_number};

bool usable_shape(double a)
{
  return a > dmin && a < infinity;
}

} // namespace

Tails gamma_tails(double z, double a)
{
  if (!(z >= 0.0 && usable_shape(a))) return outside;
  if (z == 0.0) return {0.0, 1.0, -infinity, 0.0, a < 1.0 ? infinity : a == 1.0 ? 0.0 : -infinity};
  if (std::isinf(z)) return {1.0, 0.0, 0.0, -infinity, -infinity};
  return inside_tails(z, std::log(z), a);
}

double gamma_log_density(double z, double a)
{
  if (!(z >= 0.0 && usable_shape(a))) return not_a_number;
  if (z == 0.0 || std::isinf(z)) return gamma_tails(z, a).log_density;
  return log_kernel(z, std::log(z), a) - std::log(z);
}

Tails gamma_tails_at_log(double log_z, double a)
{
  const double z = std::exp(log_z);
  if (z == infinity || !usable_shape(a) || !(log_z > -infinity)) return gamma_tails(z, a);
  return inside_tails(z, log_z, a);
}

int zigamma(double z, double a, double* p, double* pr, double* d)
{
  if (!(z >= 0.0 && a >= 0.0)) {
    *p = *pr = *d = not_a_number;
    return 1;
  }
  if (a == 0.0) {
    *p = 1.0;
    *pr = 0.0;
    *d = z == 0.0 ? infinity : 0.0;
    return 0;
  }
  const Tails t = gamma_tails(z, a);
  *p = t.lower;
  *pr = t.upper;
  *d = std::exp(t.log_density);
  return std::isnan(t.lower) ? 1 : 0;
}

} // namespace torvale::probability
