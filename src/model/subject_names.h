#pragma once
// What subjects and rows are called in messages and tables: looked up in the input data, so that nothing is kept for
// them.

#include "model/run_record.h"

#include <string>

namespace torvale::model {

// The value of the subject variable.
std::string subject_name(const NX& n, const SUBINFO& subject);
// The values of its ancestors and its own, the outermost first, joined by "-".
std::string chain_name(const NX& n, const SUBINFO& subject);
// Row of the input data set of a store row, from 0; and its number in the file, from 1.
std::size_t input_row(const GroupState& n, std::int64_t row);
std::int64_t file_row(const NX& n, std::int64_t row);

} // namespace torvale::model
