#pragma once
// Lexical shapes: where a token of each class ends. Pure functions of a text and a place in it; they know no grammar.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace torvale::language {

bool name_start(char c); // letter or underscore
bool name_char(char c);  // letter, digit or underscore
char upper_case(char c);
std::string upper_case(std::string_view s);

// What stands at a place of a text, told by its first characters.
enum class Shape { end, word, number, text, missing, mark };
Shape shape_at(std::string_view text, std::size_t at);

std::size_t word_end(std::string_view text, std::size_t at);
// End of a dotted name a.b or a.b.c that begins with the word at `at`; the word's end when no dot and name follow.
std::size_t dotted_end(std::string_view text, std::size_t at);
// End of a format: $8.  f12.2  8.  $char8.  ; npos when there is none.
std::size_t format_end(std::string_view text, std::size_t at);
// End of ".", ".A", "._" (a letter counts only when no name character follows it).
std::size_t missing_end(std::string_view text, std::size_t at);

struct NumberShape {
  std::size_t end;
  bool whole;       // no point and no exponent
  bool hexadecimal; // a digit, hexadecimal digits, x
};
NumberShape number_shape(std::string_view text, std::size_t at);
double number_value(std::string_view digits, bool hexadecimal);

// A quoted text; it must close on its line.
struct QuoteShape {
  std::size_t end;    // behind the closing quote and the suffix
  std::size_t inside; // place of the closing quote
  bool closed;
  char suffix; // 0, 'n' name, 'd' date, 't' time, 'm' date and time
};
QuoteShape quote_shape(std::string_view text, std::size_t at);
// The characters between quotes: doubled quotes halved.
std::string unquoted(std::string_view inside, char quote);

// Place behind the bracket that closes the one at `at`; quoted texts are passed over. npos when it is not closed.
std::size_t closing_bracket(std::string_view text, std::size_t at);
// Place behind blanks and /* comments */. An unclosed comment sets *unclosed to its place and ends at the text's end.
std::size_t skip_blanks(std::string_view text, std::size_t at, std::size_t* unclosed);

// Days since 1960-01-01 of "01jan2020" or "2020-01-31"; seconds of "12:30[:15[.5]]"; seconds since 1960 of
// "01jan2020:12:30:15". Nothing when the text is none of these.
std::optional<double> date_value(std::string_view s);
std::optional<double> time_value(std::string_view s);
std::optional<double> datetime_value(std::string_view s);

} // namespace torvale::language
