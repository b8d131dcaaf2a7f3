#pragma once
// Tokens: what the scanner hands to the parser.

#include "syntax/source.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace torvale::language {

// The token classes, by their symbol numbers.
namespace token_class {
constexpr int ENDJB = 1, NAMEX = 2, QS = 3, INT = 4, NBR = 5, COMPOUND = 6, FMT = 7, DATE = 8, TIME = 9, DATETIME = 10,
              MISSING = 11, VLITERAL = 12, CATNAME = 13, HSTDS = 14, unknown_character = 15; // 15 is RESERVED1
}

struct Token {
  int symbol = 0;          // terminal of the grammar
  syntax::Position where;  // first character
  std::int32_t length = 0; // characters in the source
  std::size_t begin = 0;   // offset in its text
  std::string_view text;   // interned: a name or keyword as first spelled, a quoted text without quotes and doubling,
                           // a number as typed, a data set's bracket without the parentheses
  double number = 0.0;     // of number classes and MISSING
};

inline bool is_number(const Token& t)
{
  return t.symbol == token_class::INT || t.symbol == token_class::NBR || t.symbol == token_class::DATE ||
         t.symbol == token_class::TIME || t.symbol == token_class::DATETIME;
}

} // namespace torvale::language
