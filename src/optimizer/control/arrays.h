#pragma once

#include "optimizer/minstr.h"

namespace torvale::optimizer {

// provide_technique_arrays: hess, hpro, half, wrk2 and the factor of the active set for the technique of the record.
// Returns 0 or 1016. Costs nothing when they are there already.
int provide_technique_arrays(MINSTR* str);

} // namespace torvale::optimizer
