#pragma once
// What the data sets of a fit have in common: how they are opened, and the columns behind an estimate.

#include "inference/tables.h"
#include "model/run_record.h"

namespace torvale::inference {

// open_data_set: an output data set that a statement names. Null after a message.
host::OutputDataSet* open_data_set(model::NX& n, const syntax::StItem& item, const char* statement);

// add_result: a numeric column; the user is told when its name is that of another (the column then has a number behind
// it).
void add_result(model::NX& n, host::OutputDataSet& out, const std::string& name, const std::string& label);

// Columns that follow an estimate: its standard error, degrees of freedom, t test and limits.
void add_test_columns(model::NX& n, host::OutputDataSet& out);

// set_test: the values of these columns, from column `at` on; returns the column behind them.
std::size_t set_test(host::OutputDataSet& out, std::size_t at, const TVAL& t);

} // namespace torvale::inference
