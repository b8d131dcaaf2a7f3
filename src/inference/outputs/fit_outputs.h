#pragma once
// The data sets that a fit writes: PREDICT OUT=, RANDOM OUT=.

#include "model/run_record.h"

namespace torvale::inference {

// open_fit_outputs: opens the data sets of the step and declares their columns; before the data are read, so that a
// place that cannot be written ends the step at once. Returns 0, or 1 after a message.
int open_fit_outputs(model::NX& n);

// write_fit_outputs: the rows of the BY group in hand, in the order of the file (predictions) or of the subjects
// (random effects), at n.parm with n.covmat. Returns 0, or the engine's code above 2.
int write_fit_outputs(model::NX& n);

} // namespace torvale::inference
