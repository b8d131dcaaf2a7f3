#pragma once

#include "optimizer/minstr.h"

namespace torvale::optimizer {

// The only ways to the caller's objective. They decide what a failed evaluation is, so that a failed point never
// reaches a difference quotient, a termination test or a line search unnoticed.

// Objective at x into crit. `objective` replaces the callback of the record when not null. Returns 0, or 1 when the
// point failed: nonzero return of the callback, a value that is not finite, or not below the failure value `fail`. An
// objective of minus infinity also sets tbig.
int objective_value(MINSTR* str, ProblemCallback objective = nullptr);

// Gradient at x into grad; crit must hold the objective at x. An analytic gradient is asked only right after the
// objective was called at the same point, byte for byte: when it was not, the objective is called first. Returns 0, or
// 1 when the gradient failed or has an element that is not finite.
int objective_gradient(MINSTR* str, ProblemCallback gradient = nullptr);

// Hessian at x into hess (packed, also when the callback delivers a diagonal only); crit and grad must belong to x and
// stay. Returns 0 or 1 as above.
int objective_hessian(MINSTR* str, ProblemCallback hessian = nullptr);

// provide_hessian: hess, for a Hessian that the technique itself does not need. Returns 0 or 1016.
int provide_hessian(MINSTR* str);

// True when a callback asked to stop or the objective overflowed.
inline bool interrupted(const MINSTR& str)
{
  return str.stop != 0 || str.tbig != 0.0;
}

// True when the gradient comes from differences of the objective.
inline bool gradient_by_differences(const MINSTR& str)
{
  return str.fidi % 10 != 0;
}

} // namespace torvale::optimizer
