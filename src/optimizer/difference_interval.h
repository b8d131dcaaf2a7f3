#pragma once

#include "optimizer/minstr.h"

namespace torvale::optimizer {

// The relative bases of the difference intervals. With e the relative noise of the objective, 10^-FDIGITS, the error of a
// quotient is least for e^(1/2) forward, e^(1/3) central, e^(1/4) in second differences.
double forward_base(const MINSTR& str);
double central_base(const MINSTR& str);
double second_difference_base(const MINSTR& str);

// interval: the interval (1 + |x_i|) base, or what FDINT found for the parameter in `found` (may be null), rounded so that
// x_i + h - x_i is exactly h.
double interval(const MINSTR& str, long i, double base, const double* found);

// True when x_i + h lies inside the bounds of parameter i.
bool inside_bounds(const MINSTR& str, long i, double h);

// fit_interval: turns h to the side of x_i that has room for `steps` intervals, and shrinks it when neither has.
double fit_interval(const MINSTR& str, long i, double h, double steps);

// Smallest interval worth trying when evaluations fail.
double least_interval(double x);

} // namespace torvale::optimizer
