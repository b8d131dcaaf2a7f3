#pragma once
// Four lanes, AVX2 with fused multiplication. See vector.h.

#include <immintrin.h>
#include <sleef.h>

namespace torvale::engine {
namespace {

using Lanes = __m256d;

// a b + c: rounded once where the processor can, for polynomials and exact remainders of this build.
inline Lanes fused(Lanes a, Lanes b, Lanes c)
{
  return _mm256_fmadd_pd(a, b, c);
}
inline Lanes square_root(Lanes x)
{
  return _mm256_sqrt_pd(x);
}

// Lanes of all ones or all zeros; and whether one of them is set.
using Mask = decltype(Lanes{} < Lanes{});
inline bool any(Mask m)
{
  return _mm256_movemask_pd(reinterpret_cast<__m256d>(m)) != 0;
}

// One line each, so that the family reads as a table.
// clang-format off
namespace elementary {
inline Lanes expm1(Lanes x) { return Sleef_finz_expm1d4_u10avx2(x); }
inline Lanes log2(Lanes x) { return Sleef_finz_log2d4_u10avx2(x); }
inline Lanes log10(Lanes x) { return Sleef_finz_log10d4_u10avx2(x); }
inline Lanes sin(Lanes x) { return Sleef_finz_sind4_u10avx2(x); }
inline Lanes cos(Lanes x) { return Sleef_finz_cosd4_u10avx2(x); }
inline Lanes tan(Lanes x) { return Sleef_finz_tand4_u10avx2(x); }
inline Lanes asin(Lanes x) { return Sleef_finz_asind4_u10avx2(x); }
inline Lanes acos(Lanes x) { return Sleef_finz_acosd4_u10avx2(x); }
inline Lanes atan(Lanes x) { return Sleef_finz_atand4_u10avx2(x); }
inline Lanes sinh(Lanes x) { return Sleef_finz_sinhd4_u10avx2(x); }
inline Lanes cosh(Lanes x) { return Sleef_finz_coshd4_u10avx2(x); }
inline Lanes tanh(Lanes x) { return Sleef_finz_tanhd4_u10avx2(x); }
inline Lanes asinh(Lanes x) { return Sleef_finz_asinhd4_u10avx2(x); }
inline Lanes acosh(Lanes x) { return Sleef_finz_acoshd4_u10avx2(x); }
inline Lanes atanh(Lanes x) { return Sleef_finz_atanhd4_u10avx2(x); }
inline Lanes erf(Lanes x) { return Sleef_finz_erfd4_u10avx2(x); }
inline Lanes erfc(Lanes x) { return Sleef_finz_erfcd4_u15avx2(x); }
inline Lanes tgamma(Lanes x) { return Sleef_finz_tgammad4_u10avx2(x); }
inline Lanes sinpi(Lanes x) { return Sleef_finz_sinpid4_u05avx2(x); }
inline Lanes cospi(Lanes x) { return Sleef_finz_cospid4_u05avx2(x); }
inline Lanes pow(Lanes x, Lanes y) { return Sleef_finz_powd4_u10avx2(x, y); }
inline Lanes atan2(Lanes x, Lanes y) { return Sleef_finz_atan2d4_u10avx2(x, y); }
// clang-format on
} // namespace elementary

} // namespace
} // namespace torvale::engine
