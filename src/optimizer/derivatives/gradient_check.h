#pragma once

#include "optimizer/minstr.h"

namespace torvale::optimizer {

// check_gradient: compares the gradient in grad at x with central differences of the objective. detail: parameter by
// parameter, each a row to the sink check_row; otherwise along one direction only, two calls of the objective.
// Sends message 180 (they agree) or 181 (they do not, with the number of parameters and the largest error).
// Returns the number of disagreements, or -1 when the differences cannot be formed. x, crit and grad stay.
int check_gradient(MINSTR* str, bool detail);

} // namespace torvale::optimizer
