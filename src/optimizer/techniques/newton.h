#pragma once

#include "optimizer/active_set/active_set.h"
#include "optimizer/minstr.h"
#include "optimizer/techniques/technique.h"

namespace torvale::optimizer {

// The Newton step with a ridge, shared by NEWRAP and NRRIDG: everything on the free space at x.
class NewtonModel {
public:
  explicit NewtonModel(MINSTR* record) : str(record) {}

  // start: the model at the beginning of a cycle, without a ridge. Returns 0 or a termination code.
  int start(bool first);

  // Hessian at x and its part on the free space. Returns 0 or 1 (failed).
  int evaluate(bool first);

  // Takes in a change of the active set at the same x.
  void project();

  // step: d := -(H + ridge S^2)^-1 Z'g with the scale S of HESCAL, expanded into sdir. Returns 0; or 1 when the matrix
  // is not safely positive definite, and deficit is then the least rise of the ridge that could help.
  int step(double ridge, double& deficit);

  // Predicted reduction of the fraction s of the step, -(s g'd + s^2 d'Hd / 2): the ridge is no part of the model.
  double prediction(double s) const { return -(s * slope + 0.5 * s * s * curvature); }
  double slope_of_step() const { return slope; }

  // full_reduction: what the step without a ridge promises, g'H^-1 g / 2; the largest double where H is not safely
  // positive definite. Destroys the factor.
  double full_reduction();

  // raised_for_factor: the next ridge after one that left the matrix indefinite. It starts near the rounding of the
  // matrix: a factorization costs nothing beside a Hessian, and a ridge that is larger than need be costs iterations.
  double raised_for_factor(double ridge, double deficit) const;

  // The largest element of the matrix.
  double largest_element() const { return most; }

  // first_ridge: a ridge that shortens the step noticeably, from the smallest |g_i|, the largest |H_ij| and a tenth of
  // what Gerschgorin's discs lack to be positive.
  double first_ridge() const;

private:
  int factor(double ridge, double& deficit);

  MINSTR* str;
  double* h = nullptr; // packed, order m
  double slope = 0.0;
  double curvature = 0.0;
  double most = 0.0;
};

} // namespace torvale::optimizer
