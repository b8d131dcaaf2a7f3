#pragma once
// A fit may have two minima: one with an effect, and one without it.

#include "solve/judgement/judgement.h"

#include <optional>
#include <vector>

namespace torvale::solve {

// WithoutEffect: a point at which an effect is absent.
struct WithoutEffect {
  int variance = 0; // parameter that is 0 there
  std::vector<double> x;
  double f = 0.0; // objective
};

// vanished_variance: looks for a minimum without an effect below the one at x, which is judged in the coordinates c and
// has the objective f. Asked are the variances of G whose Wald interval reaches 0. With all of an effect's row and
// column of G at 0, and the other parameters where their covariance expects them then, one evaluation says whether
// there is hope; where there is, a few steps in the other parameters decide. What is found is lower than x by more than
// gain_allowed in -2 log L.
std::optional<WithoutEffect> vanished_variance(model::NX& n, const FitCoordinates& c, const Judgement& judged,
                                               const std::vector<double>& x, double f);

} // namespace torvale::solve
