#pragma once
// The first steps of everything that works on nests: the tree of the batch in hand, and its priors.

#include "model/run_record.h"

namespace torvale::integration {

// take_nests: the nests of ctx.batch into ctx.nests, none of them failed.
void take_nests(const model::GroupState& n, model::TVLThreadCtx& ctx);

// load_nest_priors: means and factors of all nodes; the first failed node of a nest, outermost level first, decides its
// message. Returns 0 or the engine's code above 2.
int load_nest_priors(const model::NX& n, model::TVLThreadCtx& ctx);

} // namespace torvale::integration
