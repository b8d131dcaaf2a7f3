#pragma once
// Rules that all searches for modes keep to, whatever the number of levels.

#include "host/messages/names/methods.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::modes {

// Halvings that follow when the sub-steps are used up: 20 of 0.8 shrink a step to a hundredth only.
inline constexpr int halvings = 50;
// The noise floor of a search, in posterior variances: below it a step that no longer shrinks tenfold (a hundredfold as
// a square) is rounding.
inline constexpr double noise_floor = 1e-12, noise_ratio = 0.01;
// A step that is as short (as a square, in posterior variances) ends a search in any units.
inline constexpr double negligible = 1e-24;

// About what the next step will be at most, all as such squares: steps s, c s^2, c (c s^2)^2, ... have the bend c that
// the last two show; 1 for the first.
inline double next_step(double step, double previous)
{
  constexpr double least = 1e-4, safety = 100.0;
  const double bend =
      previous < std::numeric_limits<double>::max() ? std::max(step / (previous * previous), least) : 1.0;
  return safety * bend * step * step;
}
// What may be left, as such a square, of a step that ends at an evaluation of what is wanted at the mode: the mode goes
// to its end, and the integral is what it would be there but for a product of two such steps.
inline constexpr double remainder = 1e-12;
// The same of the step after one that third derivatives of a point nearby have bent, so little (as such a square): they
// were off by a third, or the fourth count as much.
template <class T> T step_after_bent(const T& bent, const T& step)
{
  return 0.1 * bent + bent * bent / step;
}
// What bends a first step is no more than this part of it (both as such squares), or it is not bent; and the most
// effects of a record whose third derivatives are kept for it.
inline constexpr double largest_bend = 0.1;
inline constexpr int most_bent_effects = 3;
// Whether EBTOL= ends a search: a step shorter than that in the units of the effects, in which all that a posterior
// reaches may be less; so it has to be no more than `left` (as such a square) there, or EBTOL= itself.
inline bool short_enough(double length, double square, double ebtol, double left)
{
  return length < ebtol && square < std::max(left, ebtol * ebtol);
}
// How far, in prior deviations, modes may be moved ahead with the parameters: beyond it is no place to extrapolate to.
inline constexpr double farthest = 2.0;
// The error, as such a square, that a mode may have where predictions stand.
inline constexpr double good_prediction = 1e-10;

// Why a search has ended without a mode, and the message (of group 503) that says so of a subject with a number or a
// text. shorter_steps: none of them, halved to nothing, brings the value down.
enum class SearchEnd { steps, shorter_steps, library };
inline int failure_of(SearchEnd why, bool text)
{
  switch (why) {
  case SearchEnd::shorter_steps:
    return text ? message::no_shorter_step_text_subject::message_number : message::no_shorter_step::message_number;
  case SearchEnd::library:
    return text ? message::mode_not_found_text_subject::message_number : message::mode_not_found::message_number;
  default:
    return text ? message::mode_steps_used_up_text_subject::message_number
                : message::mode_steps_used_up::message_number;
  }
}

// The value that the next step may not exceed, from the present value and EBSSTOL.
inline double allowed_value(double f, double tolerance)
{
  return f + std::max(tolerance, 4.0 * std::numeric_limits<double>::epsilon() * std::abs(f));
}

} // namespace torvale::modes
