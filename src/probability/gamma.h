#pragma once

#include "probability/tails.h"

// The incomplete gamma function: the gamma distribution of shape a and scale 1.

namespace torvale::probability {

// Both tails of the gamma distribution at z >= 0, their logarithms and the log density; a > 0. All fields are NaN
// outside the domain. Relative error about 1e-14; the logarithms hold where the tails underflow.
Tails gamma_tails(double z, double a);

// Their log density alone, without the cost of the tails; at 0 its limit.
double gamma_log_density(double z, double a);

// The same at z = exp(log_z), also where z underflows; the density is still with respect to z.
Tails gamma_tails_at_log(double log_z, double a);

// zigamma: regularized lower (p) and upper (pr) incomplete gamma function of a at z, and the density (d). (z numeric, i
// incomplete.) Shape 0 is all mass at 0. The density at z = 0 is infinite for a < 1.
// Returns 0; 1 when a or z is negative or NaN, p, pr and d are then NaN.
int zigamma(double z, double a, double* p, double* pr, double* d);

} // namespace torvale::probability
