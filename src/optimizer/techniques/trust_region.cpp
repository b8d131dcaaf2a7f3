#include "optimizer/techniques/cycles.h"
#include "optimizer/techniques/trust_steps.h"
#include "optimizer/updates/updates.h"

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
      : str(record), p(record->wrk2), best_point(record->wrk2 + record->nvar), g(record->wrk2 + 2 * record->nvar),
        work(record->wrk2 + 3 * record->nvar), scratch(record->wrk2 + 5 * record->nvar)
  {
    state.minstr = record;
  }

  int start(bool first)
  {
    if (first) str->delt = 0.0;
    if (const int code = form_model(first); code != 0) return code;
    if (str->delt == 0.0) str->delt = first_radius();
    return 0;
  }

  int iteration()
  {
    remember(str);
    str->cutf = 0;
    begin_decision(&state);
    state.kagqt = -1;
    if (!(str->delt >= root_smallest)) return code_no_progress;
    if (const int code = accept_step(&state, *this, least_radius, best_point, scratch); code != 0) {
      go_back(str);
      return code;
    }
    str->nitr += 1.0;
    ++str->itre;
    str->alfa = state.dstn;
    if (str->lamb > 0.0) str->scut = cut_radius;
    // GCONV asks what the full step would gain, whatever cut this one.
    if (str->lamb > 0.0 || str->stub < 1.0)
      str->pred = newton_reduction(state, free_dimension(*str), model, g, str->half, work);
    if (objective_gradient(str) != 0) return code_gradient;
    const int settled = settle_constraints(str, str->sdir);
    if (settled < 0) return settled;
    if (const int rc = test_termination(str, 1); rc != 0) return rc;
    return form_model(false);
  }

  // What accept_step asks for.
  // A step that runs at once into a constraint that x touches: near a constraint just dropped a smaller radius turns
  // the step towards steepest descent, which moves off it; any other constraint is held.
  int step(bool may_hold)
  {
    for (int cuts = 0;; ++cuts) {
      const long m = free_dimension(*str);
      if (m == 0) return 1;
      if (gqtstp(&state, m, model, g, p, str->half, work) != 0) return 1;
      if (!constrained(*str)) return 0;
      for (long j = 0; j < m; ++j) scratch[j] = p[j] / free_scale(*str, j);
      znlpvex(*str, scratch, str->sdir);
      if (!touching(*str, str->sdir)) return 0;
      if (str->chac < 0 && cuts < 8) {
        str->delt = 0.1 * state.dstn;
        continue;
      }
      // A step that has been saved belongs to the constraints that were held then.
      if (!may_hold) return 2;
      if (znlpact(str, str->sdir) == 0) return 0;
      project_model();
      state.kagqt = -1;
    }
  }
  const double* vector() const { return p; }

  // The true prediction of a step cut to the fraction.
  void cut(double fraction)
  {
    const double curvature = -2.0 * (str->pred + state.gtst); // p'Hp
    str->pred = -(fraction * state.gtst + 0.5 * fraction * fraction * curvature);
    state.gtst *= fraction;
    state.dstn *= fraction;
  }
  void save() {}
  void recall() {}

private:
  static constexpr double least_radius = 1.4916681469999999e-151;

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

  MINSTR* str;
  DGWSTR state;
  double* model = nullptr; // packed Hessian of the free space, scaled
  double* p;               // m, the step, scaled
  double* best_point;      // n
  double* g;               // m, scaled gradient
  double* work;            // 2m
  double* scratch;         // n
};

} // namespace

int znlptre(MINSTR* str)
{
  TrustRegion technique(str);
  return run_cycles(str, technique);
}

} // namespace torvale::optimizer
