#pragma once

#include "probability/tails.h"

// Fisher's F distribution.

namespace torvale::probability {

// Both tails, their logarithms and the log density at f >= 0 with ndf numerator and ddf denominator degrees of freedom,
// both above 0; an infinite ddf is chi-square over ndf. NaN outside.
Tails f_tails(double f, double ndf, double ddf);

// zprbf: the upper tail of F at f. (z numeric, prb probability, f.)
// Returns the probability; -1 when f is negative or a degree of freedom not above 0, -2 when it could not be computed.
double zprbf(double f, double ndf, double ddf);

// zprbfNew: the same into p. Returns 0, or the code -1 or -2 above with p missing.
int zprbfNew(double f, double ndf, double ddf, double* p);

} // namespace torvale::probability
