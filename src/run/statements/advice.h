#pragma once
// Advice: what a program or its data make likely to be a mistake, though it can be run.

#include "model/run_record.h"

namespace torvale::run {

// Once a step, after its statements are processed: text constants that never occur in the column that they are compared
// with (9550), a bar that was meant as a random effect (9551), a decimal comma in PARMS (9554).
void advise_on_program(model::NX& n);

// Once a BY group, after the data pass: a response outside the support of its distribution (9552), with the first such
// record and what the coding looks like.
void advise_on_response(model::NX& n);

} // namespace torvale::run
