#pragma once
// Eight lanes, AVX-512 (F, DQ, VL) with fused multiplication. See vector.h.

#include <immintrin.h>
#include <sleef.h>

namespace torvale::engine {
namespace {

using Lanes = __m512d;

// a b + c: rounded once where the processor can, for polynomials and exact remainders of this build.
inline Lanes fused(Lanes a, Lanes b, Lanes c)
{
  return _mm512_fmadd_pd(a, b, c);
}
// (With a full mask: the plain intrinsic of g++ 12 trips the warning on uninitialised values.)
inline Lanes square_root(Lanes x)
{
  return _mm512_maskz_sqrt_pd(0xFF, x);
}

// Lanes of all ones or all zeros; and whether one of them is set.
using Mask = decltype(Lanes{} < Lanes{});
inline bool any(Mask m)
{
  return _mm512_movepi64_mask(reinterpret_cast<__m512i>(m)) != 0;
}

// One line each, so that the family reads as a table.
// clang-format off
namespace elementary {
inline Lanes expm1(Lanes x) { return Sleef_finz_expm1d8_u10avx512f(x); }
inline Lanes log2(Lanes x) { return Sleef_finz_log2d8_u10avx512f(x); }
inline Lanes log10(Lanes x) { return Sleef_finz_log10d8_u10avx512f(x); }
inline Lanes sin(Lanes x) { return Sleef_finz_sind8_u10avx512f(x); }
inline Lanes cos(Lanes x) { return Sleef_finz_cosd8_u10avx512f(x); }
inline Lanes tan(Lanes x) { return Sleef_finz_tand8_u10avx512f(x); }
inline Lanes asin(Lanes x) { return Sleef_finz_asind8_u10avx512f(x); }
inline Lanes acos(Lanes x) { return Sleef_finz_acosd8_u10avx512f(x); }
inline Lanes atan(Lanes x) { return Sleef_finz_atand8_u10avx512f(x); }
inline Lanes sinh(Lanes x) { return Sleef_finz_sinhd8_u10avx512f(x); }
inline Lanes cosh(Lanes x) { return Sleef_finz_coshd8_u10avx512f(x); }
inline Lanes tanh(Lanes x) { return Sleef_finz_tanhd8_u10avx512f(x); }
inline Lanes asinh(Lanes x) { return Sleef_finz_asinhd8_u10avx512f(x); }
inline Lanes acosh(Lanes x) { return Sleef_finz_acoshd8_u10avx512f(x); }
inline Lanes atanh(Lanes x) { return Sleef_finz_atanhd8_u10avx512f(x); }
inline Lanes erf(Lanes x) { return Sleef_finz_erfd8_u10avx512f(x); }
inline Lanes erfc(Lanes x) { return Sleef_finz_erfcd8_u15avx512f(x); }
inline Lanes tgamma(Lanes x) { return Sleef_finz_tgammad8_u10avx512f(x); }
inline Lanes sinpi(Lanes x) { return Sleef_finz_sinpid8_u05avx512f(x); }
inline Lanes cospi(Lanes x) { return Sleef_finz_cospid8_u05avx512f(x); }
inline Lanes pow(Lanes x, Lanes y) { return Sleef_finz_powd8_u10avx512f(x, y); }
inline Lanes atan2(Lanes x, Lanes y) { return Sleef_finz_atan2d8_u10avx512f(x, y); }
// clang-format on
} // namespace elementary

} // namespace
} // namespace torvale::engine
