#pragma once
// Newton steps of nests bent by third derivatives, where every level has one effect: what NewtonSteps::bend
// (newton_steps.h) is for one level.

#include "model/run_record.h"

namespace torvale::modes {

// find_bends: for the nodes of the listed nests, after find_steps, what GroupState::ebes_bend adds to their steps s:
// -1/2 H^-1 f'''[s, s] (Chebyshev), into `bent`; its square, in variances given the ancestors, into `part`. Four nodes
// side by side; what goes to their ancestors is added node by node, in their order. Allocates nothing.
void find_bends(const model::NX& n, model::TVLThreadCtx& ctx);

} // namespace torvale::modes
