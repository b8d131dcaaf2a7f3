#include "probability/constants.h"
#include "probability/special/log_gamma.h"

#include <algorithm>
#include <cmath>

namespace torvale::probability {

// With a <= b. Both large: Stirling's formula, in which the linear terms cancel exactly (Didonato and Morris, ACM TOMS
// 18 (1992), algorithm 708):
//     log(2 pi)/2 - log(b)/2 + (a - 1/2) log(a/(a + b)) - b log(1 + a/b) + tail(a) + tail(b) - tail(a + b).
// Otherwise log Gamma(a) minus the ratio of the large pair, which does not cancel.
double zlbeta(double a, double b)
{
  if (!(a > 0.0 && b > 0.0)) return not_a_number;
  if (a > b) std::swap(a, b);
  if (a < 15.0) return zlgamma(a) - log_gamma_ratio(b, a);
  const double h = a / b;
  const double tails = zlgbern(a) + stirling_tail_difference(b, a);
  return ln_sqrt_2pi - 0.5 * std::log(b) + (a - 0.5) * std::log(h / (1.0 + h)) - b * std::log1p(h) + tails;
}

double log_scaled_beta(double a, double b)
{
  if (!(a > 0.0 && b > 0.0)) return not_a_number;
  if (a > 1.0) return std::log(a) + zlbeta(a, b);
  return log_gamma_1p(a) - log_gamma_ratio(b, a);
}

double zlgammaMV(double x, int p)
{
  if (p < 1 || !(x > 0.5 * (p - 1))) return not_a_number;
  double sum = 0.25 * p * (p - 1.0) * ln_pi;
  for (int j = 0; j < p; ++j) sum += zlgamma(x - 0.5 * j);
  return sum;
}

// Paired term by term, log Gamma(a - j/2) + log Gamma(b - j/2) - log Gamma(a + b - j/2)
//     = log B(a - j/2, b - j/2) - (log Gamma(a + b - j/2) - log Gamma(a + b - j)),
// so that large arguments do not cancel.
double zlbetaMV(double a, double b, int p)
{
  if (p < 1 || !(a > 0.5 * (p - 1) && b > 0.5 * (p - 1))) return not_a_number;
  double sum = 0.25 * p * (p - 1.0) * ln_pi;
  for (int j = 0; j < p; ++j) sum += zlbeta(a - 0.5 * j, b - 0.5 * j) - log_gamma_ratio(a + b - j, 0.5 * j);
  return sum;
}

} // namespace torvale::probability
