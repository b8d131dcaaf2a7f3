#pragma once

#include "optimizer/active_set.h"
#include "optimizer/minstr.h"
#include "optimizer/technique.h"

namespace torvale::optimizer {

// The Newton step with a ridge, shared by NEWRAP and NRRIDG: everything on the free space at x.
class NewtonModel {
public:
  explicit NewtonModel(MINSTR* record) : str(record) {}

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

  // raised_for_factor: the next ridge after one that left the matrix indefinite. It starts near the rounding of the
  // matrix: a factorization costs nothing beside a Hessian, and a ridge that is larger than need be costs iterations.
  double raised_for_factor(double ridge, double deficit) const;

  // The largest element of the matrix.
  double largest_element() const { return most; }

  // first_ridge: a ridge that shortens the step noticeably, from the smallest |g_i|, the largest |H_ij| and a tenth of
  // what Gerschgorin's discs lack to be positive.
  double first_ridge() const;

private:
  MINSTR* str;
  double* h = nullptr; // packed, order m
  double slope = 0.0;
  double curvature = 0.0;
  double most = 0.0;
};

// newton_cycles: the frame of both Newton techniques: cycles from a start section to a result, with `iteration` called
// until it returns a code. Returns the termination code.
template <class Iteration> int newton_cycles(MINSTR* str, NewtonModel& model, Iteration iteration)
{
  if (const int rc = begin_technique(str, true); rc != 0) return rc;
  for (bool first = true;; first = false) {
    begin_cycle(str);
    if (constrained(*str)) znlpdac(str);
    int code = 0;
    if (model.evaluate(first) != 0) code = first ? code_start_derivative : code_hessian;
    const bool all_held = free_dimension(*str) == 0;
    if (code == 0 && (first || all_held)) code = test_termination(str, all_held ? 1 : 10);
    str->ridg = 0.0;
    while (code == 0) code = iteration();
    if (code != code_reenter) code = end_technique(str, code);
    if (code != code_reenter) return code;
  }
}

} // namespace torvale::optimizer
