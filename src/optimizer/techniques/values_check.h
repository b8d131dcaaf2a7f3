#pragma once

#include "optimizer/minstr.h"

namespace torvale::optimizer {

// confirm_by_values: is x a minimum within the bounds, as far as values can
// tell? A quadratic model of the surroundings by differences over intervals of
// about a thousandth: slopes and curvatures along each parameter first, mixed
// ones only when those find nothing. A Newton step of the model within the
// bounds must promise at most `tolerance`.
//
//   work  values_check_length(n) doubles
//
// Returns 0 when it does; 1 when a better point was found on the way, which x
// and crit then are; -1 when the model promises more but no better point was
// found (x and crit are as before).
int confirm_by_values(MINSTR* str, double tolerance, double* work);

inline long values_check_length(long n)
{
  return n * (n + 1) + 6 * n;
}

} // namespace torvale::optimizer
