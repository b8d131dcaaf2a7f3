#pragma once
// Functions of linear systems of compartments on one vector of lanes: means of exponentials, roots of the polynomial,
// responses. All are divided differences of exp(-x t) over rates x that may be equal or nearly so.

#include "engine/kernels/lane_elementary.h"

namespace torvale::engine {
namespace {
namespace lane {

// Calls f(number) for the number that the lanes share (as they do in a program), or for each of several; where it is
// none of 0 to `most` the lane is missing.
template <class F> inline Lanes by_number(Lanes numbers, double most, F f)
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

// Integral of u**k exp(-x u) for u in 0 to 1, given e = exp(-x); k from 0 to 8. 2 ulp for k = 0; for higher k errors
// grow to 1e-14 at k = 3. Near 0 the series sum (-x)**j / (j! (k + 1 + j)), elsewhere by parts.
inline Lanes exp_mean_of_order(Lanes x, int k, Lanes e)
{
  constexpr int terms = 18;
  const Mask near = magnitude(x) <= all(1.0);
  Lanes r = {};
  if (any(near)) {
    double c[terms];
    double factorial = 1.0;
    for (int j = 0; j < terms; ++j) {
      c[j] = 1.0 / (factorial * (k + 1 + j));
      factorial *= -(j + 1.0);
    }
    // In two halves of even and odd powers: the processor works on both at a time.
    const Lanes x2 = x * x;
    Lanes even = all(c[terms - 2]), odd = all(c[terms - 1]);
    for (int j = terms - 4; j >= 0; j -= 2) {
      even = fused(even, x2, all(c[j]));
      odd = fused(odd, x2, all(c[j + 1]));
    }
    r = fused(odd, x, even);
  }
  if (any(~near)) {
    const Lanes divisor = if_else(near, all(1.0), x);
    Lanes far = (all(1.0) - e) / divisor;
    for (int j = 1; j <= k; ++j) far = (all(j) * far - e) / divisor;
    r = if_else(near, r, far);
  }
  return unless(is_nan(x) | is_nan(e), r);
}
inline Lanes exp_mean(Lanes x, Lanes order, Lanes e)
{
  return by_number(order, 8.0, [&](double k) { return exp_mean_of_order(x, static_cast<int>(k), e); });
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

// By Leibniz' rule for the product of (-x)**power and exp(-x t): the divided differences of the first factor are
// symmetric polynomials too.
inline Lanes response(const CompartmentResponse& r, Lanes t, Lanes ka, const Lanes (&roots)[3])
{
  Lanes x[CompartmentResponse::most_poles], f[CompartmentResponse::most_poles];
  const int count = ascending_poles(r, ka, roots, x);
  last_differences(x, count, t, f);
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
