#pragma once

#include "optimizer/minstr.h"

namespace torvale::optimizer {

// The techniques. Each minimizes from x and returns a termination code with x, crit and grad at the point where it
// stopped.
int znlptre(MINSTR* str); // TRUREG: trust region on the Hessian
int znlpnra(MINSTR* str); // NEWRAP: Newton-Raphson with line search
int znlpnrr(MINSTR* str); // NRRIDG: Newton-Raphson with an adaptive ridge
int znlpddl(MINSTR* str); // DBLDOG: double dogleg on a quasi-Newton factor
int znlpqun(MINSTR* str); // QUANEW: quasi-Newton on the inverse Hessian
int znlpdqn(MINSTR* str); // DUQUAN: quasi-Newton on a factor of the Hessian
int znlpcog(MINSTR* str); // CONGRA: conjugate gradients
int znlpnms(MINSTR* str); // NMSIMP: Nelder-Mead
int znlpnm2(MINSTR* str); // NMSIM2: Nelder-Mead, second variant

// ---- What the techniques share (technique.cpp). -------------------------------------------------------------------

// begin_technique: clears counters and state, makes sure that crit and grad belong to x, and puts the active set in
// order. Returns 0, -1 (objective failed) or -2 (gradient failed). with_gradient false leaves the gradient alone.
int begin_technique(MINSTR* str, bool with_gradient);

// begin_cycle: what every start section does: itre 0, a restart counted, salf offered as the first step.
void begin_cycle(MINSTR* str);

// test_termination: what `uster` says of the job, asked in the caller's units.
int test_termination(MINSTR* str, int job);

// end_technique: asks the termination routine once more with a negative code, which may name the criterion whose
// pass count was not reached. Positive codes pass. Returns the final code or 100.
int end_technique(MINSTR* str, int code);

// remember: xold, gold, cold := x, grad, crit, at the beginning of an iteration. go_back: the reverse.
void remember(MINSTR* str);
void go_back(MINSTR* str);

// settle_constraints: after an accepted step along d: tells what cut it (scut), repairs a point that has drifted off
// its constraints, holds those that the step has run into, drops those whose multipliers have the wrong sign, and
// leaves gpro and gmax current. Returns 0, 1 when the point was repaired (a technique starts anew from it), or -6 when
// it could not be.
int settle_constraints(MINSTR* str, const double* d);

// correct_prediction: raises pred by what the step from xold to x has shown of the metric: where the curvature along it
// was less than the metric's own (`modelled`, s'Bs), the metric is too stiff and promises too little from here on as
// well. Only for a metric that is learnt; what either the gradients or the values bear out is believed.
void correct_prediction(MINSTR* str, double modelled);

// free_hessian: the Hessian at x into hess, its part on the free space into hpro (hess itself serves when nothing is
// held and there are no linear rows: the pointer returned). Null when the Hessian failed.
double* free_hessian(MINSTR* str);

} // namespace torvale::optimizer
