#pragma once
// Programming statements as text, for listings.

#include "syntax/tree.h"

#include <string>

namespace torvale::engine {

// Appends the statement, one line per statement, indented by `depth` steps. Each line begins with the line number of
// the source where the statement stands.
void append_statement(std::string& out, const syntax::Statement& s, int depth);

} // namespace torvale::engine
