#pragma once
// Quantiles of discrete distributions: the smallest whole number whose distribution function reaches p, 0 < p < 1. A
// probability within 1e-13 (relative, in the smaller tail) or the rounding of p counts as reached, so that the quantile
// undoes the distribution function. NaN outside the domain. Cost: about 2 log2 of the distance from the normal
// approximation.

namespace torvale::engine {

double binomial_quantile(double p, double trials, double probability);
double poisson_quantile(double p, double mean);
double negative_binomial_quantile(double p, double size, double probability); // failures before the size-th success

} // namespace torvale::engine
