#include "optimizer/line_search/line_search.h"

#include "optimizer/active_set/active_set.h"
#include "optimizer/derivatives/objective_access.h"

#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace torvale::optimizer {
namespace {

// A direction from a Hessian or its approximation is scaled: its natural step is 1, and a longer first trial only costs
// a call near the solution, where the decrease of the last iteration says nothing of the next.
bool natural_step_is_one(int tech)
{
  return tech != CONGRA;
}

// When every parameter would move by less than 1e-8 of its size the step is raised until one does.
double raise_useless_step(const MINSTR& str, double a)
{
  double least = largest;
  for (long i = 0; i < str.nvar; ++i) {
    const double size = std::max(1.0, std::abs(str.xold[i]));
    const double d = std::abs(str.sdir[i]);
    if (!(d > size * smallest_normal)) continue;
    if (a * d >= 1e-8 * size) return a;
    least = std::min(least, 1e-8 * size / d);
  }
  return least < largest ? std::max(a, least) : a;
}

} // namespace

double znlpalf(const MINSTR& str, double slope, double longest)
{
  double a = 1.0;
  if (str.trial > 0.0) {
    a = str.trial;
  } else if (!is_missing(str.damp)) {
    a = str.itre == 0 ? 1.0 : std::min(str.damp * str.alfa, 1.0);
  } else if (is_missing(str.dfes) || str.dfes == 0.0 || str.itre == 0) {
    // No decrease to go by. The first direction of a cycle is a bare gradient whose length means nothing, unless the
    // matrix began as a Hessian: a step of the size of the point, and of 1 at most, stays where the start values mean
    // something.
    const double size = matrix::zvenorm(str.nvar, 1, str.xold);
    const double length = std::max(matrix::zvenorm(str.nvar, 1, str.sdir), tiny_threshold);
    a = str.itre > 0 || str.load != 0 ? 1.0 : std::min(1.0, (size > 0.0 ? std::min(size, 1.0) : 1.0) / length);
  } else {
    const double decrease = std::abs(str.dfes);
    if (std::abs(slope) >= std::max(100.0 * decrease, tiny_threshold) * unit_roundoff)
      a = 2.5 * decrease / std::abs(slope);
    a = std::clamp(a, 0.1, natural_step_is_one(str.tech) ? 1.0 : 10.0);
  }
  if (str.trial == 0.0 && !(str.itre > 1 && str.nlis > 5)) a = std::min(a, str.salf);
  if (str.nlis <= str.smit) a = std::min(a, str.smax);
  return std::min(raise_useless_step(str, a), longest);
}

double begin_search(MINSTR* str)
{
  ++str->nlis;
  str->cutf = 0;
  return str->nlis <= str->smit ? std::min(str->stub, str->smax) : str->stub;
}

double least_step(const MINSTR& str)
{
  double least = largest;
  for (long i = 0; i < str.nvar; ++i) {
    const double rounding = std::abs(str.xold[i]) * 50.0 * machine_epsilon;
    const double d = std::abs(str.sdir[i]);
    if (d > std::max(root_smallest, rounding * root_smallest)) least = std::min(least, rounding / d);
  }
  return least;
}

int try_step(MINSTR* str, double a, BestPoint& best)
{
  move_along(str, a, str->sdir);
  if (objective_value(str) != 0) {
    str->cutf = 1;
    return 1;
  }
  if (str->crit < best.value) {
    best = {a, str->crit};
    std::copy_n(str->x, str->nvar, str->xbes);
    str->best_has_gradient = false;
  }
  return 0;
}

int trial_slope(MINSTR* str, double a, BestPoint& best, double& slope)
{
  if (objective_gradient(str) != 0) {
    // A point without a gradient is no better than one without a value.
    if (best.step == a) best = {0.0, str->cold};
    return 1;
  }
  if (best.step == a) {
    std::copy_n(str->grad, str->nvar, str->gbes);
    str->best_has_gradient = true;
  }
  slope = znlpgs(*str, str->grad, str->sdir);
  return 0;
}

int finish_at_best(MINSTR* str, const BestPoint& best)
{
  str->alfa = best.step;
  if (best.step == 0.0) return 1;
  std::copy_n(str->xbes, str->nvar, str->x);
  str->crit = best.value;
  if (str->best_has_gradient) {
    std::copy_n(str->gbes, str->nvar, str->grad);
    return 0;
  }
  return objective_gradient(str);
}

int bisect(MINSTR* str)
{
  const long n = str->nvar;
  // Steepest descent of the old point: the gradient there is gold.
  std::swap(str->grad, str->gold);
  znlpgmx(str);
  std::swap(str->grad, str->gold);
  znlpvex(*str, str->gpro, str->sdir);
  for (long i = 0; i < n; ++i) str->sdir[i] = -str->sdir[i];
  const double norm = matrix::zvenorm(n, 1, str->sdir);
  if (!(norm > tiny_threshold)) return 1;
  long blocking = -1;
  double a = std::min(znlpstl(*str, str->xold, str->sdir, &blocking), 1.0 / std::max(1.0, norm));
  BestPoint best{0.0, str->cold};
  // Each halving may be a pass over the data: twenty of them reach a millionth of the first step.
  for (int halvings = 0; halvings < 20 && a > tiny_threshold && !interrupted(*str); ++halvings, a *= 0.5)
    if (try_step(str, a, best) == 0 && best.step != 0.0) {
      // What was predicted was predicted for a direction that led nowhere.
      str->scut = cut_search;
      str->pred = largest;
      return finish_at_best(str, best);
    }
  return 1;
}

int give_up(MINSTR* str)
{
  str->alfa = 0.0;
  return str->gmax > 0.0001 && !interrupted(*str) ? bisect(str) : 1;
}

LineSearchRoutine line_search_routine(int tlin)
{
  switch (tlin) {
  case 1:
    return znlpls1;
  case 3:
    return znlpls3;
  case 4:
    return znlpls4;
  case 5:
    return znlpls5;
  case 6:
    return znlpls6;
  case 7:
    return znlpls7;
  case 8:
    return znlpls8;
  default:
    return znlpls2;
  }
}

} // namespace torvale::optimizer
