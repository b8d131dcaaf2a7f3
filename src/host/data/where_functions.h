#pragma once
#include <span>
#include <string_view>

namespace torvale::host {

// A function of the WHERE= condition. Numbers are computed by `number`; functions of texts by evaluate_text and
// evaluate of where.cpp, told apart by name.
struct WhereFunction {
  std::string_view name;
  std::string_view
      takes; // n number, c characters, a either; one letter an argument, the last one repeated up to `most`
  int least;
  int most;
  bool gives_text;
  double (*number)(std::span<const double>); // null: a function of texts
};

const WhereFunction* find_where_function(std::string_view name); // null when there is none
std::string_view where_function_names();                         // for messages

// Does the text match the pattern of LIKE: % any characters, _ one, others themselves?
bool matches_pattern(std::string_view text, std::string_view pattern);

} // namespace torvale::host
