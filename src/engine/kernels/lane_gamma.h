#pragma once
// Log gamma and its derivatives on one vector of lanes.
//
// Every lane goes through the same operations, with selects; a branch only skips work that no lane of the vector needs,
// so a lane's value does not depend on its neighbours.

#include "engine/kernels/lane_elementary.h"

namespace torvale::engine {
namespace {
namespace lane {

constexpr double circle_constant = 3.14159265358979323846;

inline Mask is_pole(Lanes x)
{
  return (x <= Lanes{}) & (nearest_whole(x) == x);
}

// log gamma(2 + t) / t on [-1/2, 1/2], Chebyshev expansion of degree 17 as a polynomial; error 5e-18.
constexpr double lgamma_about_two[] = {2.7475390051909663e-07,  -5.811277768921246e-07,  9.242852225162277e-07,
                                       -1.9743106888421067e-06, 4.3828545383846665e-06,  -9.45628851510172e-06,
                                       2.050601970174762e-05,   -4.4923727564247656e-05, 9.945761692157133e-05,
                                       -0.00022315497746292723, 0.0005096695196526673,   -0.0011927539009983087,
                                       0.002890510330865901,    -0.007385551028935545,   0.02058080842778338,
                                       -0.06735230105319563,    0.3224670334241132,      0.42278433509846713};

// B(2k) / (2k (2k - 1)), k = 8 .. 1: Stirling's series for log gamma in 1/x^2, times x. From 8 up its error is below
// 1e-16.
constexpr double stirling[] = {-3617.0 / 122400, 1.0 / 156,  -691.0 / 360360, 1.0 / 1188,
                               -1.0 / 1680,      1.0 / 1260, -1.0 / 360,      1.0 / 12};

// log gamma(x), x > 0, 4 ulp of max(result, 1e-2 of its terms): relative accuracy is kept at the zeros 1 and 2.
// From 8 up Stirling's formula. Below, with k the whole number nearest to x and t = x - k,
//     log gamma(x) = log gamma(2 + t) + log((x-1)(x-2)...(2+t)),    k >= 3
//     log gamma(x) = log gamma(2 + t) - log(x), - log(x (x+1)),     k = 1, 0
// where the terms never cancel much, because t is at most a half.
inline Lanes lgamma_positive(Lanes x)
{
  const Mask large = x >= all(8.0);
  const bool some_small = any(~large), some_large = any(large);
  const Lanes k = nearest_whole(x);
  Lanes argument = x;
  if (some_small) {
    Lanes product = if_else(k < all(2.0), x, all(1.0));
    product = if_else(k < all(1.0), x * (x + all(1.0)), product);
    for (int j = 1; j <= 6; ++j) product = if_else(k >= all(j + 2.0), product * (x - all(j)), product);
    argument = if_else(large, x, product);
  }
  const Lanes l = natural_log(argument);
  Lanes r = l;
  if (some_small) {
    const Lanes t = if_else(large, Lanes{}, x - k);
    r = fused(t, polynomial(lgamma_about_two, t), if_else(k < all(2.0), -l, l));
  }
  if (some_large) {
    const Lanes w = all(1.0) / if_else(large, x, all(8.0));
    const Lanes tail = fused(polynomial(stirling, w * w), w, all(0.41893853320467274)); // log(2 pi) / 2 - 1/2
    r = if_else(large, fused(x - all(0.5), l - all(1.0), tail), r);
  }
  return r;
}

// log |gamma(a)|. Below 0 by reflection, log(pi / |sin pi a|) - log gamma(1 - a): error relative to those terms.
inline Lanes lgamma(Lanes a)
{
  const Mask negative = a <= Lanes{};
  Lanes r = lgamma_positive(if_else(negative, all(1.0) - a, a));
  if (any(negative)) {
    const Lanes s = magnitude(elementary::sinpi(a));
    r = if_else(negative, natural_log(all(circle_constant) / s) - r, r);
  }
  return unless(is_pole(a) | is_nan(a), r);
}

// gamma(a), 1 ulp, infinite above 171.62. Factorials that fit into a double are made exact.
inline Lanes gamma(Lanes a)
{
  const Lanes r = elementary::tgamma(a);
  const Mask exact = (nearest_whole(a) == a) & (r < all(0x1p53));
  return unless(is_pole(a) | is_nan(a), if_else(exact, nearest_whole(r), r));
}

// B(2k) / (2k), k = 7 .. 1: the series of digamma in 1/x^2. From 10 up its error is below 5e-17.
constexpr double digamma_series[] = {1.0 / 12, -691.0 / 32760, 1.0 / 132, -1.0 / 240, 1.0 / 252, -1.0 / 120, 1.0 / 12};

// log x - digamma(x) for x >= 10.
inline Lanes digamma_gap(Lanes x)
{
  const Lanes w = all(1.0) / x, w2 = w * w;
  return fused(polynomial(digamma_series, w2), w2, all(0.5) * w);
}

// 1/x + 1/(x + 1) + ... up to the first argument that reaches `end`, gathered as one fraction; x becomes that argument.
struct Fraction {
  Lanes numerator = {}, denominator = all(1.0);
};
inline Fraction rising_sum(Lanes& x, Lanes end)
{
  Fraction f;
  for (Mask below = x < end; any(below); below = x < end) {
    f.numerator = if_else(below, fused(f.numerator, x, f.denominator), f.numerator);
    f.denominator = if_else(below, f.denominator * x, f.denominator);
    x = if_else(below, x + all(1.0), x);
  }
  return f;
}

// digamma(x), x > 0, absolute error 2e-15 near its zero 1.4616, elsewhere 4 ulp. Below 10 by the recurrence
// digamma(x) = digamma(x + n) - sum 1 / (x + j).
inline Lanes digamma_positive(Lanes x)
{
  const Fraction f = rising_sum(x, all(10.0));
  return natural_log(x) - digamma_gap(x) - f.numerator / f.denominator;
}

// The derivative of order N of pi cot(pi x), from c = cot(pi x) and c' = -pi (1 + c^2).
template <int N> inline Lanes cotangent_derivative(Lanes x)
{
  const Lanes c = elementary::cospi(x) / elementary::sinpi(x), c2 = c * c, one = all(1.0), p = all(circle_constant);
  if constexpr (N == 0) return p * c;
  if constexpr (N == 1) return -(p * p) * (one + c2);
  if constexpr (N == 2) return all(2.0) * p * p * p * c * (one + c2);
  if constexpr (N == 3) return all(-2.0) * p * p * p * p * (one + c2) * (one + all(3.0) * c2);
  if constexpr (N == 4) return all(8.0) * p * p * p * p * p * c * (one + c2) * (all(2.0) + all(3.0) * c2);
}

// psi_N(x), N = 1 .. 4, x > 0, 1e-15 relative: (-1)^(N+1) times
//     sum_j N! / (x+j)^(N+1)  +  (N-1)! / y^N + N! / (2 y^(N+1)) + sum_k B(2k) (2k+N-1)! / (2k)! / y^(2k+N)
// with y = x + n the first argument where eight terms of the series suffice.
template <int N> inline Lanes polygamma_positive(Lanes x)
{
  constexpr double bernoulli[] = {1.0 / 6,  -1.0 / 30,     1.0 / 42, -1.0 / 30,
                                  5.0 / 66, -691.0 / 2730, 7.0 / 6,  -3617.0 / 510};
  constexpr double start = N == 1 ? 10.0 : 16.0;
  double c[8] = {}; // B(2k) (2k+N-1)! / (2k)!, k = 8 .. 1
  for (int k = 1; k <= 8; ++k) {
    c[8 - k] = bernoulli[k - 1];
    for (int i = 1; i < N; ++i) c[8 - k] *= 2.0 * k + i;
  }
  double factorial = 1.0; // N!
  for (int i = 2; i <= N; ++i) factorial *= i;

  const auto inverse_power = [](Lanes y) {
    Lanes w = all(1.0) / y, r = w;
    for (int i = 0; i < N; ++i) r = r * w;
    return r;
  };
  Lanes sum = {};
  for (Mask below = x < all(start); any(below); below = x < all(start)) {
    sum = if_else(below, sum + inverse_power(x), sum);
    x = if_else(below, x + all(1.0), x);
  }
  const Lanes w = all(1.0) / x, w2 = w * w;
  const Lanes series = fused(polynomial(c, w2), w2, fused(all(0.5 * factorial), w, all(factorial / N)));
  Lanes leading = w;
  for (int i = 1; i < N; ++i) leading = leading * w;
  const Lanes r = fused(series, leading, all(factorial) * sum);
  return N % 2 == 1 ? r : -r;
}

// psi_N(x) = (-1)^N psi_N(1 - x) - (d/dx)^N pi cot(pi x) below 0. Missing at the poles.
template <int N> inline Lanes polygamma(Lanes a)
{
  const Mask negative = a <= Lanes{};
  const Lanes positive = if_else(negative, all(1.0) - a, a);
  Lanes r;
  if constexpr (N == 0)
    r = digamma_positive(positive);
  else
    r = polygamma_positive<N>(positive);
  if (any(negative)) r = if_else(negative, (N % 2 == 0 ? r : -r) - cotangent_derivative<N>(a), r);
  return unless(is_pole(a) | is_nan(a), r);
}

inline Lanes digamma(Lanes a)
{
  return polygamma<0>(a);
}
inline Lanes trigamma(Lanes a)
{
  return polygamma<1>(a);
}
inline Lanes tetragamma(Lanes a)
{
  return polygamma<2>(a);
}
inline Lanes pentagamma(Lanes a)
{
  return polygamma<3>(a);
}
inline Lanes hexagamma(Lanes a)
{
  return polygamma<4>(a);
}

// Differences of log gamma and digamma over a whole number of steps, as counts give them, are products and sums over
// the steps: up to this many they are formed so, where the product cannot overflow.
constexpr double most_steps = 12.0, highest_step = 1e20;

inline Mask few_steps(Lanes a, Lanes b)
{
  return (b >= Lanes{}) & (b <= all(most_steps)) & (nearest_whole(b) == b) & (a > Lanes{}) & (a < all(highest_step));
}

// x (x + 1) ... up to the first factor that reaches `end`; x becomes that factor. Where `end` is a whole number of
// steps away there are as many factors.
inline Lanes rising_product(Lanes& x, Lanes end)
{
  Lanes product = all(1.0);
  for (Mask below = x < end; any(below); below = x < end) {
    product = if_else(below, product * x, product);
    x = if_else(below, x + all(1.0), x);
  }
  return product;
}

// Steps 0, 1, ... below b instead of arguments below an end: a + j would lose j beside a large a.
inline Lanes product_of_steps(Lanes a, Lanes b)
{
  Lanes product = all(1.0), j = {};
  for (Mask below = j < b; any(below); below = j < b) {
    product = if_else(below, product * (a + j), product);
    j = j + all(1.0);
  }
  return product;
}
inline Fraction sum_of_steps(Lanes a, Lanes b)
{
  Fraction f;
  Lanes j = {};
  for (Mask below = j < b; any(below); below = j < b) {
    const Lanes x = a + j;
    f.numerator = if_else(below, fused(f.numerator, x, f.denominator), f.numerator);
    f.denominator = if_else(below, f.denominator * x, f.denominator);
    j = j + all(1.0);
  }
  return f;
}

// log |gamma(a + b)| - log |gamma(a)|; for a > 0, a + b > 0 1e-15 relative to the larger of the result and b. Over few
// whole steps the logarithm of their product. Else both arguments are brought to 8 by the recurrence, and what is left
// is the difference of the two Stirling formulas, in which the large terms have cancelled on paper, over d = b and
// whole steps:
//     (a - 1/2) log(1 + b/a) + b (log(a + b) - 1) + s(a + b) - s(a).
inline Lanes lgamma_ratio(Lanes a, Lanes b)
{
  const Lanes top = a + b;
  const Mask inside = (a > Lanes{}) & (top > Lanes{}), few = few_steps(a, b), other = inside & ~few;
  Lanes r = {};
  if (any(few)) r = natural_log(if_else(few, product_of_steps(a, if_else(few, b, Lanes{})), all(1.0)));
  if (any(other)) {
    Lanes low = if_else(other, a, all(8.0)), high = if_else(other, top, all(8.0));
    const Lanes below = rising_product(low, all(8.0)), above = rising_product(high, all(8.0));
    const Lanes d = if_else(other, b + (nearest_whole(high - top) - nearest_whole(low - a)), Lanes{});
    const Lanes w = all(1.0) / high, v = all(1.0) / low;
    const Lanes tails = w * polynomial(stirling, w * w) - v * polynomial(stirling, v * v);
    const Lanes stable = (low - all(0.5)) * natural_log1p(d * v) + (d * (natural_log(high) - all(1.0)) + tails);
    r = if_else(other, stable + natural_log(below / above), r);
  }
  return any(~inside) ? if_else(inside, r, lgamma(top) - lgamma(a)) : r;
}

// log beta(a, b), a, b > 0; 4 ulp of the largest of its terms, log gamma of the smaller and the ratio.
inline Lanes lbeta(Lanes a, Lanes b)
{
  const Lanes small = if_else(a < b, a, b), large = if_else(a < b, b, a);
  return unless(~((a > Lanes{}) & (b > Lanes{})), lgamma_positive(small) - lgamma_ratio(large, small));
}

// a over b = gamma(a + 1) / (gamma(b + 1) gamma(a - b + 1)), b > -1, a - b > -1; 1e-14 relative, exact where both are
// whole and the result is below 1e13.
inline Lanes comb(Lanes a, Lanes b)
{
  const Lanes rest = a - b + all(1.0), lower = b + all(1.0);
  const Lanes r = natural_exp(lgamma_ratio(rest, b) - lgamma(lower));
  const Mask exact = (nearest_whole(a) == a) & (nearest_whole(b) == b) & (r < all(1e13));
  return unless(~((rest > Lanes{}) & (lower > Lanes{})), if_else(exact, nearest_whole(r), r));
}

// digamma(a + b) - digamma(a); for a > 0, a + b > 0 1e-15 relative to the larger of the result and 1/a. As
// lgamma_ratio, with sums in place of products.
inline Lanes digamma_ratio(Lanes a, Lanes b)
{
  const Lanes top = a + b;
  const Mask inside = (a > Lanes{}) & (top > Lanes{}), few = few_steps(a, b), other = inside & ~few;
  Lanes r = {};
  if (any(few)) {
    const Fraction f = sum_of_steps(a, if_else(few, b, Lanes{}));
    r = if_else(few, f.numerator / f.denominator, r);
  }
  if (any(other)) {
    Lanes low = if_else(other, a, all(10.0)), high = if_else(other, top, all(10.0));
    const Fraction below = rising_sum(low, all(10.0)), above = rising_sum(high, all(10.0));
    const Lanes d = if_else(other, b + (nearest_whole(high - top) - nearest_whole(low - a)), Lanes{});
    const Lanes w = all(1.0) / high, v = all(1.0) / low, w2 = w * w, v2 = v * v;
    const Lanes tails = w2 * polynomial(digamma_series, w2) - v2 * polynomial(digamma_series, v2);
    const Lanes steps = below.numerator / below.denominator - above.numerator / above.denominator;
    r = if_else(other, natural_log1p(d * v) + (all(0.5) * d * w * v - tails) + steps, r);
  }
  return any(~inside) ? if_else(inside, r, digamma(top) - digamma(a)) : r;
}

} // namespace lane
} // namespace
} // namespace torvale::engine
