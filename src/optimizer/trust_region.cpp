#include "optimizer/trust_region.h"

#include "optimizer/active_set.h"
#include "optimizer/objective_access.h"
#include "optimizer/technique.h"
#include "optimizer/updates.h"

#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

using matrix::packed_row;

// TRUREG: the exact Hessian under a bound on the step.
class TrustRegion {
public:
  explicit TrustRegion(MINSTR* record)
      : str(record), step(record->wrk2), best_point(record->wrk2 + record->nvar), g(record->wrk2 + 2 * record->nvar),
        work(record->wrk2 + 3 * record->nvar), scratch(record->wrk2 + 5 * record->nvar)
  {
    state.minstr = record;
  }

  int run()
  {
    if (const int rc = begin_technique(str, true); rc != 0) return rc;
    str->delt = 0.0;
    for (bool first = true;; first = false) {
      begin_cycle(str);
      if (constrained(*str)) znlpdac(str);
      if (const int code = form_model(first); code != 0) return code;
      if (str->delt == 0.0) str->delt = first_radius();
      int code = 0;
      const bool all_held = free_dimension(*str) == 0;
      if (first || all_held) code = test_termination(str, all_held ? 1 : 10);
      while (code == 0) code = iteration();
      if (code != code_reenter) code = end_technique(str, code);
      if (code != code_reenter) return code;
    }
  }

private:
  double first_radius()
  {
    for (long j = 0; j < free_dimension(*str); ++j) scratch[j] = str->gpro[j] / free_scale(*str, j);
    return std::max(str->salf * matrix::zvenorm(free_dimension(*str), 1, scratch), 1e-3);
  }

  // Hessian and gradient of the free space, scaled.
  int form_model(bool first)
  {
    if (objective_hessian(str) != 0) return first ? code_start_derivative : code_hessian;
    refresh_scale(str, str->hess, first);
    project_model();
    return 0;
  }

  void project_model()
  {
    znlpgmx(str);
    const long m = free_dimension(*str);
    // A copy, because the objective may write its own Hessian at every trial point.
    model = str->hpro;
    if (constrained(*str))
      znlpsym(*str, str->hess, model, scratch);
    else
      std::copy_n(str->hess, matrix::packed_size(m), model);
    for (long i = 0; i < m; ++i) {
      const double scale = free_scale(*str, i);
      g[i] = str->gpro[i] / scale;
      if (scale == 1.0 && str->hesc == 0) continue;
      double* const row = model + packed_row(i);
      for (long j = 0; j <= i; ++j) row[j] /= scale * free_scale(*str, j);
    }
  }

  // A step that runs at once into a constraint that x touches: near a constraint just dropped a smaller radius turns
  // the step towards steepest descent, which moves off it; any other constraint is held.
  int free_step()
  {
    for (int cuts = 0;; ++cuts) {
      const long m = free_dimension(*str);
      if (m == 0) return 1;
      if (gqtstp(&state, m, model, g, step, str->half, work) != 0) return 1;
      if (!constrained(*str)) return 0;
      for (long j = 0; j < m; ++j) scratch[j] = step[j] / free_scale(*str, j);
      znlpvex(*str, scratch, str->sdir);
      if (!touching(*str, str->sdir)) return 0;
      if (str->chac < 0 && cuts < 8) {
        str->delt = 0.1 * state.dstn;
        continue;
      }
      if (znlpact(str, str->sdir) == 0) return 0;
      project_model();
      state.kagqt = -1;
    }
  }

  // The true prediction of a step cut to the fraction stub.
  void account_for_cut()
  {
    if (str->stub >= 1.0) return;
    const double s = str->stub;
    const double curvature = -2.0 * (str->pred + state.gtst); // p'Hp
    str->pred = -(s * state.gtst + 0.5 * s * s * curvature);
    state.gtst *= s;
    state.dstn *= s;
  }

  int iteration()
  {
    remember(str);
    str->cutf = 0;
    begin_decision(&state);
    state.kagqt = -1;
    const double entry_radius = str->delt;
    if (!(str->delt >= root_smallest)) return code_no_progress;
    const int code = accepted_step(entry_radius);
    if (code != 0) return code;

    str->nitr += 1.0;
    ++str->itre;
    str->alfa = state.dstn;
    if (str->lamb > 0.0) str->scut = cut_radius;
    if (objective_gradient(str) != 0) return code_gradient;
    const int settled = settle_constraints(str, str->sdir);
    if (settled < 0) return settled;
    if (const int rc = test_termination(str, 1); rc != 0) return rc;
    return form_model(false);
  }

  // Steps until one is accepted; x, crit and the new radius are then set. Returns 0 or a code with x back at the old
  // point.
  int accepted_step(double entry_radius)
  {
    for (;;) {
      std::copy_n(str->xold, str->nvar, str->x); // the constraints that the old point touches are meant
      if (free_step() != 0) return give_up(free_dimension(*str) == 0 ? code_reenter : code_no_progress);
      state.rad0 = str->delt;
      const int failed = try_trust_step(str, free_dimension(*str), step, scratch);
      if (interrupted(*str)) return give_up(code_objective);
      if (failed == 2) return give_up(code_no_progress);
      account_for_cut();
      if (failed == 1 && state.rest == 2) {
        state.radf = 1.0;
        return take_saved();
      }
      if (failed == 1) {
        str->cutf = 1;
        str->delt = 0.1 * std::min(str->delt, state.dstn);
        if (str->delt <= unit_roundoff * entry_radius) return give_up(code_objective);
        continue;
      }
      state.rldx = relative_step(*str);
      assess(&state);
      if (state.rest == 3) return take_saved();
      if (state.irc == 3 || state.irc == 4 || (state.irc == 5 && state.dstn >= str->ssin)) {
        str->delt = state.radf * state.dstn;
        return 0;
      }
      if (state.irc == 5) std::copy_n(str->x, str->nvar, best_point);
      str->delt = state.radf * state.dstn;
      if (!(str->delt >= 1.4916681469999999e-151)) return give_up(code_no_progress);
    }
  }

  int take_saved()
  {
    std::copy_n(best_point, str->nvar, str->x);
    str->crit = state.clgd;
    str->pred = state.plgd;
    str->delt = state.dsts;
    for (long i = 0; i < str->nvar; ++i) str->sdir[i] = str->x[i] - str->xold[i];
    return 0;
  }

  int give_up(int code)
  {
    go_back(str);
    return code;
  }

  MINSTR* str;
  DGWSTR state;
  double* model = nullptr; // packed Hessian of the free space, scaled
  double* step;            // m, scaled
  double* best_point;      // n
  double* g;               // m, scaled gradient
  double* work;            // 2m
  double* scratch;         // n
};

} // namespace

int znlptre(MINSTR* str)
{
  return TrustRegion(str).run();
}

} // namespace torvale::optimizer
