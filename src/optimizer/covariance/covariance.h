#pragma once

#include "optimizer/covstr.h"
#include "optimizer/minstr.h"

namespace torvale::optimizer {

// znlpcma: matrices of the covariance step. job 0 forgets those of an earlier run; job 1 evaluates the Hessian at x
// (crit and grad belong to x), projects it on the free space, and lets znlpcov form the covariance. A failure is noted
// in status of the request; the fit stands.
int znlpcma(MINSTR* str, int job);

// znlpcov: covariance of the estimates from the matrices in the request, and the standard errors in ster. Returns
// status.
int znlpcov(MINSTR* str);

} // namespace torvale::optimizer
