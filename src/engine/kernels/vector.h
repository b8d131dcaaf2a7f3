#pragma once
// A vector of lanes on the instruction set that this file is compiled for, and what SLEEF offers for it. Included only
// by lane_kernels.cpp, which is compiled once for each instruction set: so everything stands in an unnamed namespace,
// and nothing here may leave an inline function behind that another build could be linked with.
//
// The deterministic variants of SLEEF are taken: the plain ones of sin, cos and tan look at the whole vector to choose
// a method, and a lane's value would depend on its neighbours. With fused multiplication (finz) they cost the same as
// the plain ones, measured. Without (cinz) they would give the same bits on every machine, but cost 1.3 to 1.7 times as
// much; so only the baseline build takes them, having no choice.

#if defined(__AVX512F__)
#include "engine/kernels/vector_avx512.h"
#elif defined(__AVX2__)
#include "engine/kernels/vector_avx2.h"
#elif defined(__SSE2__)
#include "engine/kernels/vector_sse2.h"
#else
#include "engine/kernels/vector_portable.h"
#endif

namespace torvale::engine {
namespace {

// The bits of the lanes, as whole numbers whose arithmetic wraps around.
typedef unsigned long long Bits __attribute__((vector_size(sizeof(Lanes))));

constexpr int width = static_cast<int>(sizeof(Lanes) / sizeof(double));

inline Lanes load(const double* p)
{
  return *reinterpret_cast<const Lanes*>(p);
}
inline void store(double* p, Lanes x)
{
  *reinterpret_cast<Lanes*>(p) = x;
}
inline Lanes all(double x)
{
  return x - Lanes{};
}
inline Lanes if_else(Mask m, Lanes a, Lanes b)
{
  return m ? a : b;
}
inline Lanes one_or_zero(Mask m)
{
  return if_else(m, all(1.0), Lanes{});
}

// The ordinary missing value, FFFFFE0000000000.
inline Lanes missing_lanes()
{
  return reinterpret_cast<Lanes>(Mask{} - 0x20000000000LL);
}
inline Lanes unless(Mask fault, Lanes x)
{
  return if_else(fault, missing_lanes(), x);
}
inline Mask is_nan(Lanes x)
{
  return x != x;
}

inline Lanes magnitude(Lanes x)
{
  return reinterpret_cast<Lanes>(reinterpret_cast<Mask>(x) & 0x7FFFFFFFFFFFFFFFLL);
}
inline Lanes copy_sign(Lanes x, Lanes sign)
{
  const Mask top = ~(Mask{} + 0x7FFFFFFFFFFFFFFFLL);
  return reinterpret_cast<Lanes>((reinterpret_cast<Mask>(x) & ~top) | (reinterpret_cast<Mask>(sign) & top));
}

// The whole number nearest to x, ties to even: adding 2^52 leaves no room for a fraction.
inline Lanes nearest_whole(Lanes x)
{
  const Lanes shift = copy_sign(all(0x1p52), x);
  return if_else(magnitude(x) < all(0x1p52), copy_sign((x + shift) - shift, x), x);
}
inline Lanes largest_whole_below(Lanes x) // the floor
{
  const Lanes n = nearest_whole(x);
  return if_else(n > x, n - all(1.0), n);
}

// c0 + c1 x + ... + cn x^n by Horner's rule, highest coefficient first in the array.
template <int N> inline Lanes polynomial(const double (&c)[N], Lanes x)
{
  Lanes s = all(c[0]);
  for (int i = 1; i < N; ++i) s = fused(s, x, all(c[i]));
  return s;
}

} // namespace
} // namespace torvale::engine
