#pragma once

#include "model/run_record.h"

namespace torvale::inference {

// open_output: the data set that an option or statement names, open to the end of the step. 0; after a message 3000
// (the statement is wrong) or 1016 (its place cannot be written).
int open_output(model::NX& n, const syntax::StItem& item, const char* statement, host::OutputDataSet*& out);

// add_output_column: a column of results; the user is told when its name is that of an input variable.
void add_output_column(model::NX& n, host::OutputDataSet& out, const std::string& name, const std::string& label);

// set_by_variables: the BY values of the group in hand into the first columns; their number.
std::size_t set_by_variables(const model::NX& n, std::size_t row, host::OutputDataSet& out);

} // namespace torvale::inference
