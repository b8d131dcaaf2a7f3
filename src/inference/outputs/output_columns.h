#pragma once
// The columns behind an estimate in the data sets of a fit.

#include "inference/tables/tables.h"
#include "model/run_record.h"

namespace torvale::inference {

// add_test_columns: standard error, degrees of freedom, t test and limits.
void add_test_columns(model::NX& n, host::OutputDataSet& out);

// set_test: the values of these columns, from column `at` on; returns the column behind them.
std::size_t set_test(host::OutputDataSet& out, std::size_t at, const TVAL& t);

} // namespace torvale::inference
