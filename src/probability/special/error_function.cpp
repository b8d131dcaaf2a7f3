#include "probability/special/error_function.h"

#include "probability/constants.h"

#include <cmath>

namespace torvale::probability {
namespace {

// The coefficients are those of Cody's published routine, ordered as he gives them: the highest power of each
// numerator stands last (fraction_of puts it first), the rest ascend to the constant term.
constexpr double small_num[] = {3.16112374387056560e00, 1.13864154151050156e02, 3.77485237685302021e02,
                                3.20937758913846947e03, 1.85777706184603153e-1};
constexpr double small_den[] = {2.36012909523441209e01, 2.44024637934444173e02, 1.28261652607737228e03,
                                2.84423683343917062e03};
constexpr double middle_num[] = {5.64188496988670089e-1, 8.88314979438837594e0,  6.61191906371416295e01,
                                 2.98635138197400131e02, 8.81952221241769090e02, 1.71204761263407058e03,
                                 2.05107837782607147e03, 1.23033935479799725e03, 2.15311535474403846e-8};
constexpr double middle_den[] = {1.57449261107098347e01, 1.17693950891312499e02, 5.37181101862009858e02,
                                 1.62138957456669019e03, 3.29079923573345963e03, 4.36261909014324716e03,
                                 3.43936767414372164e03, 1.23033935480374942e03};
constexpr double tail_num[] = {3.05326634961232344e-1, 3.60344899949804439e-1, 1.25781726111229246e-1,
                               1.60837851487422766e-2, 6.58749161529837803e-4, 1.63153871373020978e-2};
constexpr double tail_den[] = {2.56852019228982242e00, 1.87295284992346725e00, 5.27905102951428412e-1,
                               6.05183413124413191e-2, 2.33520497626869185e-3};

// num(z)/den(z) with den monic of degree n and n + 1 numerator coefficients, the highest power last in the table.
template <int n> double fraction_of(const double (&num)[n + 1], const double (&den)[n], double z)
{
  double top = num[n] * z;
  double bottom = z;
  for (int i = 0; i < n - 1; ++i) {
    top = (top + num[i]) * z;
    bottom = (bottom + den[i]) * z;
  }
  return (top + num[n - 1]) / (bottom + den[n - 1]);
}

// exp(-y^2) with the argument split at a sixteenth: the square of the high part is exact.
double exp_minus_square(double y)
{
  const double high = std::trunc(y * 16.0) / 16.0;
  return std::exp(-high * high) * std::exp(-(y - high) * (y + high));
}

// erfc(y) for y > 0.46875.
double erfc_of_large(double y)
{
  if (y <= 4.0) return exp_minus_square(y) * fraction_of<8>(middle_num, middle_den, y);
  if (-y * y < log_smallest) return 0.0;
  const double z = 1.0 / (y * y);
  const double correction = z * fraction_of<5>(tail_num, tail_den, z);
  return exp_minus_square(y) * (0.5641895835477563 - correction) / y; // the constant is 1/sqrt(pi)
}

} // namespace

void calerf(double x, double* result, int jint)
{
  const double y = std::fabs(x);
  if (y <= 0.46875) {
    const double z = y > 4.2e-16 ? y * y : 0.0;
    const double erf = x * fraction_of<4>(small_num, small_den, z);
    *result = jint == 0 ? erf : 1.0 - erf;
    return;
  }
  if (std::isnan(x)) {
    *result = x;
    return;
  }
  const double tail = erfc_of_large(y);
  if (jint == 0) {
    const double erf = (0.5 - tail) + 0.5;
    *result = x < 0.0 ? -erf : erf;
  } else {
    *result = x < 0.0 ? 2.0 - tail : tail;
  }
}

double zferf(double x)
{
  double result;
  calerf(x, &result, 0);
  return result;
}

double zferfc(double x)
{
  double result;
  calerf(x, &result, 1);
  return result;
}

} // namespace torvale::probability
