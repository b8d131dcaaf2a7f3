#include "engine/functions/names.h"

#include "syntax/tree.h"

#include <algorithm>
#include <array>
#include <cstdlib>

namespace torvale::engine {

std::string upper(std::string_view name)
{
  std::string u(name);
  for (char& c : u)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return u;
}

bool is_spelling(std::string_view name, std::string_view main, std::string_view aliases)
{
  if (syntax::same_name(name, main)) return true;
  while (!aliases.empty()) {
    const std::size_t end = std::min(aliases.find(' '), aliases.size());
    if (syntax::same_name(name, aliases.substr(0, end))) return true;
    aliases.remove_prefix(std::min(end + 1, aliases.size()));
  }
  return false;
}

// Optimal string alignment by rows: d(i, j) is the distance of the first i letters of a from the first j of b.
int letters_apart(std::string_view a, std::string_view b, int limit)
{
  constexpr std::size_t longest = 32; // names are no longer
  if (a.size() > longest || b.size() > longest ||
      std::abs(static_cast<int>(a.size()) - static_cast<int>(b.size())) > limit)
    return limit + 1;
  const auto same = [&](std::size_t i, std::size_t j) { return syntax::same_name(a.substr(i, 1), b.substr(j, 1)); };
  std::array<std::array<int, longest + 1>, 3> rows{};
  auto* before = &rows[0];
  auto* last = &rows[1];
  auto* row = &rows[2];
  for (std::size_t j = 0; j <= b.size(); ++j) (*last)[j] = static_cast<int>(j);
  for (std::size_t i = 1; i <= a.size(); ++i) {
    (*row)[0] = static_cast<int>(i);
    for (std::size_t j = 1; j <= b.size(); ++j) {
      int d = std::min({(*last)[j] + 1, (*row)[j - 1] + 1, (*last)[j - 1] + (same(i - 1, j - 1) ? 0 : 1)});
      if (i > 1 && j > 1 && same(i - 1, j - 2) && same(i - 2, j - 1)) d = std::min(d, (*before)[j - 2] + 1);
      (*row)[j] = d;
    }
    std::swap(before, last);
    std::swap(last, row);
  }
  return std::min((*last)[b.size()], limit + 1);
}

std::string_view nearest_among(std::string_view misspelled, std::span<const std::string_view> names)
{
  std::string_view best;
  int best_distance = misspelled.size() <= 4 ? 2 : 3;
  for (const std::string_view name : names) {
    const int d = letters_apart(misspelled, name, best_distance);
    if (d == 0 || d >= best_distance) continue;
    best_distance = d;
    best = name;
  }
  return best;
}

} // namespace torvale::engine
