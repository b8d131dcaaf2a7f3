#pragma once

#include "optimizer/minstr.h"

namespace torvale::optimizer {

// Line searches. A technique sets xold, gold, cold, the direction sdir and the bound stub, and calls one of these. Each
// looks for a step a in (0, U], U the smaller of stub and smax, with a sufficient decrease, and leaves x, crit, grad
// and alfa at the point accepted. Returns 0; or 1 when no step gives a decrease: x is then undefined, and the caller
// goes back to xold. A direction that is not downhill fails without a call of the objective; a flat one returns 0 with
// alfa 0.
//
// By LINESEARCH: 1 to 3 cubic interpolation with Wolfe's conditions, 4 and 5 the same without sigma,
// 6 golden section with parabolas, 7 bisection on Goldstein's conditions, 8 doubling, then parabolas. 6 to 8 ask for
// the gradient once, at the end. 9 is 6 without the parabolas.
int znlpls1(MINSTR* str); // cubics
int znlpls2(MINSTR* str); // a quadratic first, which needs no gradient at a step that is too long (default)
int znlpls3(MINSTR* str); // cubics on either side of the bracket
int znlpls4(MINSTR* str); // cubics, steps extrapolated by the factor 4
int znlpls5(MINSTR* str); // cubics, extrapolated by three points
int znlpls6(MINSTR* str);
int znlpls7(MINSTR* str);
int znlpls8(MINSTR* str);
int znlpls9(MINSTR* str);

// The routine of LINESEARCH=tlin; znlpls2 for a number that is none.
LineSearchRoutine line_search_routine(int tlin);

// znlpalf: the first step (alfa) of a search along sdir with the slope given, at most `longest`.
double znlpalf(const MINSTR& str, double slope, double longest);

// ---- Shared by the searches (line_search_step.cpp). --------------------------------------------------------------

// The bound U on the steps of the search that begins, and its count in nlis.
double begin_search(MINSTR* str);

// Objective at xold + a sdir into crit; remembers the best point so far. Returns 0, or 1 when the point failed.
struct BestPoint {
  double step = 0.0; // 0: none better than the start
  double value = 0.0;
};
int try_step(MINSTR* str, double a, BestPoint& best);

// Gradient at the trial point last tried with the step a; returns 0 and its slope along sdir, or 1 when the gradient
// failed.
int trial_slope(MINSTR* str, double a, BestPoint& best, double& slope);

// Ends a search at the best point: x, crit, grad, alfa. Returns 0, or 1 when there is no better point than the start.
int finish_at_best(MINSTR* str, const BestPoint& best);

// bisect: the last resort: steepest descent in the free space with halved steps. Returns 0 when it found a better
// point.
int bisect(MINSTR* str);

// End of a search without a better point: bisect when the gradient is not small, else failure.
int give_up(MINSTR* str);

// Smallest step that still changes a parameter by more than rounding; largest double when sdir changes none.
double least_step(const MINSTR& str);

} // namespace torvale::optimizer
