#pragma once
// The standard normal distribution on one vector of lanes.

#include "engine/kernels/lane_elementary.h"

namespace torvale::engine {
namespace {
namespace lane {

constexpr double log_sqrt_2pi = 0.91893853320467274;

// The upper half of the digits of x: the product of two such halves is exact.
inline Lanes upper_half(Lanes x)
{
  return reinterpret_cast<Lanes>(reinterpret_cast<Mask>(x) & ~0x7FFFFFFLL);
}

// exp(-x^2 / 2): the rounding of x^2 would cost x^2 / 4 ulp, so it is put back.
inline Lanes gaussian(Lanes x)
{
  const Lanes s = x * x, h = upper_half(x), l = x - h;
  const Lanes rounding = ((h * h - s) + all(2.0) * h * l) + l * l; // x^2 - s, exactly
  const Lanes e = natural_exp(all(-0.5) * s);
  return if_else(s < all(1500.0), e - e * all(0.5) * rounding, e * Lanes{} + e);
}

// Density, all doubles, 3 ulp.
inline Lanes normal_pdf(Lanes x)
{
  return gaussian(x) * all(0.39894228040143268);
}

// (u + 5/4) M(u) in s = (u - 4)/(u + 4), for M(u) = (1 - cdf(u)) / pdf(u), the Mills ratio, u >= 0. The map takes all
// of u >= 0 to [-1, 1), on which the function is smooth, between 1.57 and 1 (Schonfelder, Math. Comp. 32, 1978, does so
// for erfc): Chebyshev expansion of degree 24 as a polynomial, error 3e-17.
constexpr double mills_map[] = {
    4.771462694884888e-10,  -1.5724327956934649e-09, -6.7664850439745814e-09, 1.2418465283668694e-08,
    5.094671523873175e-08,  -3.737991018168196e-08,  -2.810467887458356e-07,  -3.635411115814709e-08,
    1.3316640790731692e-06, 1.1487173869755199e-06,  -6.138730512261907e-06,  -9.126017138491163e-06,
    3.1461913653313266e-05, 5.616939513958355e-05,   -0.00020226287372527533, -0.000265249061085921,
    0.0016245484255664642,  -0.0003156336887242596,  -0.012221036258035122,   0.039637497415419484,
    -0.06136636201310471,   0.026754527518126563,    0.11303501978748494,     -0.3491806072133228,
    1.2424250102961936};

// M(u), u >= 0 and infinite, 3 ulp.
inline Lanes mills_ratio(Lanes u)
{
  const Lanes bounded = if_else(u > all(1e300), all(1e300), u); // infinity over infinity is not a number
  return polynomial(mills_map, (bounded - all(4.0)) / (bounded + all(4.0))) / (u + all(1.25));
}

// Distribution function, all doubles, 6 ulp down to the smallest normal number.
inline Lanes normal_cdf(Lanes x)
{
  const Lanes u = magnitude(x), tail = normal_pdf(u) * mills_ratio(u);
  return if_else(x > Lanes{}, all(1.0) - tail, tail);
}

// Log of the distribution function, all doubles, 4 ulp.
inline Lanes normal_log_cdf(Lanes x)
{
  const Mask upper = x > Lanes{};
  const Lanes u = magnitude(x), m = mills_ratio(u);
  const Lanes lower = natural_log(m) - all(log_sqrt_2pi) - all(0.5) * u * u;
  return any(upper) ? if_else(upper, natural_log1p(-normal_pdf(u) * m), lower) : lower;
}

// Density over distribution function, all doubles, 8 ulp.
inline Lanes normal_hazard(Lanes x)
{
  const Lanes u = magnitude(x), m = mills_ratio(u), p = normal_pdf(u);
  return if_else(x > Lanes{}, p / (all(1.0) - p * m), all(1.0) / m);
}

// 1 - u M(u) in w = 1/u^2, over w: the asymptotic series 1 - 3w + 15w^2 - ..., to w^9. From u = 20 up its error is
// below 1e-16 relative.
constexpr double mills_series[] = {-654729075.0, 34459425.0, -2027025.0, 135135.0, -10395.0,
                                   945.0,        -105.0,     15.0,       -3.0,     1.0};

// x + density over distribution function, all doubles; error 3e-13 relative just above -20, 8 ulp below it.
inline Lanes normal_hazard_excess(Lanes x)
{
  const Mask far = x < all(-20.0);
  const Lanes u = if_else(far, x, all(-20.0)), w = all(1.0) / (u * u), gap = w * polynomial(mills_series, w);
  return if_else(far, -u * gap / (all(1.0) - gap), x + normal_hazard(x));
}

} // namespace lane
} // namespace
} // namespace torvale::engine
