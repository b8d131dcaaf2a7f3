#include "optimizer/derivatives/difference_interval.h"

#include "optimizer/derivatives/objective_access.h"
#include "optimizer/optimizer.h"

#include <algorithm>
#include <cmath>

// Selection of the difference intervals (FDINT): P. E. Gill, W. Murray, M. A. Saunders, M. H. Wright, Computing
// forward-difference intervals for numerical optimization, SIAM J. Sci. Stat. Comput. 4 (1983). The interval of the
// second derivative is sought whose cancellation error lies between a thousandth and a tenth; the best forward interval
// follows from it.

namespace torvale::optimizer {
namespace {

double guarded_quotient(double a, double b)
{
  if (a == 0.0) return 0.0;
  const double q = a / b;
  return std::isfinite(q) ? q : std::copysign(largest, a) * (std::signbit(b) ? -1.0 : 1.0);
}

// What one trial interval tells.
struct Estimate {
  double h = 0.0;
  double forward = 0.0;       // (f1 - f) / h
  double central = 0.0;       // second order, from f, f1, f2
  double second = 0.0;        // second derivative
  double forward_error = 0.0; // relative cancellation error of the first differences
  double second_error = 0.0;  // of the second difference
};

bool estimate(MINSTR* str, long j, double h, double f, double noise, Estimate& e)
{
  const double xj = str->x[j];
  str->x[j] = xj + h;
  bool works = objective_value(str) == 0;
  const double f1 = str->crit;
  str->x[j] = xj + 2.0 * h;
  works = works && objective_value(str) == 0;
  const double f2 = str->crit;
  str->x[j] = xj;
  if (!works) return false;
  e.h = h;
  e.forward = guarded_quotient(f1 - f, h);
  const double wide = guarded_quotient(f2 - f, 2.0 * h);
  e.central = guarded_quotient(4.0 * f1 - f2 - 3.0 * f, 2.0 * h);
  e.second = guarded_quotient(f + f2 - 2.0 * f1, h * h);
  e.forward_error =
      noise == 0.0 ? 0.0 : guarded_quotient(noise, 0.5 * std::abs(h) * std::min(std::abs(e.forward), std::abs(wide)));
  e.second_error = noise == 0.0 ? 0.0 : guarded_quotient(noise, 0.25 * std::abs(e.second) * h * h);
  return true;
}

enum class Outcome { found, no_better, constant, odd };

// The search of one parameter. forward and central receive intervals that are not yet divided by 1 + |x|.
Outcome search(MINSTR* str, long j, double level, double f, double& forward, double& central)
{
  const double noise = (1.0 + std::abs(f)) * level;
  const double h0 = 2.0 * (1.0 + std::abs(str->x[j])) * std::sqrt(level);
  const double factor = std::pow(level, -0.16);
  forward = h0;
  central = 10.0 * h0;
  double h = 10.0 * h0;
  if (str->bounds != 0 && str->ub[j] - str->x[j] < str->x[j] - str->lb[j]) h = -h;
  Estimate now, before, fallback;
  bool has_fallback = false;
  int direction = 0; // 1: intervals grow, -1: they shrink
  for (int trial = 0; trial < 4; ++trial) {
    if (!inside_bounds(*str, j, 2.0 * h) || !estimate(str, j, h, f, noise, now)) {
      if (direction == 1) break;
      h /= factor;
      direction = -1;
      continue;
    }
    if (now.forward_error <= 0.1) {
      fallback = now;
      has_fallback = true;
    }
    const bool too_small = now.second_error > 0.1;
    const bool too_large = now.second_error < 0.001;
    bool accept = !too_small && !too_large;
    if (direction == 1 && !too_small) accept = true;
    if (direction == -1 && too_small) {
      now = before.h != 0.0 ? before : now;
      accept = true;
    }
    if (accept) {
      central = std::abs(now.h);
      const double best = guarded_quotient(2.0 * std::sqrt(noise), std::sqrt(std::abs(now.second)));
      const double error = std::max(std::abs(now.forward - now.central), std::abs(now.second) * best);
      if (!(best > 0.0) || !std::isfinite(best) || best > std::abs(now.h)) return Outcome::odd;
      forward = best;
      return error <= 0.5 * std::abs(now.forward) ? Outcome::found : Outcome::odd;
    }
    before = now;
    direction = too_small ? 1 : -1;
    h = too_small ? h * factor : h / factor;
  }
  if (!has_fallback) return Outcome::constant;
  forward = std::abs(fallback.h);
  return direction == 1 ? Outcome::constant : Outcome::no_better;
}

} // namespace

int znlpfdh(MINSTR* str, int job)
{
  const long n = str->nvar;
  std::fill_n(str->hfwd, n, missing);
  std::fill_n(str->hcnt, n, missing);
  std::fill_n(str->ofco, n, static_cast<short>(0));
  if (job != 1 && job != 3) return 0;
  const int purpose = str->indf;
  str->indf = purpose_interval_search;
  if (objective_value(str) != 0) {
    str->indf = purpose;
    return code_objective;
  }
  const double f = str->crit;
  const double level = str->fdig > 0.0 ? std::exp(-2.302585092994046 * str->fdig) : machine_epsilon;
  for (long j = 0; j < n; ++j) {
    if (str->bounds != 0 && str->iabc[j] == 2) continue;
    double forward = 0.0, central = 0.0;
    const Outcome outcome = search(str, j, level, f, forward, central);
    // Intervals are kept relative to 1 + |x|, the way that they are used.
    const double size = 1.0 + std::abs(str->x[j]);
    str->hfwd[j] = outcome == Outcome::found ? forward / size : 2.0 * std::sqrt(level);
    str->hcnt[j] = outcome == Outcome::found || outcome == Outcome::odd ? central / size : 10.0 * str->hfwd[j];
    if (outcome == Outcome::constant) str->ofco[j] = 1;
  }
  str->crit = f;
  str->indf = purpose;
  str->xval_current = false;
  return 0;
}

} // namespace torvale::optimizer
