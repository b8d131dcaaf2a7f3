#pragma once
// Names of functions, distributions and variables: spellings and near misses. Without regard to case.

#include <span>
#include <string>
#include <string_view>

namespace torvale::engine {

// The name in capital letters.
std::string upper(std::string_view name);

// True when `name` is the main spelling or one of the blank-separated aliases.
bool is_spelling(std::string_view name, std::string_view main, std::string_view aliases);

// Letters inserted, left out, replaced or exchanged with a neighbour between two names; more than `limit` counts as
// limit + 1.
int letters_apart(std::string_view a, std::string_view b, int limit);

// The first of the nearest names, at most two letters away (one for names of up to four letters); empty when none is.
std::string_view nearest_among(std::string_view misspelled, std::span<const std::string_view> names);

} // namespace torvale::engine
