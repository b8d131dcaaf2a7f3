#pragma once
// OUTEST=: the estimates as data, in the form that PARMS / DATA= reads, so that another fit can start from them.

#include "model/run_record.h"

namespace torvale::inference {

// open_estimates_output: opens the data set and declares its columns. Returns as open_output does.
int open_estimates_output(model::NX& n);

// write_estimates_output: a row per parameter of the BY group in hand, whether or not its fit converged: what is not
// known of it is missing.
void write_estimates_output(model::NX& n);

} // namespace torvale::inference
