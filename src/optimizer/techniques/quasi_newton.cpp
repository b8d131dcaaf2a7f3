#include "optimizer/derivatives/objective_access.h"
#include "optimizer/techniques/cycles.h"
#include "optimizer/updates/secant_matrix.h"

#include "matrix/vector_kernels.h"

#include <cmath>

namespace torvale::optimizer {
namespace {

class QuasiNewton {
public:
  QuasiNewton(MINSTR* record, bool dual_form) : str(record), dual(dual_form), secant(record, dual_form) {}

  int start(bool)
  {
    if (const int rc = secant.start(); rc != 0) return rc;
    if (free_dimension(*str) > 0) {
      find_direction();
      str->pred = -slope;
    }
    return 0;
  }

  int iteration()
  {
    remember(str);
    long blocking = -1;
    str->stub = constrained(*str) ? znlpstl(*str, str->xold, str->sdir, &blocking) : largest;
    if (str->stub <= 2.225073858507202e-306) return str->itre > 0 ? restart_cycle : code_no_progress;

    const int failed = str->linse(str);
    if (failed != 0 || str->alfa <= smallest_normal) {
      go_back(str);
      if (interrupted(*str)) return code_objective;
      return str->itre < 1 ? code_no_progress : restart_cycle;
    }
    str->dfes = str->cold - str->crit;
    ++str->itre;
    str->nitr += 1.0;
    if (str->alfa < 0.1) str->scut = cut_search;
    correct_prediction(str, str->alfa * str->alfa * -slope);
    const int settled = settle_constraints(str, str->sdir);
    if (settled < 0) return settled;
    if (const int code = test_termination(str, 1); code != 0) return code;
    if (settled > 0 || static_cast<double>(str->itre) >= str->nres) {
      str->salf = 1.0;
      return restart_cycle;
    }
    if (str->itre >= 5) str->salf = 1.0;
    secant.follow_metric();
    const int updated = secant.update();
    str->null = updated;
    if (updated < 0) return restart_cycle;
    if (free_dimension(*str) == 0) return restart_cycle;
    find_direction();
    str->pred = -slope;
    str->ridg = 0.0;
    return good_direction() ? 0 : restart_cycle;
  }

  // The direction of the free space. Where it runs into a constraint that x touches, the matrix has misled it: a
  // constraint just dropped would come straight back. Steepest descent moves off such a constraint; what still is in
  // its way is held.
  void find_direction()
  {
    secant.direction();
    while (constrained(*str) && touching(*str, str->sdir)) {
      if (!secant.is_start()) {
        secant.start_anew();
        str->itre = 0;
      } else {
        if (znlpact(str, str->sdir) == 0) break;
        znlpgmx(str);
        if (free_dimension(*str) == 0) break;
        if (!secant.project()) secant.start_anew();
      }
      secant.direction();
    }
    slope = znlpgs(*str, str->grad, str->sdir);
  }

  bool good_direction() const
  {
    if (!(slope <= -smallest_normal) || !(matrix::zvenorm(str->nvar, 1, str->sdir) > 0.0)) return false;
    const double limit = std::abs(str->dfes) <= 1e-6 * std::abs(str->cold) ? 1e-4 : 1e-8;
    // After fifty updates a very flat slope hints at a matrix that has gone bad.
    if (str->itre < 51) return true;
    return dual ? std::sqrt(std::abs(slope)) > limit : limit * str->gmax * str->gmax < str->pred;
  }

  MINSTR* str;
  bool dual;
  SecantMatrix secant;
  double slope = 0.0;
};

} // namespace

int znlpdqn(MINSTR* str)
{
  QuasiNewton technique(str, true);
  return run_cycles(str, technique);
}
int znlpqun(MINSTR* str)
{
  QuasiNewton technique(str, false);
  return run_cycles(str, technique);
}

} // namespace torvale::optimizer
