#pragma once

#include "optimizer/minstr.h"

namespace torvale::optimizer {

// Checks of a point where a technique wants to stop. Both leave x, crit and grad at the better point when they find one
// and at the old point when not; a failed evaluation is no better point.

// znlpnoi: neighbourhood optimality check (OPTCHECK). Probes the coordinates within the radius rtop, a tenth of it when
// `iterating`, then random points (a fixed seed). Returns 1 when it moved to a better feasible point, 0 otherwise.
int znlpnoi(MINSTR* str, bool iterating);

// znlpdnc: direction of negative curvature of the (projected) Hessian at x, and a search along it. Returns 0 when it
// moved to a better feasible point, nonzero otherwise. Only for techniques with derivatives.
int znlpdnc(MINSTR* str);

} // namespace torvale::optimizer
