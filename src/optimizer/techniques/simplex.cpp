#include "optimizer/techniques/technique.h"

#include "optimizer/active_set/active_set.h"
#include "optimizer/derivatives/objective_access.h"
#include "optimizer/techniques/values_check.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::optimizer {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr int most_restarts = 5;
constexpr int most_checks = 10;
constexpr double restart_size = 0.1;
constexpr double worthwhile_gain = 1e-12; // relative; a restart that gains less is the last

// NMSIMP and NMSIM2: the simplex method of J. A. Nelder and R. Mead (A simplex
// method for function minimization, Computer Journal 7, 1965). Trial points are
// clipped to the bounds; a failed evaluation is a vertex of infinite height. A
// simplex that has converged, or collapsed, is built anew around its best
// vertex: only a simplex that finds nothing twice is believed.
class NelderMead {
public:
  NelderMead(MINSTR* record, double reflection_factor)
      : str(record), n(record->nvar), reflection(reflection_factor), vertices(record->wrk2),
        y(record->wrk2 + n * (n + 1)), centroid(y + n + 1), reflected(centroid + n), second(reflected + n)
  {
  }

  int run()
  {
    if (const int rc = begin_technique(str, false); rc != 0) return rc;
    for (long i = 0; i < n; ++i)
      if (str->iabc[i] == 1 || str->iabc[i] == -1) release(str, i);
    m = free_dimension(*str);
    if (m == 0) return test_termination(str, 1);
    int code = build(1.0);
    if (code != 0) return end_technique(str, code);
    publish();
    code = test_termination(str, 10);
    double before = infinity;
    int restarts = most_restarts, checks = most_checks;
    while (true) {
      if (code == 0) code = iteration();
      const double gain = before - y[best];
      const bool may_restart = restarts > 0 && (before == infinity || gain > worthwhile_gain * std::abs(y[best]));
      const bool converged = (code > 0 && code != code_absconv && code != code_reenter) || code == code_no_progress;
      if (code == 0) continue;
      bool again = may_restart;
      if (converged && !may_restart && code > 0) {
        // A simplex that lies flat against bounds, or across a valley, finds
        // nothing and is no minimum.
        const int confirmed = checks > 0 ? confirm_by_values(str, check_tolerance(), second + n) : -1;
        if (interrupted(*str)) code = code_objective;
        if (confirmed < 0 && code > 0) code = code_no_progress;
        again = confirmed > 0;
        --checks;
      }
      if (code == code_reenter) { // the optimality check has moved x to a better point
        code = build(restart_size);
      } else if (converged && again) {
        before = may_restart ? y[best] : infinity;
        restarts = may_restart ? restarts - 1 : 1;
        ++str->ires;
        str->itre = 0;
        code = build(restart_size);
      } else {
        break;
      }
      if (code != 0) break;
      publish();
    }
    return end_technique(str, code);
  }

private:
  double* vertex(long k) { return vertices + k * n; }

  double evaluate(const double* point)
  {
    std::copy_n(point, n, str->x);
    return objective_value(str) != 0 ? infinity : str->crit;
  }

  // What FCONV2 forgives, or FCONV where that is looser.
  double check_tolerance() const { return std::max(str->fto2, str->ftol) * std::max(1.0, std::abs(str->crit)); }

  double inside(long i, double value) const
  {
    return str->bounds == 0 || str->iabc[i] == 2 ? value : std::clamp(value, str->lb[i], str->ub[i]);
  }

  // A simplex around x: vertex k is x moved along one parameter by `size` of
  // its magnitude, to the side that has room. Where the objective fails the
  // other side and smaller moves are tried, then larger ones up to INFSTEP.
  int build(double size)
  {
    std::copy_n(str->x, n, vertex(0));
    y[0] = str->crit;
    for (long j = 0, k = 1; j < m; ++j, ++k) {
      const long i = str->ifxr[j];
      double* const v = vertex(k);
      bool placed = false;
      for (double factor = 1.0; !placed && factor > 1e-9; factor *= 0.1) placed = place(i, factor * size, v, y[k]);
      for (double factor = 10.0; !placed && factor < str->ssin; factor *= 10.0)
        placed = place(i, factor * size, v, y[k]);
      if (interrupted(*str)) return give_back(code_objective);
      if (!placed) return give_back(code_no_progress);
    }
    order();
    return 0;
  }

  bool place(long i, double size, double* v, double& value)
  {
    const double centre = vertex(0)[i];
    const double move = size * std::max(1.0, std::abs(centre));
    for (const double side : {1.0, -1.0}) {
      const double moved = inside(i, centre + side * move);
      // A move cut to less than half by a bound goes to the other side when
      // that has more room.
      const bool short_move = std::abs(moved - centre) < 0.5 * move;
      if (moved == centre ||
          (side > 0.0 && short_move && std::abs(inside(i, centre - move) - centre) > std::abs(moved - centre)))
        continue;
      std::copy_n(vertex(0), n, v);
      v[i] = moved;
      value = evaluate(v);
      if (value < infinity) return true;
      if (interrupted(*str)) return false;
    }
    return false;
  }

  int give_back(int code)
  {
    std::copy_n(vertex(0), n, str->x);
    str->crit = y[0];
    return code;
  }

  // The best, the worst and the second worst vertex, and the centroid of all
  // but the worst.
  void order()
  {
    best = worst = 0;
    for (long k = 1; k <= m; ++k) {
      if (y[k] < y[best]) best = k;
      if (y[k] >= y[worst]) worst = k;
    }
    next_worst = best;
    for (long k = 0; k <= m; ++k)
      if (k != worst && y[k] > y[next_worst]) next_worst = k;
    std::fill_n(centroid, n, 0.0);
    for (long k = 0; k <= m; ++k) {
      if (k == worst) continue;
      for (long i = 0; i < n; ++i) centroid[i] += vertex(k)[i] / static_cast<double>(m);
    }
  }

  // What the termination test compares: f of the best vertex now, of the worst
  // as "before", the spread as prediction.
  void publish()
  {
    std::copy_n(vertex(best), n, str->x);
    std::copy_n(vertex(worst), n, str->xold);
    str->crit = y[best];
    str->cold = y[worst] < infinity ? y[worst] : largest;
    double mean = 0.0, spread = 0.0, size = 0.0;
    for (long k = 0; k <= m; ++k) mean += y[k] / static_cast<double>(m + 1);
    for (long k = 0; k <= m; ++k) spread += (y[k] - mean) * (y[k] - mean);
    for (long k = 0; k <= m; ++k) {
      for (long i = 0; i < n; ++i) {
        const double distance = std::abs(vertex(k)[i] - vertex(best)[i]);
        size = std::max(size, distance / std::max(1.0, std::abs(vertex(best)[i])));
      }
    }
    str->pred = std::isfinite(mean) ? std::sqrt(spread / static_cast<double>(m + 1)) : largest;
    str->alfa = str->delt = str->gmax = size;
  }

  // point := centroid + factor (centroid - worst), clipped.
  double trial(double factor, double* point)
  {
    for (long i = 0; i < n; ++i) point[i] = inside(i, centroid[i] + factor * (centroid[i] - vertex(worst)[i]));
    return evaluate(point);
  }

  void replace_worst(const double* point, double value)
  {
    std::copy_n(point, n, vertex(worst));
    y[worst] = value;
  }

  void shrink()
  {
    for (long k = 0; k <= m; ++k) {
      if (k == best) continue;
      for (long i = 0; i < n; ++i) vertex(k)[i] = 0.5 * (vertex(k)[i] + vertex(best)[i]);
      y[k] = evaluate(vertex(k));
      if (interrupted(*str)) return;
    }
  }

  bool flat() const
  {
    const double tolerance = 1.1e-14 * std::abs(y[best]) + tiny_threshold;
    return y[worst] <= y[best] + tolerance;
  }

  int iteration()
  {
    const double value = trial(reflection, reflected);
    if (value < y[best]) {
      const double further = trial(2.0 * reflection, second);
      if (further < value)
        replace_worst(second, further);
      else
        replace_worst(reflected, value);
    } else if (value <= y[next_worst]) {
      replace_worst(reflected, value);
    } else {
      // Towards the reflected point when that beats the worst, else towards the
      // worst.
      const bool outside = value < y[worst];
      const double contracted = trial(outside ? 0.5 * reflection : -0.5, second);
      if (contracted < (outside ? value : y[worst]))
        replace_worst(second, contracted);
      else
        shrink();
    }
    order();
    str->nitr += 1.0;
    ++str->itre;
    publish();
    const int code = test_termination(str, 1);
    return code == 0 && flat() ? code_no_progress : code;
  }

  MINSTR* str;
  long n;
  long m = 0; // parameters that are not fixed
  double reflection;
  double* vertices; // (n + 1) rows of n
  double* y;        // their values
  double *centroid, *reflected, *second;
  long best = 0, worst = 0, next_worst = 0;
};

} // namespace

int znlpnms(MINSTR* str)
{
  return NelderMead(str, 1.0).run();
}

int znlpnm2(MINSTR* str)
{
  return NelderMead(str, 1.4).run();
}

} // namespace torvale::optimizer
