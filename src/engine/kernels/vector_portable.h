#pragma once
// Two lanes on a processor that is not x86-64: generic vectors, and the scalar library lane by lane. See vector.h.

#include <cmath>

namespace torvale::engine {
namespace {

typedef double Lanes __attribute__((vector_size(16), may_alias));

inline Lanes fused(Lanes a, Lanes b, Lanes c)
{
  return a * b + c;
}
inline Lanes square_root(Lanes x)
{
  return Lanes{std::sqrt(x[0]), std::sqrt(x[1])};
}

// Lanes of all ones or all zeros; and whether one of them is set.
using Mask = decltype(Lanes{} < Lanes{});
inline bool any(Mask m)
{
  return m[0] != 0 || m[1] != 0;
}

// One line each, so that the family reads as a table.
// clang-format off
namespace elementary {
inline Lanes expm1(Lanes x) { return Lanes{std::expm1(x[0]), std::expm1(x[1])}; }
inline Lanes log2(Lanes x) { return Lanes{std::log2(x[0]), std::log2(x[1])}; }
inline Lanes log10(Lanes x) { return Lanes{std::log10(x[0]), std::log10(x[1])}; }
inline Lanes sin(Lanes x) { return Lanes{std::sin(x[0]), std::sin(x[1])}; }
inline Lanes cos(Lanes x) { return Lanes{std::cos(x[0]), std::cos(x[1])}; }
inline Lanes tan(Lanes x) { return Lanes{std::tan(x[0]), std::tan(x[1])}; }
inline Lanes asin(Lanes x) { return Lanes{std::asin(x[0]), std::asin(x[1])}; }
inline Lanes acos(Lanes x) { return Lanes{std::acos(x[0]), std::acos(x[1])}; }
inline Lanes atan(Lanes x) { return Lanes{std::atan(x[0]), std::atan(x[1])}; }
inline Lanes sinh(Lanes x) { return Lanes{std::sinh(x[0]), std::sinh(x[1])}; }
inline Lanes cosh(Lanes x) { return Lanes{std::cosh(x[0]), std::cosh(x[1])}; }
inline Lanes tanh(Lanes x) { return Lanes{std::tanh(x[0]), std::tanh(x[1])}; }
inline Lanes asinh(Lanes x) { return Lanes{std::asinh(x[0]), std::asinh(x[1])}; }
inline Lanes acosh(Lanes x) { return Lanes{std::acosh(x[0]), std::acosh(x[1])}; }
inline Lanes atanh(Lanes x) { return Lanes{std::atanh(x[0]), std::atanh(x[1])}; }
inline Lanes erf(Lanes x) { return Lanes{std::erf(x[0]), std::erf(x[1])}; }
inline Lanes erfc(Lanes x) { return Lanes{std::erfc(x[0]), std::erfc(x[1])}; }
inline Lanes tgamma(Lanes x) { return Lanes{std::tgamma(x[0]), std::tgamma(x[1])}; }
inline Lanes pow(Lanes x, Lanes y) { return Lanes{std::pow(x[0], y[0]), std::pow(x[1], y[1])}; }
inline Lanes atan2(Lanes x, Lanes y) { return Lanes{std::atan2(x[0], y[0]), std::atan2(x[1], y[1])}; }
// Reduced to one period exactly first, so that whole and half numbers give exact results.
inline double sin_pi(double x)
{
  const double r = std::remainder(x, 2.0);
  const double s = std::fabs(r) > 0.5 ? std::copysign(1.0, r) - r : r;
  return std::sin(3.14159265358979323846 * s);
}
inline Lanes sinpi(Lanes x) { return Lanes{sin_pi(x[0]), sin_pi(x[1])}; }
inline Lanes cospi(Lanes x)
{
  return Lanes{sin_pi(0.5 - std::fabs(std::remainder(x[0], 2.0))), sin_pi(0.5 - std::fabs(std::remainder(x[1], 2.0)))};
}
// clang-format on
} // namespace elementary

} // namespace
} // namespace torvale::engine
