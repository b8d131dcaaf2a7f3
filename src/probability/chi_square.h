#pragma once

#include "probability/tails.h"

// The chi-square distribution, central and non-central.

namespace torvale::probability {

// Both tails, their logarithms and the log density at x >= 0; df > 0. NaN outside.
Tails chi_square_tails(double x, double df);

// The non-central chi-square distribution with df > 0 degrees of freedom and non-centrality nc at x >= 0; nc in 0..1e10
// and nc x at most 1e20 (beyond, the sums grow too long). (z numeric, c chi-square, nc non-central.)
//   zplbcnc: lower (pl) and upper (pr) probability (p probability)
//   zlogcnc: the logarithms of the same (log)
//   zldncnc: the log density into ld (ld log density)
// Return 0; 1 outside the domain, the results are then NaN. Cost: proportional to the square root of nc.
int zplbcnc(double x, double df, double nc, double* pl, double* pr);
int zlogcnc(double x, double df, double nc, double* lpl, double* lpr);
int zldncnc(double x, double df, double nc, double* ld);

// zibess: log of the modified Bessel function I of order nu > -1 at x > 0 into log_i. (z numeric, i, bess Bessel.)
// Returns 0; 1 outside the domain, log_i is then NaN.
int zibess(double nu, double x, double* log_i);

} // namespace torvale::probability
