#include "optimizer/line_search/line_search.h"

#include "optimizer/active_set/active_set.h"
#include "optimizer/derivatives/objective_access.h"

#include <algorithm>
#include <cmath>

// The searches that use objective values only and ask for the gradient once, at the point where they end.

namespace torvale::optimizer {
namespace {

constexpr int most_trials = 60;

struct Point {
  double a, f;
};

// What all of them do first. Returns false when the search is over with `result`.
struct Beginning {
  bool search;
  int result;
  double slope, longest, first, shortest;
};

Beginning begin(MINSTR* str)
{
  Beginning b{false, 0, znlpgs(*str, str->gold, str->sdir), begin_search(str), 0.0, 0.0};
  if (b.slope > tiny_threshold) {
    str->alfa = 0.0;
    b.result = 1;
    return b;
  }
  if (b.slope >= -tiny_threshold || b.longest <= tiny_threshold) {
    str->alfa = 0.0;
    return b;
  }
  b.first = znlpalf(*str, b.slope, b.longest);
  b.shortest = std::max(least_step(*str), 1e-16 * b.first);
  b.search = b.shortest < largest;
  b.result = b.search ? 0 : 1;
  return b;
}

int finish(MINSTR* str, const BestPoint& best)
{
  return finish_at_best(str, best) != 0 ? give_up(str) : 0;
}

// Minimizer of the parabola through three points with low.a < mid.a < high.a; NaN when it is not convex.
double parabola_minimizer(const Point& low, const Point& mid, const Point& high)
{
  const double p = (mid.a - low.a) * (mid.f - high.f);
  const double q = (mid.a - high.a) * (mid.f - low.f);
  const double denominator = 2.0 * (p - q);
  if (!(std::abs(denominator) > 1.232595164407832e-32)) return std::numeric_limits<double>::quiet_NaN();
  return mid.a - ((mid.a - low.a) * p - (mid.a - high.a) * q) / denominator;
}

// A bracket low < mid < high with f(mid) below both ends (high may be a failed point: f is then the largest double),
// found by the factor 2 upwards or 1/2 (1/10 after a failure) downwards. Returns false when there is none: the best
// point so far is then all that there is.
bool bracket(MINSTR* str, const Beginning& b, BestPoint& best, Point& low, Point& mid, Point& high)
{
  low = {0.0, str->cold};
  double a = b.first;
  for (int trial = 0;; ++trial) {
    const bool failed = try_step(str, a, best) != 0;
    if (!failed && str->crit < str->cold) break;
    high = {a, failed ? largest : str->crit};
    // Far above the start: the minimum is much nearer.
    a *= failed ? 0.1 : str->crit > str->cold + 0.1 * std::abs(str->cold) ? 0.25 : 0.5;
    if (trial >= most_trials || a <= b.shortest || interrupted(*str)) return false;
  }
  mid = {a, str->crit};
  if (a < b.first) return true;
  for (int doubling = 0; doubling < 8 && mid.a < b.longest && mid.a < str->ssin; ++doubling) {
    high = {std::min(2.0 * mid.a, b.longest), largest};
    if (try_step(str, high.a, best) == 0) high.f = str->crit;
    if (!(high.f < mid.f)) return true;
    low = mid;
    mid = high;
  }
  return false; // still falling: the step is as long as it may be
}

// Narrows the bracket by one trial at a.
bool narrow(MINSTR* str, double a, BestPoint& best, Point& low, Point& mid, Point& high)
{
  Point p{a, largest};
  if (try_step(str, a, best) == 0) p.f = str->crit;
  if (p.f < mid.f) {
    (p.a > mid.a ? low : high) = mid;
    mid = p;
  } else {
    (p.a > mid.a ? high : low) = p;
  }
  return !interrupted(*str);
}

constexpr double golden = 0.3819660112501051;

int golden_section(MINSTR* str, bool parabolas)
{
  const Beginning b = begin(str);
  if (!b.search) return b.result;
  BestPoint best{0.0, str->cold};
  Point low{}, mid{}, high{};
  if (!bracket(str, b, best, low, mid, high)) return finish(str, best);
  const double end = 0.001 * b.first;
  double before_last = high.a - low.a, last = before_last;
  for (int trial = 0; trial < most_trials && high.a - low.a > end; ++trial) {
    const bool right = high.a - mid.a > mid.a - low.a;
    double a = right ? mid.a + golden * (high.a - mid.a) : mid.a - golden * (mid.a - low.a);
    if (parabolas && high.f < largest) {
      const double p = parabola_minimizer(low, mid, high);
      // A parabola that does not halve the step of the last but one trial is not to be trusted (Brent).
      if (p > low.a + 0.1 * end && p < high.a - 0.1 * end && std::abs(p - mid.a) > 0.1 * end &&
          std::abs(p - mid.a) < 0.5 * before_last)
        a = p;
    }
    before_last = last;
    last = std::abs(a - mid.a);
    if (!narrow(str, a, best, low, mid, high)) break;
  }
  return finish(str, best);
}

} // namespace

int znlpls6(MINSTR* str)
{
  return golden_section(str, true);
}
int znlpls9(MINSTR* str)
{
  return golden_section(str, false);
}

// Goldstein's conditions f0 + (1 - c1) s0 a <= f(a) <= f0 + c1 s0 a: the second is the sufficient decrease, the first
// refuses steps that are too short. Increments grow fourfold until the conditions bracket a step, which is then
// bisected.
int znlpls7(MINSTR* str)
{
  const Beginning b = begin(str);
  if (!b.search) return b.result;
  const double c1 = str->sigm <= 0.2 ? 0.5 * str->sigm : 0.1;
  BestPoint best{0.0, str->cold};
  double low = 0.0, high = 0.0, a = b.first, increment = b.first;
  for (int trial = 0; trial < most_trials; ++trial) {
    const bool failed = try_step(str, a, best) != 0;
    const double gain = failed ? 0.0 : str->cold - str->crit;
    if (failed || gain + c1 * b.slope * a < 0.0) { // too long
      high = a;
      a = failed && low == 0.0 ? 0.1 * a : 0.5 * (low + high);
    } else if (gain + (1.0 - c1) * b.slope * a > 0.0 && a < b.longest && a < str->ssin) { // too short
      low = a;
      increment *= 4.0;
      a = high > 0.0 ? 0.5 * (low + high) : std::min(b.longest, a + increment);
    } else {
      best = {a, str->crit};
      std::copy_n(str->x, str->nvar, str->xbes);
      str->best_has_gradient = false;
      break;
    }
    const bool closed = high > 0.0 && high - low <= 0.001 * std::min(b.first, high) && best.step != 0.0;
    if (closed || a <= b.shortest || interrupted(*str)) break;
  }
  return finish(str, best);
}

// Doubling, then parabolas until the bracket is within 5 percent of its middle.
int znlpls8(MINSTR* str)
{
  const Beginning b = begin(str);
  if (!b.search) return b.result;
  BestPoint best{0.0, str->cold};
  Point low{}, mid{}, high{};
  if (!bracket(str, b, best, low, mid, high)) return finish(str, best);
  for (int trial = 0; trial < most_trials && high.a - low.a > 0.05 * mid.a; ++trial) {
    double a = high.f < largest ? parabola_minimizer(low, mid, high) : 0.5 * (mid.a + high.a);
    if (!(a > low.a && a < high.a)) a = (low.a + high.a) / 3.0;
    // Points on top of each other carry no curvature: step away from the middle into the longer side.
    if (!(a > low.a && a < high.a) || std::abs(a - mid.a) < 0.02 * mid.a)
      a = high.a - mid.a > mid.a - low.a ? mid.a + 0.1 * (high.a - mid.a) : mid.a - 0.1 * (mid.a - low.a);
    if (!narrow(str, a, best, low, mid, high)) break;
  }
  return finish(str, best);
}

} // namespace torvale::optimizer
