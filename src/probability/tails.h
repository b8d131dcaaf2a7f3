#pragma once

#include <cmath>

#include "probability/special/log_exp.h"

namespace torvale::probability {

// Tails: a distribution at one point, both sides of it. The logarithms stay accurate where the probabilities
// underflow, and the smaller tail is never formed by subtraction from 1.
struct Tails {
  double lower = 0.0;       // P(X <= x)
  double upper = 0.0;       // 1 - lower; P(X > x) for discrete distributions too
  double log_lower = 0.0;   // log of lower
  double log_upper = 0.0;   // log of upper
  double log_density = 0.0; // log of the density, of the point probability for a discrete distribution
};

// Tails from the logarithm of the lower one; log_density is left at 0.
inline Tails tails_from_log_lower(double log_lower)
{
  Tails t;
  t.log_lower = log_lower;
  t.log_upper = log_complement(log_lower);
  t.lower = std::exp(log_lower);
  t.upper = -std::expm1(log_lower);
  return t;
}

// The same point seen from the other side: lower and upper change places.
inline Tails exchanged(const Tails& t)
{
  return {t.upper, t.lower, t.log_upper, t.log_lower, t.log_density};
}

} // namespace torvale::probability
