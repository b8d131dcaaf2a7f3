#pragma once

// Derivatives of log Gamma.

namespace torvale::probability {

// The derivative of order n + 1 of log Gamma at x: n = 0 digamma, 1 trigamma, 2 tetragamma, 3 pentagamma. Relative
// error below 2e-15 for x > 0, digamma near its zero 1.4616 included. Negative x by reflection (error relative to the
// largest term). NaN at 0, at the negative integers and for other n.
double polygamma(int n, double x);

// polygamma(n, a + b) - polygamma(n, a), a > 0 and a + b > 0, without cancellation for small b: the derivatives with
// respect to a of log_gamma_ratio(a, b).
double polygamma_difference(int n, double a, double b);

inline double digamma(double x)
{
  return polygamma(0, x);
}
inline double trigamma(double x)
{
  return polygamma(1, x);
}
inline double tetragamma(double x)
{
  return polygamma(2, x);
}
inline double pentagamma(double x)
{
  return polygamma(3, x);
}

} // namespace torvale::probability
