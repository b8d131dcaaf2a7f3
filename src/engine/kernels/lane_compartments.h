#pragma once
// Functions of linear systems of compartments on one vector of lanes: means of exponentials, roots of the polynomial,
// responses. All are divided differences of exp(-x t) over rates x that may be equal or nearly so.

#include "engine/kernels/lane_elementary.h"

namespace torvale::engine {
namespace {
namespace lane {

// Calls f(number) for the number that the lanes share (as they do in a program), or for each of several; where it is
// none of 0 to `most` the lane is missing.
template <class F> __attribute__((always_inline)) inline Lanes by_number(Lanes numbers, double most, F f)
{
  const auto value = [&](double number) { return number >= 0.0 && number <= most ? f(number) : missing_lanes(); };
  Lanes r = value(numbers[0]);
  if (!any(~(numbers == all(numbers[0])))) return r;
  for (int i = 1; i < width; ++i) {
    const Lanes own = value(numbers[i]);
    r[i] = own[i];
  }
  return r;
}

// Integral of u**i (1 - u)**j exp(-(x u + y (1 - u))) for u in 0 to 1, given ex = exp(-x) and ey = exp(-y). 3 ulp for
// i = j = 0; errors grow to 3e-14 at i + j = 4. Where x and y are within 1 the series in d = y - x,
//     ey sum_m d**m B(i + m + 1, j + 1) / m!,
// elsewhere by parts.
constexpr int most_moment = KernelTable::most_mean_order, exp_mean_terms = 18; // i + j is at most that
struct ExpMeanSeries {
  double c[most_moment + 1][most_moment + 1][exp_mean_terms];
};
consteval ExpMeanSeries exp_mean_series()
{
  ExpMeanSeries s{};
  for (int i = 0; i <= most_moment; ++i)
    for (int j = 0; j <= most_moment; ++j) {
      double value = 1.0; // i! j! / (i + j + 1)!
      for (int k = 1; k <= j; ++k) value *= static_cast<double>(k) / (i + k);
      value /= i + j + 1;
      for (int m = 0; m < exp_mean_terms; ++m) {
        s.c[i][j][m] = value;
        value *= (i + m + 1.0) / ((i + j + m + 2.0) * (m + 1.0));
      }
    }
  return s;
}
constexpr ExpMeanSeries exp_mean_table = exp_mean_series();

template <int I, int J> inline Lanes exp_mean_near(Lanes d)
{
  // Pairs of pairs (G. Estrin, 1960): the processor works on several at a time.
  const double(&c)[exp_mean_terms] = exp_mean_table.c[I][J];
  const Lanes d2 = d * d, d4 = d2 * d2, d8 = d4 * d4;
  const auto four = [&](int m) {
    return fused(d2, fused(d, all(c[m + 3]), all(c[m + 2])), fused(d, all(c[m + 1]), all(c[m])));
  };
  const Lanes low = fused(d4, four(4), four(0)), high = fused(d4, four(12), four(8));
  return fused(d8, fused(d8, fused(d, all(c[17]), all(c[16])), high), low);
}
// By parts, w = 1 / (y - x).
template <int I, int J> inline Lanes exp_mean_far(Lanes ex, Lanes ey, Lanes w)
{
  if constexpr (I == 0 && J == 0) return (ex - ey) * w;
  Lanes sum = I == 0 ? -ey : J == 0 ? ex : Lanes{};
  if constexpr (I > 0) sum = sum - all(I) * exp_mean_far<I - 1, J>(ex, ey, w);
  if constexpr (J > 0) sum = sum + all(J) * exp_mean_far<I, J - 1>(ex, ey, w);
  return sum * w;
}
// The same as part of the mean.
template <int I, int J> inline Lanes exp_mean_series_of_order(Lanes d, Lanes ey)
{
  return ey * exp_mean_near<I, J>(d);
}
template <int I, int J> inline Lanes exp_mean_of_order(Lanes x, Lanes y, Lanes ex, Lanes ey)
{
  const Lanes d = y - x;
  const Mask near = magnitude(d) <= all(1.0);
  Lanes r = {};
  if (any(~near)) r = exp_mean_far<I, J>(ex, ey, all(1.0) / if_else(near, all(1.0), d));
  if (any(near)) r = if_else(near, exp_mean_series_of_order<I, J>(d, ey), r);
  return r + (ex - ex); // a missing exponential shows
}
inline Lanes exp_mean(Lanes x, Lanes y, Lanes ex, Lanes ey, Lanes order)
{
  const auto value = [&](double number) __attribute__((always_inline))
  {
    switch (static_cast<int>(number)) {
    // clang-format off
    case 0: return exp_mean_of_order<0, 0>(x, y, ex, ey);
    case 1: return exp_mean_of_order<0, 1>(x, y, ex, ey);
    case 2: return exp_mean_of_order<0, 2>(x, y, ex, ey);
    case 3: return exp_mean_of_order<0, 3>(x, y, ex, ey);
    case 4: return exp_mean_of_order<0, 4>(x, y, ex, ey);
    case 10: return exp_mean_of_order<1, 0>(x, y, ex, ey);
    case 11: return exp_mean_of_order<1, 1>(x, y, ex, ey);
    case 12: return exp_mean_of_order<1, 2>(x, y, ex, ey);
    case 13: return exp_mean_of_order<1, 3>(x, y, ex, ey);
    case 20: return exp_mean_of_order<2, 0>(x, y, ex, ey);
    case 21: return exp_mean_of_order<2, 1>(x, y, ex, ey);
    case 22: return exp_mean_of_order<2, 2>(x, y, ex, ey);
    case 30: return exp_mean_of_order<3, 0>(x, y, ex, ey);
    case 31: return exp_mean_of_order<3, 1>(x, y, ex, ey);
    case 40: return exp_mean_of_order<4, 0>(x, y, ex, ey);
    default: return missing_lanes();
      // clang-format on
    }
  };
  return by_number(order, 44.0, value);
}

// The roots of x**3 - a x**2 + b x - c, largest first: real, none negative. The one that stands alone comes first: the
// largest by the closed form and a step of Newton's method, or the smallest by Newton's method from 0, which climbs to
// it and never passes it; the other two by the quadratic equation that is left. A single root is right to a few ulp; of
// a double one half of the digits are, but sum and product of the two keep theirs.
struct CubicRoots {
  Lanes x[3];
};

// Largest and smallest root of x**2 - s x + q, neither negative.
inline void quadratic_roots(Lanes s, Lanes q, Lanes& large, Lanes& small)
{
  const Lanes zero = {}, discriminant = s * s - all(4.0) * q;
  large = all(0.5) * (s + square_root(if_else(discriminant > zero, discriminant, zero)));
  small = if_else(large > zero, q / large, zero);
}

inline CubicRoots cubic_roots(Lanes a, Lanes b, Lanes c)
{
  const Lanes third = a / all(3.0), zero = {};
  const auto value = [&](Lanes x) { return fused(fused(x - a, x, b), x, -c); };
  const auto slope = [&](Lanes x) { return fused(fused(all(3.0), x, all(-2.0) * a), x, b); };
  const Lanes p = third * third - b / all(3.0);
  const Lanes radius = square_root(if_else(p > zero, p, zero)), cube = radius * radius * radius;
  const Lanes ratio = if_else(cube > zero, (third * third * third - all(0.5) * (third * b - c)) / cube, all(1.0));
  const Lanes cosine = if_else(ratio > all(1.0), all(1.0), if_else(ratio < all(-1.0), all(-1.0), ratio));
  const Mask largest_alone = ratio >= zero;

  Lanes first = third + all(2.0) * radius * elementary::cos(elementary::acos(cosine) / all(3.0));
  const Lanes polished = first - value(first) / slope(first);
  first = if_else((slope(first) > zero) & (magnitude(polished - first) < all(1e-6) * first), polished, first);
  Lanes middle, last;
  quadratic_roots(if_else(first > zero, (b - c / first) / first, zero), if_else(first > zero, c / first, zero), middle,
                  last);
  if (any(~largest_alone)) {
    Lanes low = if_else(c > zero, c / b, zero);
    Mask moving = (low > zero) & ~largest_alone;
    for (int step = 0; step < 60 && any(moving); ++step) {
      const Lanes next = low - value(low) / slope(low);
      moving = moving & (next > low) & (next <= third);
      low = if_else(moving, next, low);
    }
    const Lanes s = a - low;
    Lanes large, small;
    quadratic_roots(s, b - low * s, large, small);
    first = if_else(largest_alone, first, large);
    middle = if_else(largest_alone, middle, small);
    last = if_else(largest_alone, last, low);
  }
  const Mask fault = is_nan(a) | is_nan(b) | is_nan(c);
  return {{unless(fault, first), unless(fault, middle), unless(fault, last)}};
}

inline void cubic_root(double* out, const double* const* in, int n)
{
  for (int i = 0; i < n; i += width) {
    const CubicRoots roots = cubic_roots(load(in[0] + i), load(in[1] + i), load(in[2] + i));
    const Lanes k = load(in[3] + i);
    const Lanes root = if_else(k == all(1.0), roots.x[0], if_else(k == all(2.0), roots.x[1], roots.x[2]));
    store(out + i, unless(is_nan(k), root));
  }
}

// The rates of a response in ascending order, each as often as its pole: 0, then the roots from the smallest, and among
// them ka where it belongs. The number of them.
inline int ascending_poles(const CompartmentResponse& r, Lanes ka, const Lanes (&roots)[3], Lanes* x)
{
  int count = 0;
  for (int j = 0; j < r.input; ++j) x[count++] = Lanes{};
  for (int k = r.n; k-- > 0;)
    for (int j = 0; j < r.system; ++j) x[count++] = roots[k];
  for (int j = 0; j < r.depot; ++j) {
    Lanes carried = ka;
    for (int k = 0; k < count; ++k) {
      const Mask below = carried < x[k];
      const Lanes lower = if_else(below, carried, x[k]);
      carried = if_else(below, x[k], carried);
      x[k] = lower;
    }
    x[count++] = carried;
  }
  return count;
}

// Sums e**-x[j] times the series of the divided differences of exp(-x) over x[i..j], i = j - 1 down to `lowest`: with
// d = x[j] - x[i] >= 0 the terms h_k(d_i, ..., d_j) / (j - i + k)!, h_k the complete symmetric polynomials. All are
// positive: nothing cancels however near the rates are.
struct SymmetricSeries {
  static constexpr int most_terms = 18 + 3 * CompartmentResponse::most_poles;
  Lanes h[most_terms];
  int terms = 0;
  explicit SymmetricSeries(int order) : terms(18 + 3 * order)
  {
    h[0] = all(1.0);
    for (int k = 1; k < terms; ++k) h[k] = Lanes{};
  }
  Lanes with(Lanes d, int order)
  {
    for (int k = 1; k < terms; ++k) h[k] = fused(d, h[k - 1], h[k]);
    double factor = 1.0;
    for (int k = 2; k <= order; ++k) factor /= k;
    Lanes sum = {};
    for (int k = 0; k < terms; ++k) {
      sum = fused(h[k], all(factor), sum);
      factor /= order + k + 1;
    }
    return sum;
  }
};

// Divided differences of exp(-x t) over x[k..count-1], for every k, over the sign (-1)**(count-1-k) and the power
// t**(count-1-k). Rates further apart than the order of the difference go by its definition, nearer ones by the series.
inline void last_differences(const Lanes* x, int count, Lanes t, Lanes* f)
{
  Lanes exponential = {};
  for (int j = 0; j < count; ++j) {
    exponential = natural_exp(-(x[j] * t));
    Lanes right = exponential; // the difference over x[i+1..j]
    int lowest = j;
    for (int i = 0; i < j && lowest == j; ++i)
      if (any((x[j] - x[i]) * t <= all(j - i))) lowest = i;
    SymmetricSeries series(lowest < j ? j - lowest : 0);
    for (int i = j - 1; i >= 0; --i) {
      const Lanes d = (x[j] - x[i]) * t;
      const Mask near = d <= all(j - i);
      Lanes value = (f[i] - right) / d; // f[i] is still the difference over x[i..j-1]
      if (i >= lowest) value = if_else(near, exponential * series.with(d, j - i), value);
      f[i + 1] = right;
      right = value;
    }
    f[0] = right;
  }
}

// The same where no rates are further apart than `spread` over t: they are the first column of the exponential of the
// matrix with d = (largest - x) t in the diagonal and 1 below it (G. Opitz, 1964), over exp(largest t). The terms of
// the power series, column by column, are positive, so nothing cancels; what comes after the last one counted is below
// half a unit in the last place of every sum, in each lane, so that the neighbours of a lane do not show in it.
constexpr double spread_of_near_poles = 32.0;

inline int terms_of_spread(double d) // d**n / n! < 2**-55
{
  return d <= 0.1 ? 11 : 19 + static_cast<int>(std::ceil(3.6 * d));
}

template <int Count> inline void near_differences(const Lanes* x, Lanes t, int terms, Lanes* f)
{
  Lanes d[Count], power[Count], sum[Count];
  for (int k = 0; k < Count; ++k) {
    d[k] = (x[Count - 1] - x[Count - 1 - k]) * t;
    sum[k] = power[k] = all(k == 0 ? 1.0 : 0.0);
  }
  double factor = 1.0;
  for (int j = 1; j < terms + Count; ++j) {
    factor /= j;
    const Lanes weight = all(factor);
#pragma GCC unroll 24
    for (int k = Count - 1; k > 0; --k) {
      power[k] = fused(d[k], power[k], power[k - 1]);
      sum[k] = fused(power[k], weight, sum[k]);
    }
    power[0] = Lanes{}; // d[0] is 0
  }
  const Lanes exponential = natural_exp(-(x[Count - 1] * t));
  for (int k = 0; k < Count; ++k) f[Count - 1 - k] = exponential * sum[k];
}
template <int Count = 1> inline void near_differences_of(int count, const Lanes* x, Lanes t, int terms, Lanes* f)
{
  if (count == Count)
    near_differences<Count>(x, t, terms, f);
  else if constexpr (Count < CompartmentResponse::most_poles)
    near_differences_of<Count + 1>(count, x, t, terms, f);
}

inline void differences(const Lanes* x, int count, Lanes t, Lanes* f)
{
  const Lanes spread = (x[count - 1] - x[0]) * t;
  const Mask near = spread <= all(spread_of_near_poles);
  if (any(~near)) last_differences(x, count, t, f);
  if (!any(near)) return;
  double widest = 0.0;
  for (int i = 0; i < width; ++i)
    if (spread[i] <= spread_of_near_poles) widest = std::max(widest, spread[i]);
  Lanes g[CompartmentResponse::most_poles];
  near_differences_of(count, x, t, terms_of_spread(widest), g);
  for (int k = 0; k < count; ++k) f[k] = any(~near) ? if_else(near, g[k], f[k]) : g[k];
}

// By Leibniz' rule for the product of (-x)**power and exp(-x t): the divided differences of the first factor are
// symmetric polynomials too.
inline Lanes response(const CompartmentResponse& r, Lanes t, Lanes ka, const Lanes (&roots)[3])
{
  Lanes x[CompartmentResponse::most_poles], f[CompartmentResponse::most_poles];
  const int count = ascending_poles(r, ka, roots, x);
  differences(x, count, t, f);
  Lanes h[CompartmentResponse::most_power + 1]; // h[p]: symmetric polynomial of degree p in x[0..k]
  h[0] = all(1.0);
  for (int p = 1; p <= r.power; ++p) h[p] = Lanes{};
  Lanes time[CompartmentResponse::most_poles];
  time[count - 1] = all(1.0);
  for (int k = count - 2; k >= 0; --k) time[k] = time[k + 1] * t;
  Lanes sum = {};
  for (int k = 0; k < count && k <= r.power; ++k) {
    for (int p = 1; p <= r.power; ++p) h[p] = fused(x[k], h[p - 1], h[p]);
    const Lanes term = h[r.power - k] * f[k] * time[k];
    sum = (r.power - k) % 2 == 0 ? sum + term : sum - term;
  }
  return sum;
}

inline void compartment_response(double* out, const double* const* in, int n)
{
  constexpr double largest_number = 10000.0 * (CompartmentResponse::most_power + 1);
  for (int i = 0; i < n; i += width) {
    const Lanes which = load(in[0] + i), t = load(in[1] + i), ka = load(in[2] + i);
    const Lanes roots[3] = {load(in[6] + i), load(in[7] + i), load(in[8] + i)};
    const Lanes coefficients = load(in[3] + i) + load(in[4] + i) + load(in[5] + i);
    const Mask fault = is_nan(t + ka + coefficients + (roots[0] + roots[1] + roots[2]));
    Lanes r = missing_lanes();
    if (any(~fault))
      r = by_number(which, largest_number, [&](double number) {
        const CompartmentResponse response_of = CompartmentResponse::of(number);
        return response_of.valid() ? response(response_of, t, ka, roots) : missing_lanes();
      });
    store(out + i, unless(fault, r));
  }
}

} // namespace lane
} // namespace
} // namespace torvale::engine
