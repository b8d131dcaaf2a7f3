#pragma once
// Why a fit cannot start: told by the subjects that the model serves worst.

#include "model/run_record.h"

namespace torvale::solve {

// Messages 503/9437 for at most three subjects (observations, without random effects) with the lowest log likelihood at
// n.parm and effects of 0: how many of their records are impossible or cannot be computed, the first of these, and what
// the program did there. Returns the number of messages; 0 when all records have a likelihood there, or when records
// depend on the ones before.
int report_worst_subjects(model::NX& n);

} // namespace torvale::solve
