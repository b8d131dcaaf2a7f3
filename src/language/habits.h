#pragma once
// Words of other habits: what people write that means something elsewhere, and what is written here in its place.

#include <string_view>

namespace torvale::language {

// Advice for a word (upper case) that begins no statement here; empty when there is none.
std::string_view instead_of_statement(std::string_view word);
// Advice for a value (upper case) that an option does not know; empty when there is none.
std::string_view instead_of_value(std::string_view option, std::string_view value);

} // namespace torvale::language
