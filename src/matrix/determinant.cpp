#include "matrix/determinant.h"

#include <cmath>

#include "matrix/constants.h"

namespace torvale::matrix {

namespace {

// The powers 10^1, 10^2, 10^4, ... 10^256 in extended precision: a scaling composed of them is off
// by far less than half a unit of the double that it yields, so one rounding is all a pivot costs.
constexpr long double binary_powers_of_ten[] = {1e1L, 1e2L, 1e4L, 1e8L, 1e16L, 1e32L, 1e64L, 1e128L, 1e256L};

// x times 10 to the power, |power| below 512.
long double times_power_of_ten(long double x, int power)
{
  int rest = power < 0 ? -power : power;
  for (const long double ten : binary_powers_of_ten) {
    if (rest % 2 == 1) x = power < 0 ? x / ten : x * ten;
    rest /= 2;
  }
  return x;
}

} // namespace

void determinant_start(double* det)
{
  det[det_mantissa] = 1.0;
  for (int i = det_exponent; i <= det_zero; ++i) det[i] = 0.0;
}

void determinant_multiply(double* det, double pivot)
{
  if (det[det_mantissa] == 0.0) return;
  if (std::fabs(pivot) <= dmin) return determinant_clear(det);
  if (!std::isfinite(pivot) || !std::isfinite(det[det_mantissa])) {
    det[det_mantissa] *= pivot;
    return;
  }
  // The product lies between 2^(b-1) and 2^b, which fixes its decade but for one; extended
  // precision holds any product of a double and a mantissa below ten.
  const long double product = static_cast<long double>(det[det_mantissa]) * pivot;
  int b = 0;
  (void)std::frexp(product, &b); // only the exponent is wanted
  int decade = static_cast<int>(std::floor((b - 1) * 0.30102999566398120));
  double mantissa = static_cast<double>(times_power_of_ten(product, -decade));
  if (std::fabs(mantissa) >= 10.0) {
    ++decade;
    mantissa = static_cast<double>(times_power_of_ten(product, -decade));
  }
  det[det_mantissa] = mantissa;
  det[det_exponent] += decade;
}

void determinant_count(double* det, double pivot, double tolerance)
{
  if (std::fabs(pivot) <= tolerance)
    det[det_zero] += 1.0;
  else
    det[pivot < 0.0 ? det_negative : det_positive] += 1.0;
}

void determinant_clear(double* det)
{
  det[det_mantissa] = 0.0;
  det[det_exponent] = 0.0;
}

} // namespace torvale::matrix
