#pragma once
// Taking a fit on from a point that is no minimum.

#include "solve/judgement/judgement.h"

namespace torvale::solve {

// continue_fit: trust-region steps with the true Hessian from t = start, in the coordinates as they stand. Where
// the Hessian is indefinite a trust region goes on downhill, which a metric that is always positive definite does not
// see. Iterations, calls and seconds count to the fit's own limits, and its history shows them. On return `x` holds the
// parameters of the best point and `f` the objective there. False when nothing was gained.
// directions: of a curvature measured at t = 0; where it is turned the run goes by them. Null: by the coordinates.
// radius: of the first step, in the unit of the coordinates; 0: that of the gradient.
bool continue_fit(FitSurface& surface, const std::vector<double>& start, double f_start, std::vector<double>& x,
                  double& f, const Curvature* directions, double radius = 0.0);

} // namespace torvale::solve
