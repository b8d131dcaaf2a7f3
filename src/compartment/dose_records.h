#pragma once
// Records that carry their dose histories: amounts, times since, rates and intervals in variables _CMPT_..., and in
// _CMPT_TYPE_ a code that says which of them count.
//
// What the code asks for is found once for all records (it is data); the sums over numbered doses are loops over
// arrays, so that text and program grow with the number of doses and not with its square.

#include "compartment/statement_text.h"

namespace torvale::compartment {

void write_dose_records(StatementText& text, const Model& model);

} // namespace torvale::compartment
