#pragma once
// Two lanes, what every x86-64 processor has. See vector.h.

#include <emmintrin.h>
#include <sleef.h>

namespace torvale::engine {
namespace {

using Lanes = __m128d;

// a b + c: rounded once where the processor can, for polynomials and exact remainders of this build.
inline Lanes fused(Lanes a, Lanes b, Lanes c)
{
  return a * b + c;
}
inline Lanes square_root(Lanes x)
{
  return _mm_sqrt_pd(x);
}

// Lanes of all ones or all zeros; and whether one of them is set.
using Mask = decltype(Lanes{} < Lanes{});
inline bool any(Mask m)
{
  return _mm_movemask_pd(reinterpret_cast<__m128d>(m)) != 0;
}

// One line each, so that the family reads as a table.
// clang-format off
namespace elementary {
inline Lanes expm1(Lanes x) { return Sleef_cinz_expm1d2_u10sse2(x); }
inline Lanes log2(Lanes x) { return Sleef_cinz_log2d2_u10sse2(x); }
inline Lanes log10(Lanes x) { return Sleef_cinz_log10d2_u10sse2(x); }
inline Lanes sin(Lanes x) { return Sleef_cinz_sind2_u10sse2(x); }
inline Lanes cos(Lanes x) { return Sleef_cinz_cosd2_u10sse2(x); }
inline Lanes tan(Lanes x) { return Sleef_cinz_tand2_u10sse2(x); }
inline Lanes asin(Lanes x) { return Sleef_cinz_asind2_u10sse2(x); }
inline Lanes acos(Lanes x) { return Sleef_cinz_acosd2_u10sse2(x); }
inline Lanes atan(Lanes x) { return Sleef_cinz_atand2_u10sse2(x); }
inline Lanes sinh(Lanes x) { return Sleef_cinz_sinhd2_u10sse2(x); }
inline Lanes cosh(Lanes x) { return Sleef_cinz_coshd2_u10sse2(x); }
inline Lanes tanh(Lanes x) { return Sleef_cinz_tanhd2_u10sse2(x); }
inline Lanes asinh(Lanes x) { return Sleef_cinz_asinhd2_u10sse2(x); }
inline Lanes acosh(Lanes x) { return Sleef_cinz_acoshd2_u10sse2(x); }
inline Lanes atanh(Lanes x) { return Sleef_cinz_atanhd2_u10sse2(x); }
inline Lanes erf(Lanes x) { return Sleef_cinz_erfd2_u10sse2(x); }
inline Lanes erfc(Lanes x) { return Sleef_cinz_erfcd2_u15sse2(x); }
inline Lanes tgamma(Lanes x) { return Sleef_cinz_tgammad2_u10sse2(x); }
inline Lanes sinpi(Lanes x) { return Sleef_cinz_sinpid2_u05sse2(x); }
inline Lanes cospi(Lanes x) { return Sleef_cinz_cospid2_u05sse2(x); }
inline Lanes pow(Lanes x, Lanes y) { return Sleef_cinz_powd2_u10sse2(x, y); }
inline Lanes atan2(Lanes x, Lanes y) { return Sleef_cinz_atan2d2_u10sse2(x, y); }
// clang-format on
} // namespace elementary

} // namespace
} // namespace torvale::engine
