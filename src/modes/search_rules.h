#pragma once
// Rules that all searches for modes keep to, whatever the number of levels.

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::modes {

// Halvings that follow when the sub-steps are used up: 20 of 0.8 shrink a step to a hundredth only.
inline constexpr int halvings = 50;
// The noise floor of a search, in posterior variances: below it a step that no longer shrinks tenfold (a hundredfold as
// a square) is rounding.
inline constexpr double noise_floor = 1e-12, noise_ratio = 0.01;
// A step that is as short (as a square, in posterior variances) ends a search in any units; after one below the other the
// next is as short.
inline constexpr double negligible = 1e-24, almost_there = 1e-13;
// The error, as such a square, that a mode may have where predictions stand.
inline constexpr double good_prediction = 1e-10;

// The value that the next step may not exceed, from the present value and EBSSTOL.
inline double allowed_value(double f, double tolerance)
{
  return f + std::max(tolerance, 4.0 * std::numeric_limits<double>::epsilon() * std::abs(f));
}

} // namespace torvale::modes
