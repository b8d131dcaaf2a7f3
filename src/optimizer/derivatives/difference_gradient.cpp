#include "optimizer/derivatives/difference_interval.h"
#include "optimizer/derivatives/objective_access.h"
#include "optimizer/optimizer.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {

double forward_base(const MINSTR& str)
{
  return str.fdig > 0.0 ? std::exp(-1.151292546497023 * str.fdig) : 2.107342425544702e-08;
}

double central_base(const MINSTR& str)
{
  return std::exp(2.0 * std::log(forward_base(str)) / 3.0);
}

double second_difference_base(const MINSTR& str)
{
  return std::sqrt(forward_base(str));
}

double least_interval(double x)
{
  return std::max(1.0, std::abs(x)) * 1.110223024625157e-15;
}

double interval(const MINSTR& str, long i, double base, const double* found)
{
  const double x = str.x[i];
  const double relative = found != nullptr && str.cfdh != 0 && !is_missing(found[i]) ? found[i] : base;
  double h = (1.0 + std::abs(x)) * relative;
  if (!is_missing(str.hlim[i])) h = std::min(h, str.hlim[i] * (base / central_base(str)));
  const double moved = x + h; // stored, so that moved - x is the interval really used
  return std::max(moved - x, std::abs(x) * 1.110223024625157e-15);
}

void forget_curvature(MINSTR* str)
{
  std::fill_n(str->hlim, str->nvar, missing);
}

double learn_curvature(MINSTR* str, long i, double h, double up, double down, double f)
{
  const double target = central_base(*str) * central_base(*str);
  const double change = 0.5 * std::abs(up + down) / (1.0 + std::abs(f));
  double right = h;
  // Only what is wrong by a factor of a hundred: the interval need not be exact, and should not wander.
  if (change > 1e4 * target)
    right = h * std::max(std::sqrt(target / change), 1e-8);
  else if (change < 1e-4 * target && !is_missing(str->hlim[i]))
    right = change > 0.0 ? h * std::min(std::sqrt(target / change), 100.0) : 100.0 * h;
  if (right != h)
    str->hlim[i] = right;
  else if (is_missing(str->hlim[i]))
    str->hlim[i] = largest;
  return right;
}

bool inside_bounds(const MINSTR& str, long i, double h)
{
  if (str.bounds == 0) return true;
  const double moved = str.x[i] + h;
  return moved >= str.lb[i] && moved <= str.ub[i];
}

double fit_interval(const MINSTR& str, long i, double h, double steps)
{
  if (inside_bounds(str, i, steps * h)) return h;
  if (inside_bounds(str, i, -steps * h)) return -h;
  const double above = str.ub[i] - str.x[i];
  const double below = str.x[i] - str.lb[i];
  return above >= below ? above / steps : -below / steps;
}

namespace {

// One trial point: f(x + h e_i) - f(x), or failure.
struct Trial {
  bool failed;
  double change;
};

Trial change_of_objective(MINSTR* str, long i, double h, double base_value)
{
  const double xi = str->x[i];
  str->x[i] = xi + h;
  const bool failed = objective_value(str) != 0;
  str->x[i] = xi;
  return {failed, failed ? 0.0 : str->crit - base_value};
}

// Central quotient; beside a bound, or when the objective fails on one side, the one-sided formula of the same order
//     (4 (f1 - f0) - (f2 - f0)) / 2h,   f1 = f(x + h), f2 = f(x + 2h).
// On failure half the interval.
bool central_quotient(MINSTR* str, long i, double h, double f, double& quotient)
{
  int resizes = 0;
  for (h = std::abs(h); h > least_interval(0.0) * std::abs(str->x[i]) && h > 0.0 && str->stop == 0; h *= 0.5) {
    Trial up{true, 0.0};
    Trial down{true, 0.0};
    if (inside_bounds(*str, i, h)) up = change_of_objective(str, i, h, f);
    if (inside_bounds(*str, i, -h)) down = change_of_objective(str, i, -h, f);
    if (!up.failed && !down.failed) {
      quotient = (up.change - down.change) / (2.0 * h);
      const double right = learn_curvature(str, i, h, up.change, down.change, f);
      if (right < h && ++resizes < 4) {
        h = 2.0 * right; // halved by the loop
        continue;
      }
      return true;
    }
    if (is_missing(str->hlim[i])) str->hlim[i] = largest;
    if (up.failed && down.failed) continue;
    const double step = up.failed ? -h : h;
    const Trial one = up.failed ? down : up;
    if (!inside_bounds(*str, i, 2.0 * step)) continue;
    const Trial two = change_of_objective(str, i, 2.0 * step, f);
    if (two.failed) continue;
    quotient = (4.0 * one.change - two.change) / (2.0 * step);
    return true;
  }
  return false;
}

// Forward quotient; on failure the other side, then half the interval. Returns false when nothing works.
bool forward_quotient(MINSTR* str, long i, double h, double f, double& quotient)
{
  h = fit_interval(*str, i, h, 1.0);
  while (std::abs(h) > 0.0) {
    for (const double step : {h, -h}) {
      if (!inside_bounds(*str, i, step)) continue;
      const Trial trial = change_of_objective(str, i, step, f);
      if (trial.failed) continue;
      quotient = trial.change / step;
      return true;
    }
    if (str->stop != 0) return false;
    h *= 0.5;
    if (std::abs(h) <= least_interval(str->x[i])) return false;
  }
  return false;
}

// The same, but a parameter of whose curvature nothing is known gets a central quotient once.
bool learning_quotient(MINSTR* str, long i, double h, double f, double& quotient)
{
  if (!is_missing(str->hlim[i]) || str->cfdh != 0) return forward_quotient(str, i, h, f, quotient);
  return central_quotient(str, i, interval(*str, i, central_base(*str), nullptr), f, quotient);
}

using Quotient = bool (*)(MINSTR*, long, double, double, double&);

// The gradient at x, one parameter after the other. x, crit and indf are as before afterwards.
int difference_gradient(MINSTR* str, Quotient quotient, double base, const double* found)
{
  ++str->ngrd;
  const int purpose = str->indf;
  const double crit = str->crit;
  str->indf = purpose_difference_gradient;
  // Apart from grad, which the objective may write at every call.
  double* const result = str->gtmp;
  std::fill_n(result, str->nvar, 0.0);
  int rc = 0;
  for (long i = 0; i < str->nvar && rc == 0; ++i) {
    if (str->bounds != 0 && str->iabc[i] == 2) continue;
    double g = 0.0;
    if (!quotient(str, i, interval(*str, i, base, found), crit, g)) {
      rc = -2;
    } else if (!(std::abs(g) < 1.7976931348623156e+306)) {
      result[i] = largest;
      rc = -3;
    } else {
      result[i] = g;
    }
  }
  std::copy_n(result, str->nvar, str->grad);
  str->crit = crit;
  str->indf = purpose;
  return rc;
}

} // namespace

int znlpfig(MINSTR* str)
{
  return difference_gradient(str, learning_quotient, forward_base(*str), str->hfwd);
}

int znlpfg2(MINSTR* str)
{
  return difference_gradient(str, central_quotient, central_base(*str), str->hcnt);
}

int znlpfg3(MINSTR* str, double eta)
{
  return difference_gradient(str, forward_quotient, eta > smallest_normal ? eta : 1.110223024625157e-15, nullptr);
}

} // namespace torvale::optimizer
