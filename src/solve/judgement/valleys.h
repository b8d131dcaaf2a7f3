#pragma once
// Slight directions of the Hessian, asked by finite steps along the floor of their valley.

#include "solve/judgement/judgement.h"

namespace torvale::solve {

// measure_valleys: differences, and the slope that is left where a fit ends, give the floor of a bent valley a
// curvature that it does not have. For every direction whose curvature at unit diagonal is so slight that this may be
// all of it the objective is followed along the floor to both sides (one, where a bound ends the other), and what it
// rises by there is the curvature: where that is far less, it takes the place of the eigenvalue, and where it is none
// the direction joins out.null. For surfaces with analytic gradients; others keep what they have.
void measure_valleys(FitSurface& surface, Judgement& out);

} // namespace torvale::solve
