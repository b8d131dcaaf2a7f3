#pragma once
// The natural exponential on one vector of lanes: our own, short enough to stand within machine code (engine/native).

#include "engine/kernels/elementary_numbers.h"
#include "engine/kernels/lane_arithmetic.h"

namespace torvale::engine {
namespace {
namespace lane {

// exp x for |x| <= 708; 0.9 ulp.
inline Lanes exp_of_regular(Lanes x)
{
  using namespace exponential;
  const Lanes shifted = fused(x, all(per_log2), all(shifter)), k = shifted - all(shifter);
  const Lanes r = fused(k, all(-log2_low), fused(k, all(-log2_high), x)), r2 = r * r, r4 = r2 * r2;
  // In pairs (G. Estrin, 1960): the processor works on several at a time.
  const Lanes p01 = fused(r, all(p[1]), all(p[0])), p23 = fused(r, all(p[3]), all(p[2]));
  const Lanes p45 = fused(r, all(p[5]), all(p[4])), p67 = fused(r, all(p[7]), all(p[6]));
  const Lanes p89 = fused(r, all(p[9]), all(p[8]));
  const Lanes low = fused(r2, p23, p01), high = fused(r4, p89, fused(r2, p67, p45));
  const Lanes e = fused(r2, fused(r4, high, low), r) + all(1.0);
  return reinterpret_cast<Lanes>(reinterpret_cast<Bits>(e) + (reinterpret_cast<Bits>(shifted) << 52));
}

// exp x, all doubles. Where 2^k may not be a normal number it is multiplied in two halves, so that the result is
// rounded once.
inline Lanes natural_exp(Lanes x)
{
  using namespace exponential;
  const Mask irregular = ~(magnitude(x) <= all(regular));
  const Lanes e = exp_of_regular(x);
  if (!any(irregular)) return e;
  constexpr double lowest = -746.0, highest = 710.0; // 0 and infinity from there on
  const Lanes inside = if_else(x < all(lowest), all(lowest), if_else(x > all(highest), all(highest), x));
  const Lanes half = nearest_whole(inside * all(0.5 * per_log2));
  const Lanes rest = fused(half, all(-2.0 * log2_low), fused(half, all(-2.0 * log2_high), inside));
  const Lanes power = reinterpret_cast<Lanes>((reinterpret_cast<Bits>(half + all(shifter)) + 1023) << 52);
  return if_else(irregular, if_else(is_nan(x), x, exp_of_regular(rest) * power * power), e);
}

} // namespace lane
} // namespace
} // namespace torvale::engine
