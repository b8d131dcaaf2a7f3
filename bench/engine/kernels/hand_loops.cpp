// See hand_loops.h. Loops over restrict pointers, which the compiler vectorizes where it can; elementary functions call
// the scalar C library, as such code does.

#include "hand_loops.h"

#include <cmath>

namespace torvale::bench {
namespace {

template <class F> inline void loop(double* out, const double* const* in, int n, F f)
{
  double* __restrict o = out;
  const double* __restrict a = in[0], * __restrict b = in[1], * __restrict c = in[2];
  for (int i = 0; i < n; ++i) o[i] = f(a[i], b[i], c[i]);
}

// One line each, so that the family reads as a table.
// clang-format off
void add(double* o, const double* const* in, int n)
{
  loop(o, in, n, [](double a, double b, double) { return a + b; });
}
void multiply_add(double* o, const double* const* in, int n)
{
  loop(o, in, n, [](double a, double b, double c) { return a * b + c; });
}
void divide(double* o, const double* const* in, int n)
{
  loop(o, in, n, [](double a, double b, double) { return b == 0 ? __builtin_nan("") : a / b; });
}
void less(double* o, const double* const* in, int n)
{
  loop(o, in, n, [](double a, double b, double) { return a < b ? 1.0 : 0.0; });
}
void select(double* o, const double* const* in, int n)
{
  loop(o, in, n, [](double a, double b, double c) { return a > 0 ? b : c; });
}
void sqrt(double* o, const double* const* in, int n)
{
  loop(o, in, n, [](double a, double, double) { return __builtin_sqrt(a); });
}
void exp(double* o, const double* const* in, int n)
{
  loop(o, in, n, [](double a, double, double) { return ::exp(a); });
}
void log(double* o, const double* const* in, int n)
{
  loop(o, in, n, [](double a, double, double) { return ::log(a); });
}
void power(double* o, const double* const* in, int n)
{
  loop(o, in, n, [](double a, double b, double) { return ::pow(a, b); });
}
void sin(double* o, const double* const* in, int n)
{
  loop(o, in, n, [](double a, double, double) { return ::sin(a); });
}
void logistic(double* o, const double* const* in, int n)
{
  loop(o, in, n, [](double a, double, double) { return 1 / (1 + ::exp(-a)); });
}
void softplus(double* o, const double* const* in, int n)
{
  loop(o, in, n, [](double a, double, double) { return ::log1p(::exp(a)); });
}
void lgamma(double* o, const double* const* in, int n)
{
  loop(o, in, n, [](double a, double, double) { int sign = 0; return ::lgamma_r(a, &sign); });
}
void normal_cdf(double* o, const double* const* in, int n)
{
  loop(o, in, n, [](double a, double, double) { return 0.5 * ::erfc(-0.70710678118654752 * a); });
}
// clang-format on

} // namespace

#if defined(__AVX512F__)
extern constinit const HandLoop hand_loops_avx512[] = {
#elif defined(__AVX2__)
extern constinit const HandLoop hand_loops_avx2[] = {
#else
extern constinit const HandLoop hand_loops_baseline[] = {
#endif
    {"add", add},           {"multiply_add", multiply_add},
    {"divide", divide},     {"less", less},
    {"select", select},     {"sqrt", sqrt},
    {"exp", exp},           {"log", log},
    {"power", power},       {"sin", sin},
    {"logistic", logistic}, {"softplus", softplus},
    {"lgamma", lgamma},     {"normal_cdf", normal_cdf},
    {nullptr, nullptr}};

} // namespace torvale::bench
