#pragma once
// What nest_steps.h does, where every level has one effect: four nodes side by side in vectors
// (evaluation/slot_group.h). What goes to their parents is added node by node, in their order.

#include "model/run_record.h"

namespace torvale::modes {

// starts: z of the listed nodes from the accepted modes; starts_ahead: moved with the parameters, zold has the accepted
// ones, and `part` how far. effects: u. values: each node's part of the negative log joint density into `part`.
// steps: Newton's, with inverse, regression and their lengths in `part` and `square`.
enum class NestTask { starts, starts_ahead, effects, values, steps };

// work_on_singles: of the listed nodes. sums: as in nest_steps.h; null for starts and effects. A nest without a step
// has an infinite w.square.
void work_on_singles(const model::NX& n, model::TVLThreadCtx& ctx, const double* sums, NestTask task);

} // namespace torvale::modes
