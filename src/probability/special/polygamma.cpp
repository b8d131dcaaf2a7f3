#include "probability/special/polygamma.h"

#include "probability/constants.h"

#include <cmath>

namespace torvale::probability {
namespace {

constexpr double asymptotic_from = 15.0; // nine Bernoulli terms leave a relative error below 1e-16 for all four orders
constexpr int terms = 9;

// The zero of digamma, rounded, and the value of digamma at the rounded zero.
constexpr double digamma_zero = 1.4616321449683622;
constexpr double digamma_at_zero = -9.2412655217294275e-17;

// bernoulli_term[n][k - 1]: the factor of x^-(2k + n) in (-1)^(n-1) polygamma(n, x), that is
// B_2k (2k + n - 1)! / (2k)!; for n = 0 it is B_2k / 2k.
struct BernoulliTable {
  double value[4][terms];
  constexpr BernoulliTable() : value()
  {
    constexpr double b[terms] = {1.0 / 6,       -1.0 / 30, 1.0 / 42,      -1.0 / 30,    5.0 / 66,
                                 -691.0 / 2730, 7.0 / 6,   -3617.0 / 510, 43867.0 / 798};
    for (int k = 1; k <= terms; ++k) {
      double factor = b[k - 1] / (2 * k);
      for (int n = 0; n < 4; ++n) {
        value[n][k - 1] = factor;
        factor *= 2 * k + n;
      }
    }
  }
};
constexpr BernoulliTable table;
constexpr double factorial[4] = {1.0, 1.0, 2.0, 6.0};

// Abramowitz and Stegun 6.3.18 and 6.4.11, x >= 15:
//     digamma(x) = log x - 1/(2x) - sum B_2k / (2k x^2k),
//     (-1)^(n-1) polygamma(n, x) = (n-1)!/x^n + n!/(2 x^(n+1)) + sum B_2k (2k+n-1)!/((2k)! x^(2k+n)).
double asymptotic(int n, double x)
{
  const double y = 1.0 / (x * x);
  double sum = 0.0;
  for (int k = terms - 1; k >= 0; --k) sum = (sum + table.value[n][k]) * y;
  if (n == 0) return std::log(x) - (0.5 / x + sum);
  const double lead = factorial[n - 1] + factorial[n] * 0.5 / x;
  const double value = (lead + sum) / std::pow(x, n);
  return n % 2 == 0 ? -value : value;
}

double polygamma_positive(int n, double x)
{
  // Between the steps up and the logarithm digamma cancels: there it is the difference to its zero.
  if (n == 0 && x > 0.75 && x < 3.0) return polygamma_difference(0, digamma_zero, x - digamma_zero) + digamma_at_zero;
  double steps = 0.0; // polygamma(n, x) = polygamma(n, x + 1) - (-1)^n n! / x^(n+1)
  for (; x < asymptotic_from; x += 1.0) steps += 1.0 / std::pow(x, n + 1);
  steps *= factorial[n];
  return asymptotic(n, x) + (n % 2 == 0 ? -steps : steps);
}

// The derivative of order n of pi cot(pi x), with c the cotangent.
double cotangent_derivative(int n, double x)
{
  const double fraction = x - std::round(x); // exact: the period is 1
  const double c = 1.0 / std::tan(pi * fraction);
  const double s = 1.0 + c * c;
  switch (n) {
  case 0:
    return pi * c;
  case 1:
    return -pi * pi * s;
  case 2:
    return 2.0 * pi * pi * pi * c * s;
  default:
    return -2.0 * pi * pi * pi * pi * s * (s + 2.0 * c * c);
  }
}

} // namespace

double polygamma(int n, double x)
{
  if (n < 0 || n > 3 || std::isnan(x)) return not_a_number;
  if (x > 0.0) {
    if (std::isinf(x)) return n == 0 ? x : 0.0;
    return polygamma_positive(n, x);
  }
  if (std::isinf(x) || x == std::floor(x)) return not_a_number;
  // (-1)^n polygamma(n, 1 - x) - polygamma(n, x) = d^n/dx^n pi cot(pi x)
  const double mirror = polygamma_positive(n, 1.0 - x);
  return (n % 2 == 0 ? mirror : -mirror) - cotangent_derivative(n, x);
}

// Term by term with power(m) = a^-m - (a + b)^-m = -a^-m expm1(-m log(1 + b/a)); every term has the sign of b.
double polygamma_difference(int n, double a, double b)
{
  if (n < 0 || n > 3 || !(a > 0.0 && a + b > 0.0)) return not_a_number;
  double sum = 0.0; // of (-1)^n times the difference
  for (; a < asymptotic_from; a += 1.0)
    sum -= factorial[n] * std::pow(a, -(n + 1)) * std::expm1(-(n + 1) * std::log1p(b / a));
  const double l = std::log1p(b / a);
  const double inverse = 1.0 / a;
  double power = n == 0 ? 1.0 : std::pow(inverse, n);
  if (n == 0) sum += l;
  if (n > 0) sum -= factorial[n - 1] * power * std::expm1(-n * l);
  sum -= 0.5 * factorial[n] * power * inverse * std::expm1(-(n + 1) * l);
  for (int k = 1; k <= terms; ++k) {
    power *= inverse * inverse;
    sum -= table.value[n][k - 1] * power * std::expm1(-(2 * k + n) * l);
  }
  return n % 2 == 0 ? sum : -sum;
}

} // namespace torvale::probability
