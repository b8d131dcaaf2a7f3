#include "probability/special/log_gamma.h"

#include "probability/constants.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace torvale::probability {
namespace {

constexpr double stirling_from = 15.0; // above it seven Bernoulli terms leave a relative error below 1e-16

// B_2k / (2k (2k - 1)), k = 1..7
constexpr double bernoulli[] = {0.083333333333333333,   -0.0027777777777777778, 7.9365079365079365e-4,
                                -5.9523809523809524e-4, 8.4175084175084175e-4,  -0.0019175269175269175,
                                0.0064102564102564103};

// (-1)^k (zeta(k) - 1) / k, k = 2..30
constexpr double zeta_tail[] = {
    0.32246703342411321824,     -0.067352301053198095133,   0.020580808427784547879,    -0.0073855510286739852663,
    0.0028905103307415232858,   -0.0011927539117032609771,  0.00050966952474304242234,  -0.00022315475845357937976,
    0.000099457512781808533715, -0.0000449262367381331417,  0.000020507212775670691553, -9.439488275268395904e-6,
    4.3748667899074878042e-6,   -2.0392157538013662368e-6,  9.5514121304074198329e-7,   -4.4924691987645660433e-7,
    2.1207184805554665869e-7,   -1.0043224823968099609e-7,  4.7698101693639805658e-8,   -2.271109460894316491e-8,
    1.0838659214896954091e-8,   -5.1834750419700466551e-9,  2.4836745438024783172e-9,   -1.1921401405860912074e-9,
    5.7313672416788620133e-10,  -2.7595228851242331452e-10, 1.3304764374244489481e-10,  -6.4229645638381000221e-11,
    3.1044247747322272762e-11};

// log Gamma(2 + z) = z (1 - gamma) + sum_{k>=2} (-1)^k (zeta(k) - 1) z^k / k, |z| <= 1/2 (Abramowitz and
// Stegun 6.1.33).
double log_gamma_2p(double z)
{
  double sum = 0.0;
  for (int i = static_cast<int>(std::size(zeta_tail)) - 1; i >= 0; --i) sum = (sum + zeta_tail[i]) * z;
  return z * (0.4227843350984671394 + sum);
}

double bernoulli_series(double x)
{
  const double y = 1.0 / (x * x);
  double sum = bernoulli[6];
  for (int k = 5; k >= 0; --k) sum = sum * y + bernoulli[k];
  return sum / x;
}

} // namespace

double log_gamma_1p(double z)
{
  if (!(z > -1.0)) return not_a_number;
  if (z < -0.5) return zlgamma(1.0 + z);
  if (z > 0.5) return zlgamma(1.0 + z);
  return log_gamma_2p(z) - std::log1p(z);
}

double zlgamma(double x)
{
  if (!(x > dmin)) return not_a_number;
  if (x < 0.5) return log_gamma_1p(x) - std::log(x);
  if (x <= 1.5) return log_gamma_1p(x - 1.0);
  if (x <= 2.5) return log_gamma_2p(x - 2.0);
  if (x >= stirling_from) return (x - 0.5) * std::log(x) - x + (ln_sqrt_2pi + bernoulli_series(x));
  // Gamma(x) = (x-1)(x-2)...y Gamma(y), y in (1.5, 2.5]: at most 13 factors, so no overflow and no cancellation.
  double product = 1.0;
  double y = x;
  while (y > 2.5) {
    y -= 1.0;
    product *= y;
  }
  return std::log(product) + log_gamma_2p(y - 2.0);
}

// Below 15 by the recurrence: the step from x to x + 1 is (x + 1/2) log(1 + 1/x) - 1 = atanh(t)/t - 1, t = 1/(2x + 1),
// whose series t^2/3 + t^4/5 + ... has no cancellation.
double zlgbern(double x)
{
  if (!(x > 0.0)) return not_a_number;
  double sum = 0.0;
  for (; x < stirling_from; x += 1.0) {
    if (x < 1.0) {
      sum += (x + 0.5) * std::log1p(1.0 / x) - 1.0;
      continue;
    }
    const double t = 1.0 / (2.0 * x + 1.0);
    const double y = t * t;
    double power = y;
    for (int k = 3; power > 1e-18; k += 2) {
      sum += power / k;
      power *= y;
    }
  }
  return sum + bernoulli_series(x);
}

// Term by term x^-m - (x + d)^-m = x^-m (1 - exp(-m log(1 + d/x))).
double stirling_tail_difference(double x, double d)
{
  const double l = std::log1p(d / x);
  const double y = 1.0 / (x * x);
  double power = 1.0 / x;
  double sum = 0.0;
  for (int k = 0; k < 7; ++k) {
    sum -= bernoulli[k] * power * std::expm1(-(2.0 * k + 1.0) * l);
    power *= y;
  }
  return sum;
}

// By Stirling, both from 15 up:
//     (a + b - 1/2) log(1 + b/a) + b (log a - 1) - (tail(a) - tail(a + b)).
// A smaller a is raised by Gamma(a + 1) = a Gamma(a), which costs log(1 + b/a) a step; with b not small the plain
// difference loses nothing.
double log_gamma_ratio(double a, double b)
{
  if (!(a > 0.0 && a + b > 0.0)) return not_a_number;
  if (b < 0.0) return -log_gamma_ratio(a + b, -b);
  if (a < stirling_from && b > 5.0) return zlgamma(a + b) - zlgamma(a);
  double steps = 0.0;
  for (; a < stirling_from; a += 1.0) steps += std::log1p(b / a);
  const double stirling = (a + b - 0.5) * std::log1p(b / a) + b * (std::log(a) - 1.0) - stirling_tail_difference(a, b);
  return stirling - steps;
}

} // namespace torvale::probability
