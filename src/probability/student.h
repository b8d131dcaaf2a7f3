#pragma once

#include "probability/tails.h"

// Student's t distribution.

namespace torvale::probability {

// Both tails, their logarithms and the log density at any t; df > 0, infinite df is the normal distribution. NaN
// outside.
Tails student_tails(double t, double df);

// zpgt2: two-sided p value P(|T| > t) of a t whose square is t2. (z numeric, p probability, gt greater, 2 two-sided.)
// Returns the probability; -1 when t2 is negative or df not above 0, -2 when it could not be computed.
double zpgt2(double t2, double df);

// zpgt2f: the same as the upper tail of F with 1 and df degrees of freedom, which it is. (f by F.)
double zpgt2f(double t2, double df);

// zpgt2New: the same into p. Returns 0, or the code -1 or -2 above with p missing.
int zpgt2New(double t2, double df, double* p);

} // namespace torvale::probability
