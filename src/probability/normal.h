#pragma once

#include "probability/tails.h"

// The standard normal distribution.

namespace torvale::probability {

// zprbnrm: the normal cumulative probability of x. Relative error below 5e-16 down to the smallest normal number,
// 0 below it (x about -37.5). Exactly 0.5 at 0. (z numeric, prb probability, nrm normal.)
double zprbnrm(double x);

// zlognrm: logarithms of the lower tail (lpl), the upper tail (lpr) and the density (ldens) at x, for all finite x.
// Returns 0; 1 when x is not finite: the results are then NaN.
int zlognrm(double x, double* lpl, double* lpr, double* ldens);

// The same with the probabilities themselves.
Tails normal_tails(double x);

// zprobit: the x whose cumulative probability is p, 0 <= p <= 1. Relative error 4e-16. Outside: NaN.
// The ends are fixed values: p = 0 gives -37.64030867301702 (about the smallest normal number), p = 1 gives
// 7.941345326170997 (about where 1 - p rounds to 1). They are not limits: zprobit(5e-324) = -38.47 lies below the
// first, zprobit(1 - 1.1e-16) = 8.21 above the second. (z numeric, probit.)
double zprobit(double p);

// The x whose lower tail has the logarithm log_p <= 0; any size of log_p. NaN above 0.
double normal_quantile_log(double log_p);

// zmillsr: Mills ratio, upper tail divided by density, into ratio. Infinite where it overflows (x below -37.6).
// Returns 0; 1 for a NaN, ratio is then NaN. (z numeric, mills r ratio.)
int zmillsr(double x, double* ratio);

// zcnfmill: the same by its continued fraction, x > 0, quick from 5 up. (z numeric, cnf continued fraction, mill.)
// Returns 0; 1 when x is not above 0 or the fraction did not settle in 400 steps, ratio is then the last convergent.
int zcnfmill(double x, double* ratio);

} // namespace torvale::probability
