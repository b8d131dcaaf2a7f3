#pragma once

#include "probability/quantiles.h"
#include "probability/tails.h"

// Counts: Poisson, binomial and negative binomial. lower is P(X <= k), upper P(X > k), log_density the logarithm of
// P(X = k); k is rounded down, below 0 everything lies above it. All fields are NaN outside the parameters' domain.

namespace torvale::probability {

Tails poisson_tails(double k, double mean);         // mean >= 0
Tails binomial_tails(double k, double n, double p); // successes in n >= 0 trials (an integer), 0 <= p <= 1
// Failures before the success number `size` > 0 (any real number), success probability 0 < p <= 1; size 1: geometric.
Tails negative_binomial_tails(double k, double size, double p);

// The smallest k whose lower probability reaches the target, which counts as reached within 1e-13 relative of the
// smaller tail. Infinite for an upper probability of 0 when the counts have no end. NaN outside the domain.
double poisson_quantile(TailTarget target, double mean);
double binomial_quantile(TailTarget target, double n, double p);
double negative_binomial_quantile(TailTarget target, double size, double p);

} // namespace torvale::probability
