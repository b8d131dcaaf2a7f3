#include "optimizer/derivatives/difference_interval.h"
#include "optimizer/derivatives/objective_access.h"
#include "optimizer/optimizer.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

long packed_row(long i)
{
  return i * (i + 1) / 2;
}

// Saves what a Hessian must leave untouched, and gives it back.
class KeepPoint {
public:
  KeepPoint(MINSTR* record, CallPurpose purpose) : str(record), crit(record->crit), indf(record->indf)
  {
    ++str->nhes;
    str->indf = purpose;
    std::copy_n(str->grad, str->nvar, gradient());
  }
  ~KeepPoint()
  {
    str->crit = crit;
    str->indf = indf;
    std::copy_n(gradient(), str->nvar, str->grad);
  }
  KeepPoint(const KeepPoint&) = delete;
  KeepPoint& operator=(const KeepPoint&) = delete;
  double value() const { return crit; }
  double* gradient() const { return str->wfid + str->mequ; }

private:
  MINSTR* str;
  double crit;
  int indf;
};

// The interval (1 + |x|) base knows nothing of a parameter whose natural unit is 1e-9. What tells is the change of the
// objective that the curvature d makes over h, d h^2 / 2, relative to 1 + |f|: too large, and the third derivative
// spoils the quotient; too small, and rounding does. resized: h brought to `target` when the change lies outside [low,
// high] times it.
double resized(double h, double d, double f, double target, double low, double high)
{
  const double change = 0.5 * std::abs(d) * h * h / (1.0 + std::abs(f));
  if (change >= low * target && change <= high * target) return h;
  return change > 0.0 ? h * std::clamp(std::sqrt(target / change), 1e-8, 100.0) : 100.0 * h;
}

constexpr int most_resizes = 6;

// f(x + a e_i + b e_j) - f(x); fails beside the bounds too, so that callers need one test.
bool change(MINSTR* str, long i, double a, long j, double b, double base_value, double& result)
{
  if (!inside_bounds(*str, i, a) || (i != j && !inside_bounds(*str, j, b))) return false;
  const double xi = str->x[i];
  const double xj = str->x[j];
  str->x[i] += a;
  if (i != j) str->x[j] += b;
  const bool failed = objective_value(str) != 0;
  str->x[i] = xi;
  str->x[j] = xj;
  result = str->crit - base_value;
  return !failed;
}

// Second derivative along e_i from values. five: the five-point formula, error of order h^4. Beside a bound or a
// failing half space the one-sided formula (-5 f1 + 4 f2 - f3 + 2 f0) / h^2 keeps the second order. h becomes the
// interval used, with the sign of the usable side when there is only one; both tells whether both sides can be used.
bool second_difference(MINSTR* str, long i, bool five, double f, double& h, bool& both, double& result)
{
  for (h = std::abs(h); h > least_interval(str->x[i]) && str->stop == 0; h *= 0.5) {
    double p1 = 0, m1 = 0, p2 = 0, m2 = 0, p3 = 0;
    const bool up = change(str, i, h, i, 0.0, f, p1);
    const bool down = change(str, i, -h, i, 0.0, f, m1);
    both = up && down;
    if (both) {
      result = (p1 + m1) / (h * h);
      if (five && change(str, i, 2 * h, i, 0.0, f, p2) && change(str, i, -2 * h, i, 0.0, f, m2))
        result = (16.0 * (p1 + m1) - p2 - m2) / (12.0 * h * h);
      return true;
    }
    if (!up && !down) continue;
    const double step = up ? h : -h;
    const double one = up ? p1 : m1;
    if (!change(str, i, 2 * step, i, 0.0, f, p2) || !change(str, i, 3 * step, i, 0.0, f, p3)) continue;
    result = (4.0 * p2 - 5.0 * one - p3) / (h * h);
    h = step;
    return true;
  }
  return false;
}

// Mixed derivative from values: four points when both parameters have both sides, else one corner on the usable sides.
bool mixed_difference(MINSTR* str, long i, double hi, long j, double hj, bool both, double f, double& result)
{
  for (int halvings = 0; halvings < 40 && str->stop == 0; ++halvings, hi *= 0.5, hj *= 0.5) {
    double pp = 0, mm = 0, pm = 0, mp = 0;
    if (both && change(str, i, hi, j, hj, f, pp) && change(str, i, -hi, j, -hj, f, mm) &&
        change(str, i, hi, j, -hj, f, pm) && change(str, i, -hi, j, hj, f, mp)) {
      result = ((pp - pm) - (mp - mm)) / (4.0 * hi * hj);
      return true;
    }
    double ii = 0, jj = 0;
    if (change(str, i, hi, j, hj, f, pp) && change(str, i, hi, i, 0.0, f, ii) && change(str, j, hj, j, 0.0, f, jj)) {
      result = (pp - ii - jj) / (hi * hj);
      return true;
    }
  }
  return false;
}

int hessian_from_values(MINSTR* str, bool five)
{
  if (provide_hessian(str) != 0) return -11;
  const long n = str->nvar;
  const KeepPoint keep(str, purpose_hessian_by_values);
  const double f = keep.value();
  const double base = second_difference_base(*str);
  double* const step = str->gtmp;
  double* const both_sides = str->xtmp;
  for (long i = 0; i < n; ++i) {
    bool both = true;
    double& h = step[i];
    double& d = str->hess[packed_row(i) + i];
    h = interval(*str, i, base, nullptr);
    std::fill_n(str->hess + packed_row(i), i + 1, 0.0);
    if (str->bounds != 0 && str->iabc[i] == 2) continue;
    const double longest = 0.01 * (1.0 + std::abs(str->x[i]));
    for (int resizes = 0;; ++resizes) {
      if (!second_difference(str, i, five, f, h, both, d)) return -11;
      const double better = std::min(resized(std::abs(h), d, f, base * base, 1e-4, 100.0), longest);
      if (better == std::abs(h) || resizes == most_resizes) break;
      h = better;
    }
    both_sides[i] = both ? 1.0 : 0.0;
  }
  if (str->hfrm == 2) return 0;
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j < i; ++j) {
      if (str->bounds != 0 && (str->iabc[i] == 2 || str->iabc[j] == 2)) continue;
      const bool both = both_sides[i] != 0.0 && both_sides[j] != 0.0;
      if (!mixed_difference(str, i, step[i], j, step[j], both, f, str->hess[packed_row(i) + j])) return -11;
    }
  }
  return 0;
}

// Gradient at x + h e_i into grad.
bool moved_gradient(MINSTR* str, long i, double h)
{
  if (!inside_bounds(*str, i, h)) return false;
  const double xi = str->x[i];
  str->x[i] = xi + h;
  const bool failed = objective_value(str) != 0 || objective_gradient(str) != 0;
  str->x[i] = xi;
  return !failed;
}

// Derivative of the gradient along e_i into result, g0 the gradient at x. central: both sides, or beside a bound the
// one-sided formula of the same order.
bool gradient_difference(MINSTR* str, long i, double& h, bool central, const double* g0, double* result)
{
  const long n = str->nvar;
  h = fit_interval(*str, i, std::abs(h), 1.0);
  for (; std::abs(h) > least_interval(str->x[i]) && str->stop == 0; h *= 0.5) {
    double step = h;
    bool first = moved_gradient(str, i, step);
    if (!first) {
      step = -h;
      first = moved_gradient(str, i, step);
    }
    if (!first) continue;
    if (!central) {
      for (long j = 0; j < n; ++j) result[j] = (str->grad[j] - g0[j]) / step;
      return true;
    }
    std::copy_n(str->grad, n, result);
    if (moved_gradient(str, i, -step)) {
      for (long j = 0; j < n; ++j) result[j] = (result[j] - str->grad[j]) / (2.0 * step);
      return true;
    }
    if (moved_gradient(str, i, 2.0 * step)) {
      for (long j = 0; j < n; ++j) result[j] = (4.0 * (result[j] - g0[j]) - (str->grad[j] - g0[j])) / (2.0 * step);
      return true;
    }
  }
  return false;
}

// Each off-diagonal element is the mean of its two estimates, from row i and from row j; the diagonal has one.
int hessian_from_gradients(MINSTR* str, bool central)
{
  if (provide_hessian(str) != 0) return -11;
  const long n = str->nvar;
  const KeepPoint keep(str, purpose_hessian_by_gradients);
  const double base = central ? central_base(*str) : forward_base(*str);
  std::fill_n(str->hess, packed_row(n), 0.0);
  double* const column = str->gtmp;
  for (long i = 0; i < n; ++i) {
    if (str->bounds != 0 && str->iabc[i] == 2) continue;
    // A gradient is as good as the machine: only an interval that is too long is changed. The one-sided quotient has an
    // error of order h, the central one of order h^2, hence the different targets.
    double h = interval(*str, i, base, nullptr);
    for (int resizes = 0;; ++resizes) {
      if (!gradient_difference(str, i, h, central, keep.gradient(), column)) return -11;
      const double better = resized(std::abs(h), column[i], keep.value(), central ? 1e-8 : 1e-11, 0.0, 10.0);
      if (better == std::abs(h) || resizes == most_resizes) break;
      h = better;
    }
    for (long j = 0; j < n; ++j) {
      if (str->bounds != 0 && str->iabc[j] == 2) continue;
      if (str->hfrm == 2 && i != j) continue;
      str->hess[i >= j ? packed_row(i) + j : packed_row(j) + i] += i == j ? column[j] : 0.5 * column[j];
    }
  }
  return 0;
}

} // namespace

int znlpfih(MINSTR* str)
{
  return hessian_from_values(str, false);
}
int znlpfh2(MINSTR* str)
{
  return hessian_from_values(str, true);
}
int znlpfh3(MINSTR* str)
{
  return hessian_from_gradients(str, false);
}
int znlpfh4(MINSTR* str)
{
  return hessian_from_gradients(str, true);
}

} // namespace torvale::optimizer
