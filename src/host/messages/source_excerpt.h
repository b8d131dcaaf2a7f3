#pragma once
// The line of a text that a message is about, with carets below the place.

#include <string>
#include <string_view>
#include <vector>

namespace torvale::host {

// Two lines: "  12 | text" and carets below `length` characters (at least one) from `column`, which counts
// from 1. A column of 0 leaves the carets out. A long line is cut around the place; a tab counts as a blank.
std::vector<std::string> source_excerpt(int line, std::string_view text, int column, int length);

} // namespace torvale::host
