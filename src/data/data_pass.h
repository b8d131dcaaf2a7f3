#pragma once
// The data of one BY group: building the store (tvlenvt) and the pass that marks what cannot be used (tvldata).

#include "model/run_record.h"

namespace torvale::data {

// tvlenvt: builds n.store for the rows of n.rows, in subject order, and binds the model to it. (tvl procedure, env
// environment.) Returns 0, or 1 to skip the BY group (the message is on the log and n.tvlrc is raised).
int tvlenvt(model::NX& n);

// tvldata: runs the program once per observation at the first grid point, at the means of the random effects, and marks
// the observations that cannot be used; fills the subjects' counts; checks that what must be constant within a subject
// is. Returns 0, or 1 to skip the BY group.
int tvldata(model::NX& n);

} // namespace torvale::data
