#pragma once

#include "optimizer/dgwstr.h"

namespace torvale::optimizer {

// gqtstp: the step p that minimizes g'p + p'Hp/2 within |p| <= delt, by the method of Goldfeld, Quandt and Trotter in
// the form of J. J. More and D. C. Sorensen, Computing a trust region step, SIAM J. Sci. Stat. Comput. 4 (1983).
//
//   state   kagqt negative: first call for this H (Gerschgorin bounds are formed); later calls with a smaller radius
//   use
//           what is known of the Levenberg parameter. Sets dst0, dstn, gtst, nred; delt, pred and lamb of the problem.
//   m       order
//   h       packed H; factor receives the factor of H + lamb I
//   p       the step; work: 2m doubles
//
// Returns 0; or 1 when no factor was found (H or g not finite).
int gqtstp(DGWSTR* state, long m, const double* h, const double* g, double* p, double* factor, double* work);

// newton_reduction: what the full Newton step on h promises, g'H^-1 g / 2: known already when gqtstp has tried it. The
// largest double where h is not positive definite. factor is destroyed, work is m doubles.
double newton_reduction(const DGWSTR& state, long m, const double* h, const double* g, double* factor, double* work);

// assess: decides on the step from cold to crit with the prediction pred and the slope gtst, after the decision routine
// of J. E. Dennis, D. M. Gay and R. E. Welsch, An adaptive nonlinear least-squares algorithm, ACM TOMS 7 (1981). Sets
// irc: 3, 4 accept; 5 with rinc > 0 try a larger radius (this step is worth saving); 1 shrink; and radf, the factor
// that the length of the step is multiplied by for the next radius. rest 3: go back to the saved step.
void assess(DGWSTR* state);

// begin_decision: the state of assess before the first step of an iteration.
void begin_decision(DGWSTR* state);

// relative_step: the largest relative change of a parameter from xold to x.
double relative_step(const MINSTR& str);

// Steps of a trust-region technique in the free space, the scaling and the constraints between. Used by both
// techniques.

// refresh_scale: dsca from the diagonal of the (approximate) Hessian as HESCAL asks; ones without it.
void refresh_scale(MINSTR* str, const double* hess, bool first);

// free_scale: the scale of element j of the free space.
inline double free_scale(const MINSTR& str, long j)
{
  return str.hesc == 0 || str.opro != 0 ? 1.0 : str.dsca[str.ifxr[j]];
}

// try_trust_step: x = xold + Z D^-1 p cut at the constraints (stub), objective there. Returns 0, or 1 when the
// evaluation failed, or 2 when x would not change.
int try_trust_step(MINSTR* str, long m, const double* p, double* scratch);

} // namespace torvale::optimizer
