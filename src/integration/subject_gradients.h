#pragma once

#include "model/run_record.h"

namespace torvale::integration {

// subject_gradients: the derivatives by the parameters of each unit's part of the objective at n.parm: of every subject
// of the outermost level, in the order of its index, or without random effects of every row of the store; replicates
// count. `out` gets np doubles a unit, missing ones where it has none (no usable record, a failed evaluation).
// Analytic, or where the model has no gradient by differences of each unit's value, steps as large as a hundredth of
// the parameter's standard error (n.str->ster; without one a thousandth of its size). Returns 0, or 1012 when the
// program ended the run. n.parm, n.dograd and the modes are as before.
int subject_gradients(model::NX& n, std::vector<double>& out);

} // namespace torvale::integration
