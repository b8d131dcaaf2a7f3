#pragma once
// The objective as a function of fit coordinates.

#include "solve/judgement/fit_coordinates.h"

#include <vector>

namespace torvale::solve {

// FitSurface: value and gradient of n's objective at t. Evaluations go through tvllike, so n.parm, n.objfun and the
// slots are those of the last one; they are counted as calls of the fit.
class FitSurface {
public:
  FitSurface(model::NX& n, FitCoordinates& coordinates);

  // False when t is outside the bounds or the model cannot be evaluated there.
  bool value(const double* t, double& f);
  bool gradient(const double* t, double& f, double* g);
  bool analytic() const { return n_.str->fidi == 0; }

  FitCoordinates& coordinates() { return coordinates_; }
  const FitCoordinates& coordinates() const { return coordinates_; }
  model::NX& run() { return n_; }

private:
  bool evaluate(const double* t, bool with_gradient);
  bool difference_gradient(const double* t, double f, double* g);

  model::NX& n_;
  FitCoordinates& coordinates_;
  std::vector<double> x_;
};

} // namespace torvale::solve
