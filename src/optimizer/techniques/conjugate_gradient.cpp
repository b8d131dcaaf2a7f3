#include "optimizer/derivatives/objective_access.h"
#include "optimizer/line_search/line_search.h"
#include "optimizer/techniques/cycles.h"

#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

using matrix::zvdot11;

constexpr double least_divisor = 1.491668147e-150;

// CONGRA: no matrix, four rules for the coefficient of the old direction. In the free space of m dimensions, with g the
// new gradient, h the old one, d the old direction and y = g - h.
class ConjugateGradient {
public:
  explicit ConjugateGradient(MINSTR* record)
      : str(record), n(record->nvar), g(record->wrk2), h(record->wrk2 + n), d(record->wrk2 + 2 * n),
        restart_d(record->wrk2 + 3 * n), restart_y(record->wrk2 + 4 * n)
  {
  }

  int start(bool first)
  {
    if (first && str->tupd == 1)
      str->nres = 2147483647.0;
    else if (first && !(str->nres > 0.0))
      str->nres = std::max(10.0 * static_cast<double>(n), 80.0);
    last_alfa = 0.0;
    have_restart_vector = false;
    steepest_descent();
    return 0;
  }

  int iteration()
  {
    remember(str);
    long blocking = -1;
    str->stub = constrained(*str) ? znlpstl(*str, str->xold, str->sdir, &blocking) : largest;
    if (str->stub <= 2.225073858507202e-306) return str->itre > 0 ? restart_cycle : code_no_progress;
    // A conjugate direction has no natural length. The last step, corrected for the slopes, is a far better first trial
    // for the rules without a memory of y; the others are measured to do better with the decrease.
    const bool scaled = (str->tupd == 2 || str->tupd == 4) && str->itre > 0 && last_alfa > 0.0;
    str->trial = scaled ? last_alfa * last_slope / slope : 0.0;
    const int failed = str->linse(str);
    if (failed != 0 || str->alfa <= smallest_normal) {
      go_back(str);
      if (interrupted(*str)) return code_objective;
      return str->itre < 1 ? code_no_progress : restart_cycle;
    }
    str->dfes = str->cold - str->crit;
    last_alfa = str->alfa;
    last_slope = slope;
    ++str->itre;
    str->nitr += 1.0;
    znlpvre(*str, str->gold, h); // before the active set may change
    const long m = free_dimension(*str);
    const int settled = settle_constraints(str, str->sdir);
    if (settled < 0) return settled;
    estimate_reduction();
    if (const int code = test_termination(str, 1); code != 0) return code;
    // The rules want a step that ended near the minimum along d in the space of the next one.
    if (settled > 0 || str->chac != 0 || str->scut != cut_none || free_dimension(*str) != m) return restart_cycle;
    if (static_cast<double>(str->itre) >= str->nres) {
      str->salf = 1.0;
      return restart_cycle;
    }
    if (str->itre >= 5) str->salf = 1.0;
    return next_direction(m) ? 0 : restart_cycle;
  }

private:
  void steepest_descent()
  {
    for (;;) {
      const long m = free_dimension(*str);
      for (long i = 0; i < m; ++i) d[i] = -str->gpro[i];
      znlpvex(*str, d, str->sdir);
      if (!constrained(*str) || m == 0 || !touching(*str, str->sdir) || znlpact(str, str->sdir) == 0) break;
      znlpgmx(str);
    }
    slope = znlpgs(*str, str->grad, str->sdir);
    str->pred = -slope;
  }

  // GCONV compares the predicted reduction. Without a matrix there are two estimates, and each alone is fooled by some
  // problem: minus the old slope, and the secant estimate of g'B^-1 g, (g'g)|s|/|y|. The larger counts.
  void estimate_reduction()
  {
    double gg = 0.0, ss = 0.0, yy = 0.0;
    for (long i = 0; i < n; ++i) {
      const double s = str->x[i] - str->xold[i], y = str->grad[i] - str->gold[i];
      ss += s * s;
      yy += y * y;
    }
    gg = zvdot11(str->gpro, str->gpro, free_dimension(*str));
    const double secant = yy > 0.0 ? gg * std::sqrt(ss / yy) : largest;
    str->gcri = std::max(-slope, secant);
  }

  // The rule, then the tests of the direction that it gives.
  bool next_direction(long m)
  {
    std::copy_n(str->gpro, m, g);
    const bool formed = str->tupd == 1 ? powrest(m) : two_term_rule(m);
    if (!formed) return false;
    ++str->nhup;
    znlpvex(*str, d, str->sdir);
    slope = znlpgs(*str, str->grad, str->sdir);
    str->pred = -slope;
    const double limit = std::abs(str->dfes) <= 1e-6 * std::abs(str->cold) ? 1e-4 : 1e-8;
    return slope <= -smallest_normal && limit * str->gmax * str->gmax < str->pred;
  }

  // fleree: g'g / h'h. polrib: g'y / h'h, not below 0. condes: -g'g / d'h.
  bool two_term_rule(long m)
  {
    double beta = 0.0;
    const double gg = zvdot11(g, g, m), hh = zvdot11(h, h, m);
    if (str->tupd == 2) {
      if (hh <= least_divisor) return false;
      beta = gg / hh;
    } else if (str->tupd == 3) {
      if (hh <= tiny_threshold) return false;
      beta = std::max(0.0, (gg - zvdot11(g, h, m)) / hh);
    } else {
      const double dh = zvdot11(d, h, m); // negative: d was a descent direction
      if (std::abs(dh) <= least_divisor) return false;
      beta = -gg / dh;
    }
    for (long i = 0; i < m; ++i) d[i] = beta * d[i] - g[i];
    return true;
  }

  // Restart procedure of M. J. D. Powell (Restart procedures for the conjugate gradient method, Mathematical
  // Programming 12, 1977) for Beale's three-term direction
  //     -g + beta d + gamma d_t,   beta = g'y / d'y,   gamma = g'y_t / d_t'y_t,
  // with d_t, y_t of the last restart. A restart follows after m steps, when successive gradients are not nearly
  // orthogonal, or when the new direction is not sufficiently downhill.
  bool powrest(long m)
  {
    const double gg = zvdot11(g, g, m), gh = zvdot11(g, h, m);
    const double dy = zvdot11(d, g, m) - zvdot11(d, h, m);
    if (!(std::abs(gg - gh) * unit_roundoff < std::abs(dy))) return false;
    const double beta = (gg - gh) / dy;
    const bool late = since_restart >= m || std::abs(gh) >= 0.2 * gg;
    if (have_restart_vector && !late) {
      const double gamma = zvdot11(g, restart_y, m) / gden;
      double new_slope = -gg + beta * zvdot11(g, d, m) + gamma * zvdot11(g, restart_d, m);
      if (new_slope >= -1.2 * gg && new_slope <= -0.8 * gg) {
        for (long i = 0; i < m; ++i) d[i] = beta * d[i] + gamma * restart_d[i] - g[i];
        ++since_restart;
        return true;
      }
    }
    // The direction just used becomes the restart direction.
    have_restart_vector = dy > tiny_threshold;
    since_restart = 1;
    gden = dy;
    for (long i = 0; i < m; ++i) {
      restart_d[i] = d[i];
      restart_y[i] = g[i] - h[i];
      d[i] = beta * d[i] - g[i];
    }
    return true;
  }

  MINSTR* str;
  long n;
  double *g, *h, *d;             // m each
  double *restart_d, *restart_y; // m each
  double gden = 1.0;             // d_t'y_t
  double slope = 0.0;
  double last_alfa = 0.0, last_slope = 0.0;
  long since_restart = 0;
  bool have_restart_vector = false;
};

} // namespace

int znlpcog(MINSTR* str)
{
  ConjugateGradient technique(str);
  return run_cycles(str, technique);
}

} // namespace torvale::optimizer
