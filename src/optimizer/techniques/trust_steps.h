#pragma once

#include "optimizer/active_set/active_set.h"
#include "optimizer/derivatives/objective_access.h"
#include "optimizer/techniques/trust_region.h"

#include <algorithm>

namespace torvale::optimizer {

// accept_step: one iteration of a trust region: steps are tried until one is accepted, the radius shrinking after poor
// or failed ones and growing, once a good step is saved, while that pays.
//
//   model.step(may_hold)   computes the step within delt and what is predicted of it; 0; 1 when there is none; 2 when
//   it
//                          would need another constraint to be held and may_hold is false: a saved step belongs to the
//                          constraints that were held when it was made
//   model.vector()         the step, m elements, scaled
//   model.cut(fraction)    the step was cut to the fraction by a constraint: what is predicted then
//   model.save, recall     keep what belongs to the step just made, and bring it back
//   best_point, scratch    n doubles each
//
// Returns 0 with x, crit and the new radius set; or a code, x being then whatever was tried last.
template <class Model>
int accept_step(DGWSTR* state, Model& model, double least_radius, double* best_point, double* scratch)
{
  MINSTR* const str = state->minstr;
  const double entry_radius = str->delt;
  const auto take_saved = [&] {
    std::copy_n(best_point, str->nvar, str->x);
    str->crit = state->clgd;
    str->pred = state->plgd;
    str->delt = state->dsts;
    for (long i = 0; i < str->nvar; ++i) str->sdir[i] = str->x[i] - str->xold[i];
    model.recall();
    return 0;
  };
  for (;;) {
    std::copy_n(str->xold, str->nvar, str->x); // the constraints that the old point touches are meant
    const bool saved = state->rest == 2;
    if (model.step(!saved) != 0) {
      if (saved) return take_saved();
      return free_dimension(*str) == 0 ? code_reenter : code_no_progress;
    }
    state->rad0 = str->delt;
    const int failed = try_trust_step(str, free_dimension(*str), model.vector(), scratch);
    if (interrupted(*str)) return code_objective;
    if (failed == 2) return code_no_progress;
    if (str->stub < 1.0) model.cut(str->stub);
    if (failed == 1) {
      if (saved) return take_saved();
      str->cutf = 1;
      str->delt = 0.1 * std::min(str->delt, state->dstn);
      if (str->delt <= unit_roundoff * entry_radius) return code_objective;
      continue;
    }
    state->rldx = relative_step(*str);
    assess(state);
    if (state->rest == 3) return take_saved();
    // (A step that a constraint has cut may ask for a radius that was there already.)
    const double next = state->radf * state->dstn;
    const bool larger = state->irc == 5 && state->dstn < str->ssin && next > str->delt;
    str->delt = next;
    if (state->irc >= 3 && !larger) return 0;
    if (larger) {
      std::copy_n(str->x, str->nvar, best_point);
      model.save();
    }
    if (!(str->delt > least_radius)) return code_no_progress;
  }
}

} // namespace torvale::optimizer
