#include "language/lexical.h"

#include "host/values/missing.h"

#include <charconv>
#include <cstdint>
#include <limits>

namespace torvale::language {

namespace {

bool digit(char c)
{
  return c >= '0' && c <= '9';
}
bool hexadecimal_digit(char c)
{
  return digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
char at_or_nul(std::string_view text, std::size_t at)
{
  return at < text.size() ? text[at] : '\0';
}

std::size_t digits_end(std::string_view text, std::size_t at)
{
  while (at < text.size() && digit(text[at])) ++at;
  return at;
}

// A whole number of 1 to `most` digits at the front of s, which is shortened by it.
std::optional<int> take_number(std::string_view& s, std::size_t most)
{
  const std::size_t end = digits_end(s, 0);
  if (end == 0 || end > most) return {};
  int value = 0;
  for (char c : s.substr(0, end)) value = 10 * value + (c - '0');
  s.remove_prefix(end);
  return value;
}

bool take_char(std::string_view& s, char c)
{
  if (s.empty() || s.front() != c) return false;
  s.remove_prefix(1);
  return true;
}

// Days from 1960-01-01 of the proleptic Gregorian calendar (Howard Hinnant, "chrono-compatible low-level date
// algorithms", days_from_civil, shifted from 1970).
double days_from_civil(int y, int m, int d)
{
  y -= m <= 2;
  const int era = (y >= 0 ? y : y - 399) / 400;
  const int year_of_era = y - era * 400;
  const int day_of_year = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return static_cast<double>(era) * 146097 + day_of_era - 719468 + 3653;
}

std::optional<double> valid_date(int y, int m, int d)
{
  static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (m < 1 || m > 12 || y < 1) return {};
  const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  if (d < 1 || d > days[m - 1] + (m == 2 && leap ? 1 : 0)) return {};
  return days_from_civil(y, m, d);
}

// The date at the front of s, which is shortened by it.
std::optional<double> take_date(std::string_view& s)
{
  static const std::string_view months = "JANFEBMARAPRMAYJUNJULAUGSEPOCTNOVDEC";
  const auto first = take_number(s, 4);
  if (!first) return {};
  if (take_char(s, '-')) {
    const auto month = take_number(s, 2);
    if (!month || !take_char(s, '-')) return {};
    const auto day = take_number(s, 2);
    if (!day) return {};
    return valid_date(*first, *month, *day);
  }
  if (s.size() < 3) return {};
  const std::size_t place = months.find(upper_case(s.substr(0, 3)));
  if (place == std::string_view::npos || place % 3 != 0) return {};
  s.remove_prefix(3);
  const auto year = take_number(s, 4);
  if (!year) return {};
  return valid_date(*year, static_cast<int>(place / 3) + 1, *first);
}

std::optional<double> take_time(std::string_view& s)
{
  const auto hours = take_number(s, 4);
  if (!hours || !take_char(s, ':')) return {};
  const auto minutes = take_number(s, 2);
  if (!minutes || *minutes > 59) return {};
  double seconds = 0.0;
  if (take_char(s, ':')) {
    const NumberShape shape = s.empty() || !digit(s.front()) ? NumberShape{0, false, false} : number_shape(s, 0);
    if (shape.end == 0 || shape.hexadecimal) return {};
    seconds = number_value(s.substr(0, shape.end), false);
    if (!(seconds < 60.0)) return {};
    s.remove_prefix(shape.end);
  }
  return 3600.0 * *hours + 60.0 * *minutes + seconds;
}

} // namespace

bool name_start(char c)
{
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}
bool name_char(char c)
{
  return name_start(c) || digit(c);
}
char upper_case(char c)
{
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

std::string upper_case(std::string_view s)
{
  std::string out(s);
  for (char& c : out) c = upper_case(c);
  return out;
}

Shape shape_at(std::string_view text, std::size_t at)
{
  if (at >= text.size()) return Shape::end;
  const char c = text[at];
  if (name_start(c)) return Shape::word;
  if (digit(c) || (c == '.' && digit(at_or_nul(text, at + 1)))) return Shape::number;
  if (c == '\'' || c == '"') return Shape::text;
  if (c == '.') return Shape::missing;
  return Shape::mark;
}

std::size_t word_end(std::string_view text, std::size_t at)
{
  while (at < text.size() && name_char(text[at])) ++at;
  return at;
}

std::size_t dotted_end(std::string_view text, std::size_t at)
{
  std::size_t end = word_end(text, at);
  while (at_or_nul(text, end) == '.' && name_start(at_or_nul(text, end + 1))) end = word_end(text, end + 1);
  return end;
}

std::size_t format_end(std::string_view text, std::size_t at)
{
  std::size_t i = at;
  if (at_or_nul(text, i) == '$') ++i;
  i = word_end(text, i); // name and width; a width alone is digits, which are name characters
  if (at_or_nul(text, i) != '.' || i == at) return std::string_view::npos;
  return digits_end(text, i + 1);
}

std::size_t missing_end(std::string_view text, std::size_t at)
{
  if (name_start(at_or_nul(text, at + 1)) && !name_char(at_or_nul(text, at + 2))) return at + 2;
  return at + 1;
}

NumberShape number_shape(std::string_view text, std::size_t at)
{
  if (digit(text[at])) {
    std::size_t h = at;
    while (h < text.size() && hexadecimal_digit(text[h])) ++h;
    if ((at_or_nul(text, h) == 'x' || at_or_nul(text, h) == 'X') && !name_char(at_or_nul(text, h + 1)))
      return {h + 1, true, true};
  }
  bool whole = true;
  std::size_t end = digits_end(text, at);
  if (at_or_nul(text, end) == '.') {
    whole = false;
    end = digits_end(text, end + 1);
  }
  if (at_or_nul(text, end) == 'e' || at_or_nul(text, end) == 'E') {
    std::size_t e = end + 1;
    if (at_or_nul(text, e) == '+' || at_or_nul(text, e) == '-') ++e;
    if (digit(at_or_nul(text, e))) {
      whole = false;
      end = digits_end(text, e);
    }
  }
  return {end, whole, false};
}

double number_value(std::string_view digits, bool hexadecimal)
{
  double value = 0.0;
  if (hexadecimal) {
    for (char c : digits.substr(0, digits.size() - 1))
      value = 16.0 * value + (digit(c) ? c - '0' : upper_case(c) - 'A' + 10);
    return value;
  }
  const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (result.ec == std::errc::result_out_of_range) {
    // Too large is infinite (the caller reports it), too small is 0: told apart by the sign of the exponent.
    const std::size_t e = digits.find_first_of("eE");
    const bool small = e == std::string_view::npos ? digits.find_first_of("123456789") > digits.find('.')
                                                   : at_or_nul(digits, e + 1) == '-';
    return small ? 0.0 : std::numeric_limits<double>::infinity();
  }
  return value;
}

QuoteShape quote_shape(std::string_view text, std::size_t at)
{
  const char quote = text[at];
  std::size_t i = at + 1;
  for (; i < text.size() && text[i] != '\n'; ++i) {
    if (text[i] != quote) continue;
    if (at_or_nul(text, i + 1) != quote) break;
    ++i;
  }
  if (at_or_nul(text, i) != quote) {
    // Not closed: ends at the first semicolon, so that the statements behind it are still read.
    const std::size_t semicolon = text.substr(0, i).find(';', at);
    const std::size_t end = semicolon == std::string_view::npos ? i : semicolon;
    return {end, end, false, 0};
  }
  QuoteShape shape{i + 1, i, true, 0};
  const char s = upper_case(at_or_nul(text, i + 1));
  if ((s == 'N' || s == 'D' || s == 'T') && !name_char(at_or_nul(text, i + 2))) {
    shape.suffix = s == 'N' ? 'n' : s == 'D' ? 'd' : 't';
    shape.end = i + 2;
  } else if (s == 'D' && upper_case(at_or_nul(text, i + 2)) == 'T' && !name_char(at_or_nul(text, i + 3))) {
    shape.suffix = 'm';
    shape.end = i + 3;
  }
  return shape;
}

std::string unquoted(std::string_view inside, char quote)
{
  std::string out;
  for (std::size_t i = 0; i < inside.size(); ++i) {
    out += inside[i];
    if (inside[i] == quote) ++i;
  }
  return out;
}

std::size_t closing_bracket(std::string_view text, std::size_t at)
{
  int depth = 0;
  for (std::size_t i = at; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\'' || c == '"') {
      const std::size_t close = text.find(c, i + 1);
      if (close == std::string_view::npos) return close;
      i = close;
    } else if (c == '(') {
      ++depth;
    } else if (c == ')' && --depth == 0) {
      return i + 1;
    }
  }
  return std::string_view::npos;
}

std::size_t skip_blanks(std::string_view text, std::size_t at, std::size_t* unclosed)
{
  while (at < text.size()) {
    const char c = text[at];
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v') {
      ++at;
    } else if (c == '/' && at_or_nul(text, at + 1) == '*') {
      const std::size_t close = text.find("*/", at + 2);
      if (close == std::string_view::npos) {
        if (unclosed) *unclosed = at;
        return text.size();
      }
      at = close + 2;
    } else {
      break;
    }
  }
  return at;
}

std::optional<double> date_value(std::string_view s)
{
  const auto value = take_date(s);
  return s.empty() ? value : std::nullopt;
}

std::optional<double> time_value(std::string_view s)
{
  const auto value = take_time(s);
  return s.empty() ? value : std::nullopt;
}

std::optional<double> datetime_value(std::string_view s)
{
  const auto date = take_date(s);
  if (!date || (!take_char(s, ':') && !take_char(s, ' ') && !take_char(s, 'T'))) return {};
  const auto time = take_time(s);
  if (!time || !s.empty()) return {};
  return 86400.0 * *date + *time;
}

} // namespace torvale::language
