#pragma once
// The standard normal distribution on one vector of lanes.

#include "engine/kernels/lane_elementary.h"

namespace torvale::engine {
namespace {
namespace lane {

constexpr double log_sqrt_2pi = 0.91893853320467274;

// The upper half of the digits of x: the product of two such halves is exact.
inline Lanes upper_half(Lanes x) { return reinterpret_cast<Lanes>(reinterpret_cast<Mask>(x) & ~0x7FFFFFFLL); }

// exp(-x^2 / 2): the rounding of x^2 would cost x^2 / 4 ulp, so it is put back.
inline Lanes gaussian(Lanes x)
{
  const Lanes s = x * x, h = upper_half(x), l = x - h;
  const Lanes rounding = ((h * h - s) + all(2.0) * h * l) + l * l; // x^2 - s, exactly
  const Lanes e = elementary::exp(all(-0.5) * s);
  return if_else(s < all(1500.0), e - e * all(0.5) * rounding, e * Lanes{} + e);
}

// Density, all doubles, 3 ulp.
inline Lanes normal_pdf(Lanes x) { return gaussian(x) * all(0.39894228040143268); }

// Distribution function, all doubles, 4 ulp down to the smallest normal number: erfc(-x / sqrt 2) / 2, corrected for the
// rounding of the argument z, to which erfc is sensitive: d log erfc / dz is close to -2z where that matters.
inline Lanes normal_cdf(Lanes x)
{
  constexpr double root_half = 0.70710678118654752, root_half_rest = -4.8336466567264567e-17;
  const Lanes c = all(root_half), ch = upper_half(c), cl = c - ch, h = upper_half(x), l = x - h;
  const Lanes z = -(x * c);
  const Lanes rounding = -((((h * ch + z) + h * cl) + l * ch) + l * cl + x * all(root_half_rest)); // -x/sqrt 2 - z
  const Lanes e = all(0.5) * elementary::erfc(z);
  const Mask sensitive = (z > all(1.0)) & (z < all(27.0));
  return unless(is_nan(x), if_else(sensitive, e - e * all(2.0) * z * rounding, e));
}

// 1 - cdf(-u) sqrt(2 pi) u exp(u^2/2) in w = 1/u^2, over w: the asymptotic series 1 - 3w + 15w^2 - ..., to w^9. For u >= 20
// the error is below 1e-16 relative to w.
constexpr double mills_series[] = {-654729075.0, 34459425.0, -2027025.0, 135135.0, -10395.0, 945.0, -105.0, 15.0, -3.0, 1.0};
constexpr double far_tail = -20.0;

// Log of the distribution function, all doubles, 4 ulp.
inline Lanes normal_log_cdf(Lanes x)
{
  const Mask upper = x > Lanes{}, far = x < all(far_tail);
  const Lanes tail = normal_cdf(if_else(upper, -x, x));
  const Lanes u = if_else(far, x, all(far_tail)), w = all(1.0) / (u * u);
  const Lanes gap = elementary::log1p(if_else(upper, -tail, if_else(far, -w * polynomial(mills_series, w), Lanes{})));
  const Lanes l = elementary::log(if_else(upper, all(1.0), if_else(far, -u, tail)));
  const Lanes lower = if_else(far, all(-0.5) * u * u - all(log_sqrt_2pi) - l + gap, l);
  return unless(is_nan(x), if_else(upper, gap, lower));
}

// Density over distribution function, all doubles, 8 ulp.
inline Lanes normal_hazard(Lanes x)
{
  const Mask far = x < all(far_tail);
  const Lanes u = if_else(far, x, all(far_tail)), w = all(1.0) / (u * u);
  const Lanes cdf = if_else(far, all(1.0), normal_cdf(x));
  return unless(is_nan(x), if_else(far, -u / (all(1.0) - w * polynomial(mills_series, w)), normal_pdf(x) / cdf));
}

// x + density over distribution function, all doubles; error 3e-13 relative just above -20, 8 ulp below it.
inline Lanes normal_hazard_excess(Lanes x)
{
  const Mask far = x < all(far_tail);
  const Lanes u = if_else(far, x, all(far_tail)), w = all(1.0) / (u * u), gap = w * polynomial(mills_series, w);
  return if_else(far, -u * gap / (all(1.0) - gap), x + normal_hazard(x));
}

} // namespace lane
} // namespace
} // namespace torvale::engine
