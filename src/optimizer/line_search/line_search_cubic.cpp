#include "optimizer/line_search/line_search.h"

#include "optimizer/active_set/active_set.h"
#include "optimizer/derivatives/objective_access.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

constexpr int most_trials = 60;

// How the members of the cubic family differ.
struct Family {
  bool quadratic_first = false;     // too long: a quadratic from values before a cubic, which costs a gradient
  bool upper_cubic = false;         // too short inside a bracket: a cubic between the ends instead of the middle
  bool sigma_free = false;          // curvature 0.9 and limits 0.1, 0.9 whatever LSPRECISION says
  bool fixed_extrapolation = false; // too short without a bracket: four times the step
};

// One end of the bracket: step, objective, slope (if known).
struct End {
  double a, f, s;
  bool has_slope;
};

// Minimizer of the cubic through (f0, s0) at 0 and (f1, s1) at h, as a fraction of h.
// Two forms of one root, each without cancellation on its side (Fletcher, Practical Methods of Optimization,
// section 2.6).
double cubic_minimizer(double f0, double s0, double f1, double s1, double h)
{
  const double z = s0 + s1 - 3.0 * (f1 - f0) / h;
  const double root = z * z - s0 * s1;
  const double w = root > 0.0 ? std::sqrt(root) : 0.0;
  return s0 + z <= 0.0 ? s0 / (s0 + z - w) : (s0 + z + w) / (s0 + s1 + 2.0 * z);
}

double clamped(double t, double low, double high)
{
  return std::isfinite(t) ? std::clamp(t, low, high) : 0.5;
}

class CubicSearch {
public:
  CubicSearch(MINSTR* record, Family family)
      : str(record), how(family), f0(record->cold), s0(znlpgs(*record, record->gold, record->sdir))
  {
  }

  // lo always has a sufficient decrease and a slope that still falls too steeply; hi, once known, has not. So an
  // acceptable step lies between them, and the bracket shrinks by at least a fifth at each trial.
  int run()
  {
    const double longest = begin_search(str);
    if (s0 > tiny_threshold) return str->alfa = 0.0, 1;
    if (s0 >= -tiny_threshold || longest <= tiny_threshold) return str->alfa = 0.0, 0;
    double a = znlpalf(*str, s0, longest);
    const double shortest = std::max(least_step(*str), 1e-16 * a);
    if (shortest >= largest) return str->alfa = 0.0, 1;
    sigma = how.sigma_free ? 0.9 : str->sigm;
    c1 = how.sigma_free ? 0.1 : str->sigm <= 0.2 ? 0.5 * str->sigm : 0.1;
    const bool noisy =
        str->sigm >= 0.1 && gradient_by_differences(*str) && str->fdig < -std::log10(50.0 * machine_epsilon);
    // Differences carry no news of a step this small.
    const double noise_step = noisy ? 1e-6 * a : 0.0;
    best = {0.0, f0};
    lo = {0.0, f0, s0, true};
    has_hi = false;

    for (int trial = 1; trial <= most_trials; ++trial) {
      if (try_step(str, a, best) != 0) {
        if (best.step != 0.0 || a <= shortest || interrupted(*str)) break;
        cut_after_failure(a);
        continue;
      }
      const double f = str->crit;
      if (a <= shortest || (a <= noise_step && best.step == 0.0)) break;
      if (trial > 2 && std::abs(f - f0) <= smallest_normal) break;
      double next = 0.0;
      const Outcome outcome = f - f0 <= c1 * s0 * a ? decreased_enough(a, f, longest, next) : too_long(a, f, next);
      if (outcome == Outcome::accept) break;
      if (outcome == Outcome::failed) {
        if (best.step != 0.0 || a <= shortest || interrupted(*str)) break;
        cut_after_failure(a);
        continue;
      }
      if (next == a || next == lo.a || !(next > 0.0)) break;
      a = next;
    }
    if (finish_at_best(str, best) != 0) return give_up(str);
    return 0;
  }

private:
  enum class Outcome { go_on, accept, failed };

  // The failed step bounds the search from above for good.
  void cut_after_failure(double& a)
  {
    hi = {a, largest, 0.0, false};
    has_hi = true;
    a = lo.a > 0.0 ? lo.a + 0.1 * (a - lo.a) : 0.1 * a;
  }

  bool curvature_holds(double s) const
  {
    // A conjugate direction needs an exact enough minimum on both sides, or the next one loses descent.
    return str->tech == CONGRA ? std::abs(s) <= -sigma * s0 : s >= sigma * s0;
  }

  // Sufficient decrease: accept, or go further.
  Outcome decreased_enough(double a, double f, double longest, double& next)
  {
    double s = 0.0;
    if (trial_slope(str, a, best, s) != 0) return Outcome::failed;
    if (curvature_holds(s) || a >= str->ssin) return accept_this(a, f);
    if (str->tech == CONGRA && s > -sigma * s0) { // beyond the minimum: it lies between lo and here
      const double t = clamped(cubic_minimizer(lo.f, lo.s, f, s, a - lo.a), 0.1, 0.9);
      hi = {a, f, s, true};
      has_hi = true;
      next = lo.a + t * (a - lo.a);
      return Outcome::go_on;
    }
    if (a >= longest) return accept_this(a, f);
    double increment = 0.0;
    if (has_hi) {
      increment = 0.5 * (hi.a - a);
      if (how.upper_cubic && hi.has_slope && (str->sigm < 0.1 || s < sigma * s0))
        increment = clamped(cubic_minimizer(f, s, hi.f, hi.s, hi.a - a), 0.1, 0.9) * (hi.a - a);
    } else if (how.fixed_extrapolation) {
      increment = 3.0 * a;
    } else {
      // The quadratic through f0, s0, f, s in the least squares sense has its minimum at -s/q beyond a.
      increment = 9.0 * a;
      const double q = 3.0 * s + s0 - 4.0 * (f - f0) / a;
      if (q > 0.0) increment = std::min(increment, std::max(1.0, -s / q) * a);
    }
    lo = {a, f, s, true};
    next = std::min(longest, a + increment);
    return Outcome::go_on;
  }

  // Not enough decrease: interpolate between lo and here.
  Outcome too_long(double a, double f, double& next)
  {
    const double h = a - lo.a;
    hi = {a, f, 0.0, false};
    has_hi = true;
    // 1/(2v) is the minimizer of the quadratic through lo.f, lo.s and f.
    const double v = (lo.f - f) / (lo.s * h) + 1.0;
    double t = 0.5;
    if (how.quadratic_first && v > 0.0 && std::isfinite(v)) {
      t = std::abs(f - lo.f) <= 10.0 * unit_roundoff * std::abs(f) ? 0.6 : std::clamp(0.5 / v, 0.2, 0.8);
    } else {
      double s = 0.0;
      if (trial_slope(str, a, best, s) != 0) return Outcome::failed;
      hi.s = s;
      hi.has_slope = true;
      const double low = how.sigma_free ? 0.1 : c1;
      t = clamped(cubic_minimizer(lo.f, lo.s, f, s, h), low, 1.0 - low);
    }
    next = lo.a + t * h;
    return Outcome::go_on;
  }

  // The point meets the conditions; it is taken although an earlier trial may have been lower by a hair.
  Outcome accept_this(double a, double f)
  {
    best = {a, f};
    std::copy_n(str->x, str->nvar, str->xbes);
    std::copy_n(str->grad, str->nvar, str->gbes);
    str->best_has_gradient = true;
    return Outcome::accept;
  }

  MINSTR* str;
  Family how;
  double f0;
  double s0;
  double sigma = 0.9;
  double c1 = 0.1;
  BestPoint best;
  End lo{};
  End hi{};
  bool has_hi = false;
};

} // namespace

int znlpls1(MINSTR* str)
{
  return CubicSearch(str, {}).run();
}
int znlpls2(MINSTR* str)
{
  return CubicSearch(str, {.quadratic_first = true}).run();
}
int znlpls3(MINSTR* str)
{
  return CubicSearch(str, {.upper_cubic = true}).run();
}
int znlpls4(MINSTR* str)
{
  return CubicSearch(str, {.sigma_free = true, .fixed_extrapolation = true}).run();
}
int znlpls5(MINSTR* str)
{
  return CubicSearch(str, {.sigma_free = true}).run();
}

} // namespace torvale::optimizer
