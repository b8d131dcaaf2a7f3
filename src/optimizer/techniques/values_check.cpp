#include "optimizer/techniques/values_check.h"

#include "optimizer/derivatives/difference_interval.h"
#include "optimizer/derivatives/objective_access.h"

#include "matrix/cholesky.h"
#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::optimizer {
namespace {

using matrix::packed_diagonal;
using matrix::packed_row;

constexpr double infinity = std::numeric_limits<double>::infinity();

class QuadraticModel {
public:
  QuadraticModel(MINSTR* record, double* work)
      : str(record), n(record->nvar), f(record->crit), centre(work), step(work + n), gradient(work + 2 * n),
        inward(work + 3 * n), best(work + 4 * n), scratch(work + 5 * n), hessian(work + 6 * n),
        factor(hessian + packed_row(n)), lowest(f)
  {
    std::copy_n(str->x, n, centre);
  }

  int check(double tolerance)
  {
    along_parameters();
    if (separable_promise() <= tolerance) {
      mixed();
      if (promise() <= tolerance && !(f - lowest > tolerance)) return restore();
    }
    search();
    if (!(lowest < f)) {
      restore();
      return -1;
    }
    std::copy_n(best, n, str->x);
    str->crit = lowest;
    return f - lowest > 0.1 * tolerance ? 1 : -1;
  }

private:
  int restore()
  {
    std::copy_n(centre, n, str->x);
    str->crit = f;
    return 0;
  }

  // f at x; failed points are of infinite height.
  double value()
  {
    const double v = objective_value(str) != 0 ? infinity : str->crit;
    if (v < lowest) {
      lowest = v;
      std::copy_n(str->x, n, best);
    }
    return v;
  }

  double moved(long i, double h)
  {
    str->x[i] = centre[i] + h;
    const double v = value();
    str->x[i] = centre[i];
    return v;
  }

  // Slope and curvature along each parameter. One whose other side lies outside
  // the bounds, or fails, gets a one-sided quotient; what it may not move at
  // all is held (step 0).
  void along_parameters()
  {
    const double base = 1e2 * second_difference_base(*str) * second_difference_base(*str);
    for (long i = 0; i < n; ++i) {
      const double h = std::max(base, 1e-4) * (1.0 + std::abs(centre[i]));
      const double up = inside_bounds(*str, i, h) ? moved(i, h) : infinity;
      const double down = inside_bounds(*str, i, -h) ? moved(i, -h) : infinity;
      double& d = hessian[packed_diagonal(i)];
      step[i] = up < infinity ? h : down < infinity ? -h : 0.0;
      inward[i] = up < infinity ? up : down;
      d = 1.0;
      gradient[i] = 0.0;
      if (up < infinity && down < infinity) {
        gradient[i] = (up - down) / (2.0 * h);
        d = (up - 2.0 * f + down) / (h * h);
      } else if (step[i] != 0.0) {
        const double further = inside_bounds(*str, i, 2.0 * step[i]) ? moved(i, 2.0 * step[i]) : infinity;
        d = further < infinity ? (further - 2.0 * inward[i] + f) / (h * h) : 0.0;
        gradient[i] = (inward[i] - f) / step[i] - 0.5 * d * step[i];
      }
      if (blocked(i, !(up < infinity && down < infinity))) step[i] = gradient[i] = 0.0;
    }
  }

  bool held(long i) const { return step[i] == 0.0; }

  // Downhill lies a bound, or a wall of failing points.
  bool blocked(long i, bool one_sided)
  {
    if (gradient[i] == 0.0) return false;
    const double little = (gradient[i] > 0.0 ? -1e-3 : 1e-3) * std::abs(step[i]);
    if (!inside_bounds(*str, i, little)) return true;
    return little * step[i] < 0.0 && one_sided && moved(i, little) == infinity;
  }

  double separable_promise() const
  {
    double sum = 0.0;
    for (long i = 0; i < n; ++i) {
      const double g = gradient[i], d = hessian[packed_diagonal(i)];
      if (g != 0.0) sum += d > 0.0 ? 0.5 * g * g / d : std::abs(g * step[i]);
    }
    return sum;
  }

  void mixed()
  {
    for (long i = 0; i < n; ++i) {
      for (long j = 0; j < i; ++j) {
        double& element = hessian[packed_row(i) + j];
        element = 0.0;
        if (held(i) || held(j)) continue;
        str->x[j] = centre[j] + step[j];
        const double both = moved(i, step[i]);
        str->x[j] = centre[j];
        if (both < infinity) element = (both - inward[i] - inward[j] + f) / (step[i] * step[j]);
      }
    }
    whole = true;
  }

  // Minus the Newton step into `scratch`, with a ridge relative to each
  // diagonal; returns what it promises, or infinity when the model is not
  // positive definite. A held parameter does not move.
  double newton(double ridge)
  {
    std::copy_n(gradient, n, scratch);
    double sum = 0.0;
    if (!whole) {
      for (long i = 0; i < n; ++i) {
        const double d = std::abs(hessian[packed_diagonal(i)]);
        scratch[i] = d > 0.0 ? gradient[i] / d : 0.0;
        sum += 0.5 * gradient[i] * scratch[i];
      }
      return sum;
    }
    std::copy_n(hessian, packed_row(n), factor);
    for (long i = 0; i < n; ++i) {
      double* const row = factor + packed_row(i);
      if (held(i)) row[i] = 1.0; // the mixed elements are 0
      row[i] += ridge * std::abs(row[i]) + tiny_threshold;
      if (matrix::zchol(static_cast<int>(i), factor, 1e-10 * std::abs(row[i])) != 0) return infinity;
    }
    matrix::zchol2(static_cast<int>(n), factor, scratch);
    for (long i = 0; i < n; ++i) sum += 0.5 * scratch[i] * scratch[i];
    matrix::zbaksub(static_cast<int>(n), factor, scratch);
    return sum;
  }

  double promise() { return newton(1e-6); }

  // The Newton step of the model, ridged until it is definite, cut at the
  // bounds and halved while nothing is gained.
  void search()
  {
    double ridge = 1e-6;
    while (newton(ridge) == infinity && ridge < 1e6) ridge *= 10.0;
    double a = 1.0;
    const double before = lowest;
    for (int halvings = 0; halvings < 12 && !interrupted(*str); ++halvings, a *= 0.4) {
      for (long i = 0; i < n; ++i) {
        const double to = centre[i] - a * scratch[i];
        str->x[i] =
            str->bounds != 0 ? std::clamp(to, std::min(str->lb[i], centre[i]), std::max(str->ub[i], centre[i])) : to;
      }
      if (value() < before) return;
    }
  }

  MINSTR* str;
  long n;
  double f;
  double* centre;   // n
  double* step;     // n: interval with the side that is usable; 0: the parameter is
                    // held
  double* gradient; // n; 0 where held
  double* inward;   // n: f at centre + step
  double* best;     // n: the best point seen
  double* scratch;  // n
  double* hessian;  // packed
  double* factor;   // packed
  double lowest;
  bool whole = false; // the mixed elements are there
};

} // namespace

int confirm_by_values(MINSTR* str, double tolerance, double* work)
{
  return QuadraticModel(str, work).check(tolerance);
}

} // namespace torvale::optimizer
