#pragma once

#include "probability/tails.h"

// The incomplete beta function.

namespace torvale::probability {

// A point of the unit interval given by both its distances, so that neither has to be formed by subtraction from 1.
// The logarithms stay finite where the smaller distance underflows.
struct BetaPoint {
  double x;     // distance from 0
  double y;     // distance from 1; x + y = 1 up to the rounding of the larger
  double log_x; // log x
  double log_y; // log y
};

BetaPoint beta_point(double x);                // 0 <= x <= 1
BetaPoint beta_point_pair(double x, double y); // both given, x + y = 1
BetaPoint beta_point_logit(double w);          // x/y = exp(w), any finite w

// Both tails of the beta distribution at a point, their logarithms and the log density; a and b > 0. All fields are NaN
// outside the domain. Relative error about 1e-14 for tails of any size; the logarithms hold where the tails underflow.
Tails beta_tails(const BetaPoint& point, double a, double b);

// Their log density alone, without the cost of the tails; at 0 and 1 its limit.
double beta_log_density(const BetaPoint& point, double a, double b);

// zibeta: regularized incomplete beta function of a and b at x into p, the density into d. (z numeric, i incomplete.)
// Returns 0; 1 when x is outside 0..1, a or b is not above 0 or above 2^53: p and d are then NaN.
int zibeta(double x, double a, double b, double* p, double* d);

} // namespace torvale::probability
