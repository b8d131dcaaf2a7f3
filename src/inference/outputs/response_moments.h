#pragma once
// What the distributions of the MODEL statement say of a response: mean, variance, distribution function.

#include "probability/tails.h"

namespace torvale::inference {

inline constexpr int most_response_arguments = 3;

// response_arguments: how many arguments of the distribution matter here; 0 for GENERAL, of which nothing is known.
int response_arguments(int distribution);

struct ResponseMoments {
  double mean, variance;                      // missing where there is none
  double slope[most_response_arguments] = {}; // derivatives of the mean by the arguments
};

ResponseMoments response_moments(int distribution, const double* arguments);

// count_tails: the distribution function of a count (BINARY, BINOMIAL, POISSON, NEGBIN) at k. Missing outside the domain of
// the arguments, and for other distributions.
probability::Tails count_tails(int distribution, double k, const double* arguments);

// quantile_residual: the standard normal quantile that belongs to the distribution function at y. For counts and
// binaries the function jumps at y: `share` (0 to 1) says where on the jump. Accurate in both tails. Missing outside
// the distribution's domain.
double quantile_residual(int distribution, double y, const double* arguments, double share);

// randomized: the distribution is discrete.
bool randomized(int distribution);

} // namespace torvale::inference
