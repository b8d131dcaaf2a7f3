#pragma once
#include "host/data/csv_blocks.h"
#include "host/data/csv_dialect.h"
#include "host/data/csv_fields.h"
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace torvale::host {

// What is wanted of one column of a block.
struct ColumnRequest {
  enum class Kind { any, numeric, character, skip };
  Kind kind = Kind::any;
};

// The values of one column in one block, as one type throughout, and what was seen on the way. Rows count from 1 within
// the block; 0 is never.
struct BlockColumn {
  enum class Type { none, number, moment, text };
  Type type = Type::none; // none: only missing values
  Moment moment = Moment::none;
  std::vector<double> numbers;        // of none, number, moment
  std::vector<std::uint32_t> codes;   // of text
  std::deque<std::string> dictionary; // code -> text
  bool only_plain_missing = true;     // of none: empty fields and "." only
  bool point = false, comma = false;  // decimal signs of its numbers
  std::int64_t leading_zero_row = 0;
  std::int64_t inexact_row = 0; // a whole number that a double does not hold
  std::string code;             // first missing code, or with a numeric request first field
                                // that is no number
  std::int64_t code_row = 0;
  std::int64_t code_count = 0;
};

// One block read. A fault stops it: `fault_line` counts line ends before it, `fault_field` from 1.
struct BlockValues {
  std::vector<BlockColumn> columns;
  std::int64_t rows = 0;
  std::int64_t lines = 0;
  CsvFault fault = CsvFault::none;
  std::int64_t fault_line = 0;
  std::int64_t fault_row = 0;
  std::size_t fault_field = 0;
  std::size_t fields_found = 0; // of a record with a wrong count
};

// Reads a block into columns; what `values` held is forgotten, its memory is used again. A column whose fields are of
// several types comes back as text, with every spelling.
void read_block(const CsvBlock& block, const CsvDialect& dialect, const std::vector<ColumnRequest>& requests,
                BlockValues& values);

} // namespace torvale::host
