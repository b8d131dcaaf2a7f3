#pragma once

#include "optimizer/minstr.h"

namespace torvale::optimizer {

// The relative bases of the difference intervals. With e the relative noise of the objective, 10^-FDIGITS, the error of
// a quotient is least for e^(1/2) forward, e^(1/3) central, e^(1/4) in second differences.
double forward_base(const MINSTR& str);
double central_base(const MINSTR& str);
double second_difference_base(const MINSTR& str);

// forget_curvature: nothing is known of the curvature any more; the next difference gradient asks anew.
void forget_curvature(MINSTR* str);

// learn_curvature: takes in f(x + h e_i) - f and f(x - h e_i) - f. Their sum is d h^2 with the second derivative d, and
// half of it relative to 1 + |f| should be (central base)^2: the interval (1 + |x|) base is far too long for a
// parameter whose natural unit is 1e-9. Returns the interval that would have been right, h itself when it was.
double learn_curvature(MINSTR* str, long i, double h, double up, double down, double f);

// interval: the interval (1 + |x_i|) base, or what FDINT found for the parameter in `found` (may be null), no longer
// than the curvature allows, rounded so that x_i + h - x_i is exactly h.
double interval(const MINSTR& str, long i, double base, const double* found);

// True when x_i + h lies inside the bounds of parameter i.
bool inside_bounds(const MINSTR& str, long i, double h);

// fit_interval: turns h to the side of x_i that has room for `steps` intervals, and shrinks it when neither has.
double fit_interval(const MINSTR& str, long i, double h, double steps);

// Smallest interval worth trying when evaluations fail.
double least_interval(double x);

} // namespace torvale::optimizer
