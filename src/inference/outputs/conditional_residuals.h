#pragma once

#include <cstddef>
#include <vector>

namespace torvale::inference {

// ConditionalResiduals: residuals of a linear model with correlated errors, decorrelated in order: L^-1 e, L the lower
// Cholesky factor of Z G Z' + R, with R diagonal. Record after record: given those before it the effects have a mean
// and a covariance, from which the record's own mean and variance follow (the recursion of Kalman's filter, J. Basic
// Eng. 82, 1960). Cost is linear in the records.
class ConditionalResiduals {
public:
  // The effects of one independent unit: `count` of them, covariance G dense by rows.
  ConditionalResiduals(std::size_t count, std::vector<double> g) : mean_(count, 0.0), covariance_(std::move(g)) {}

  // The next record: e with the slopes z of the effects at `places`, and its own variance. Missing where the variance
  // given the records before it is not above 0.
  double add(double e, const std::vector<std::size_t>& places, const double* z, double variance);

private:
  std::vector<double> mean_, covariance_, gain_;
};

} // namespace torvale::inference
