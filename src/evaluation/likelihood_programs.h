#pragma once
// The programs of a model: which derivatives it needs, and one specialised program per set of outputs.

#include "model/run_record.h"

namespace torvale::evaluation {

// Whether the likelihood is differentiated by the parameters: not under FD, unless EMPIRICAL asks for the subjects'
// gradients or what is estimated of the effects follows from derivatives (support points; importance samples; first
// order).
inline bool needs_gradient(const model::NX& n)
{
  return n.fd == 0 || n.empirical || (n.wants_effects && (n.method >= 3 || (n.method == 1 && !n.lb)));
}

// build_programs: the derivative requests of the likelihood. Call after llsym, prsym, depsym, repsym and each REFFECT's
// ransym, distrsym, prsym (parameters, then its random effects), nr, nrs, npr are set, and before cmpgen. Completes the
// flags needhessu, needcrossu, needtriu from method, adaptive, adscale and needs_gradient (a flag that the caller has
// set stays set) and fills gradstr, hessustr, triustr, gradrstr with what they ask for; nothing more is differentiated.
// Returns 0; 3000 after message 503/9330 (more than 64 effects) or 503/10 (a
// random effect that the likelihood does not depend on); 1012 when a derivative is refused (the engine's diagnostics
// say why) or after message 503/303 (a distribution argument depends on a random effect).
int build_programs(model::NX& n);

// specialise_programs: after cmpgen. Fills n.programs (value programs always, the others as the flags ask),
// pass_program with pass_kind. Returns 0 or 1012.
int specialise_programs(model::NX& n);

// Abilities: what a model can evaluate with the programs that were built. Whoever wants an evaluation asks first.
struct Abilities {
  bool value = false;     // the objective
  bool gradient = false;  // its derivatives by the parameters, and each outermost subject's
  bool modes = false;     // modes of the random effects, and the curvature by the effects there
  bool curvature = false; // and the derivatives of the modes and of that curvature by the parameters
};
Abilities can_evaluate(const model::NX& n);

// specialise_single_point: ModelPrograms::closing_point, for quadrature with one point at the mode; at its first call.
void specialise_single_point(model::NX& n);
// specialise_totals: the programs of terms and totals of what a fit evaluates, where these are less work for subjects
// of so many records; at its first call. That number is of the model, not of the data: a subject's sums are the same
// whichever other subjects there are.
inline constexpr double usual_records = 5.0;
void specialise_totals(model::NX& n, double records = usual_records);

} // namespace torvale::evaluation
