#pragma once
// The objective as a function of fit coordinates, and its curvature there.

#include "solve/fit_coordinates.h"

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

// Curvature: the Hessian by t at t = 0 over the coordinates that are free.
struct Curvature {
  std::vector<int> free;       // coordinates, ascending
  std::vector<double> hessian; // m x m, symmetric
  double accuracy = 0.0;       // of an element at unit diagonal, from what two estimates of it differ by
  int size() const { return static_cast<int>(free.size()); }
  double at(int i, int j) const { return hessian[static_cast<std::size_t>(i * size() + j)]; }
};

// measure: central differences of gradients over a thousandth of a standard error, or second differences of values
// over a twentieth of one where there are no analytic gradients; sets the scales of the coordinates
// so that the diagonal is 1 where there is curvature. f and g belong to t = 0. False when the model cannot be evaluated
// close by.
bool measure(FitSurface& surface, const std::vector<int>& free, double f, const double* g, Curvature& out);

} // namespace torvale::solve
