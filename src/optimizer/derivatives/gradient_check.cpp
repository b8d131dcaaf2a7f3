#include "optimizer/derivatives/gradient_check.h"

#include "optimizer/derivatives/difference_interval.h"
#include "optimizer/derivatives/objective_access.h"
#include "optimizer/messages/messages.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

// A slope by central differences with an estimate of its error.
struct Slope {
  bool known;
  double value;
  double error;
};

// f(x + t d), x restored.
bool value_along(MINSTR* str, const double* d, double t, double& f)
{
  std::copy_n(str->x, str->nvar, str->xtmp);
  for (long i = 0; i < str->nvar; ++i) str->x[i] += t * d[i];
  const bool failed = objective_value(str) != 0;
  f = str->crit;
  std::copy_n(str->xtmp, str->nvar, str->x);
  return !failed;
}

// Two quotients, with h and 2h: their difference is three times the truncation error of the first; rounding of the
// objective adds noise/h.
Slope central_slope(MINSTR* str, const double* d, double h, double f0)
{
  double up = 0, down = 0, up2 = 0, down2 = 0;
  for (int halvings = 0; halvings < 20; ++halvings, h *= 0.5) {
    if (!value_along(str, d, h, up) || !value_along(str, d, -h, down)) continue;
    if (!value_along(str, d, 2 * h, up2) || !value_along(str, d, -2 * h, down2)) continue;
    const double one = (up - down) / (2.0 * h);
    const double two = (up2 - down2) / (4.0 * h);
    const double noise = std::exp(-2.302585092994046 * str->fdig) * (1.0 + std::abs(f0));
    return {true, one, std::abs(one - two) + noise / h};
  }
  return {false, 0.0, 0.0};
}

GradientCheckRow compare(long parameter, double analytic, const Slope& slope)
{
  GradientCheckRow row;
  row.parameter = parameter;
  row.analytic = analytic;
  row.difference = slope.value;
  const double size = std::max({1.0, std::abs(analytic), std::abs(slope.value)});
  row.error = std::abs(analytic - slope.value) / size;
  // Never stricter than five digits: the check is for wrong formulas, not for rounding.
  row.allowed = std::max(1e-5, 3.0 * slope.error / size);
  row.agrees = row.error <= row.allowed;
  return row;
}

} // namespace

int check_gradient(MINSTR* str, bool detail)
{
  const long n = str->nvar;
  const double crit = str->crit;
  const int purpose = str->indf;
  const double base = central_base(*str);
  double* const d = str->gtmp;
  double* const g = str->wfid + str->mequ; // the objective may write grad
  std::copy_n(str->grad, n, g);
  str->indf = purpose_difference_gradient;
  int wrong = 0;
  bool known = true;
  double worst = 0.0;
  const auto take = [&](const GradientCheckRow& row) {
    wrong += row.agrees ? 0 : 1;
    worst = std::max(worst, row.error);
    if (detail && str->check_row != nullptr) str->check_row(str, row);
  };
  std::fill_n(d, n, 0.0);
  if (detail) {
    for (long i = 0; i < n && known; ++i) {
      d[i] = 1.0;
      const Slope slope = central_slope(str, d, interval(*str, i, base, nullptr), crit);
      d[i] = 0.0;
      known = slope.known;
      if (known) take(compare(i, g[i], slope));
    }
  } else if (n > 0) {
    // One direction in which every parameter takes part, by its own scale and with signs that do not cancel a pattern.
    double analytic = 0.0;
    for (long i = 0; i < n; ++i) {
      d[i] = (1.0 + std::abs(str->x[i])) * ((i * i + i) / 2 % 2 == 0 ? 1.0 : -1.0);
      analytic += g[i] * d[i];
    }
    const Slope slope = central_slope(str, d, base, crit);
    known = slope.known;
    if (known) take(compare(-1, analytic, slope));
  }
  std::copy_n(g, n, str->grad);
  str->crit = crit;
  str->indf = purpose;
  if (!known) return -1;
  send_message(str, wrong == 0 ? named("gradient_agrees") : named("gradient_disagrees"),
               wrong == 0 ? severity_note : severity_warning, {static_cast<double>(wrong), worst});
  return wrong;
}

} // namespace torvale::optimizer
