#pragma once
// Forms chains in the steps of a stage: see chains/chain_kernels.h.

#include "engine/program.h"

namespace torvale::engine {

// Joins steps whose result one later step uses, and it alone, with that step. Registers are still those of the emitter:
// one per value. Stages with loops are left as they are.
void form_chains(StageCode& code);

} // namespace torvale::engine
