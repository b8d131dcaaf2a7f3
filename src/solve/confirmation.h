#pragma once
// Does the Hessian that the covariance needs anyway confirm what the optimizer calls convergence?

#include "model/run_record.h"

namespace torvale::solve {

// newton_reduction: g' H^-1 g over the parameters that no bound holds, H the Hessian at the returned point: twice what
// a Newton step would still gain. Missing when H is not there or not positive definite.
double newton_reduction(const model::NX& n);

// optimize: stage 2 of the optimizer, repeated while its answer is not confirmed. A quasi-Newton run judges by its own
// approximation of the Hessian; on a badly scaled problem that promises too little (it stops early) or leads into
// rounding (it gives up beside the minimum). Where the true Hessian promises more than GCONV allows, the run goes on
// from the point with that Hessian as its metric; where it promises less, a run that could make no more progress has
// converged (GCONV). A criterion that the user gave is never overruled. MAXITER=,
// MAXFUNC= and MAXTIME= hold for all runs together. Returns the termination code.
int optimize(model::NX& n, bool user_gave_gradient_test, bool user_gave_function_test);

} // namespace torvale::solve
