#include "host/messages/source_excerpt.h"

#include <algorithm>
#include <fmt/format.h>

namespace torvale::host {

std::vector<std::string> source_excerpt(int line, std::string_view text, int column, int length)
{
  constexpr std::size_t widest = 110;
  std::vector<std::size_t> begin; // offsets of the characters
  for (std::size_t i = 0; i < text.size(); ++i)
    if ((static_cast<unsigned char>(text[i]) & 0xC0U) != 0x80U) begin.push_back(i);
  const std::size_t count = begin.size(), place = static_cast<std::size_t>(std::max(0, column - 1));
  begin.push_back(text.size());
  const std::size_t first = count > widest && place > widest / 2 ? std::min(place - widest / 2, count) : 0;
  const std::size_t last = std::min(count, first + widest);
  std::string shown(text.substr(begin[first], begin[last] - begin[first]));
  std::replace(shown.begin(), shown.end(), '\t', ' ');
  const std::string number = std::to_string(line), lead = first > 0 ? "... " : "";
  std::vector<std::string> out = {fmt::format("  {} | {}{}", number, lead, shown)};
  if (column <= 0) return out;
  const std::size_t left = count > place ? last - std::min(place, last) : 1;
  const std::size_t carets =
      std::clamp<std::size_t>(static_cast<std::size_t>(std::max(1, length)), 1, std::max<std::size_t>(1, left));
  const std::string margin(number.size(), ' '), indent(lead.size() + place - first, ' ');
  out.push_back(fmt::format("  {} | {}{}", margin, indent, std::string(carets, '^')));
  return out;
}

} // namespace torvale::host
