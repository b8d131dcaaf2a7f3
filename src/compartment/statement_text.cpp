#include "compartment/statement_text.h"

namespace torvale::compartment {

std::string StatementText::filled(std::string_view pattern) const
{
  std::string line;
  for (std::size_t k = 0; k < pattern.size(); ++k) {
    if (pattern[k] == '@') {
      line += prefix_;
    } else if (pattern[k] == '$') {
      const std::size_t from = k + 1;
      while (k + 1 < pattern.size() &&
             ((pattern[k + 1] >= 'A' && pattern[k + 1] <= 'Z') || (pattern[k + 1] >= '0' && pattern[k + 1] <= '9')))
        ++k;
      const std::string_view word = pattern.substr(from, k + 1 - from);
      for (std::size_t slot = static_cast<std::size_t>(Option::pconc); slot < option_slots; ++slot)
        if (option_word(static_cast<Option>(slot)) == word) line += model_.value[slot];
    } else {
      line += pattern[k];
    }
  }
  return line;
}

} // namespace torvale::compartment
