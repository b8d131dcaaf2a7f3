#pragma once
#include "host/data/csv.h"
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace torvale::host {

// How the fields of a file are written: separator, decimal sign, missing codes.
struct CsvDialect {
  explicit CsvDialect(const ReadOptions& options, char separator);
  char separator = ',';
  bool points = true;                 // decimal points are numbers
  bool commas = false;                // decimal commas are numbers
  std::vector<std::string> codes{};   // further missing codes, lower case
  std::vector<double> code_numbers{}; // those of them that are numbers

  // A field without blanks around it as a number; a missing code that is a number is one.
  std::optional<double> number(std::string_view field) const;
  bool is_code(std::string_view field) const;
};

// The separator that occurs most in the line of names, outside quotes; the earlier one of a tie.
char found_separator(std::string_view line);

// The fields of one line, quotes taken off. False when a quote is not closed or followed by characters.
bool split_line(const std::string& line, char separator, std::vector<std::string>& fields, bool& unclosed);

} // namespace torvale::host
