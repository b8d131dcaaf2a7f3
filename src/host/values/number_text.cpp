#include "host/values/missing.h"
#include "host/values/text.h"
#include <algorithm>
#include <charconv>
#include <cmath>
#include <system_error>

namespace torvale::host {

namespace {

bool is_digit(char c)
{
  return c >= '0' && c <= '9';
}

// Decimal exponent of a magnitude, 0 for 0.
int decimal_exponent(double x)
{
  return x == 0.0 ? 0 : static_cast<int>(std::floor(std::log10(std::fabs(x))));
}

// Out of the range of a double: too small (0 is as near as can be) or too large? Decided by the decimal exponent of the
// first digit that is not 0.
bool is_too_small(std::string_view s)
{
  const std::size_t e = s.find_first_of("eE");
  std::string_view mantissa = s.substr(0, e);
  long exponent = 0;
  if (e != std::string_view::npos) {
    std::string_view digits = s.substr(e + 1);
    if (digits.front() == '+') digits.remove_prefix(1);
    const auto [p, error] = std::from_chars(digits.data(), digits.data() + digits.size(), exponent);
    if (error != std::errc()) return digits.front() == '-';
  }
  const std::size_t point = std::min(mantissa.find('.'), mantissa.size());
  const std::size_t first = mantissa.find_first_of("123456789");
  if (first == std::string_view::npos) return true;
  const long place = first < point ? static_cast<long>(point - first) : -static_cast<long>(first - point);
  return exponent + place < 0;
}

std::string exponent_text(double x, int width)
{
  char buffer[40];
  for (int precision = std::max(0, width - 5); precision >= 0; --precision) {
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, x, std::chars_format::scientific, precision).ptr;
    if (end - buffer <= width || precision == 0) return {buffer, end};
  }
  return {};
}

std::string fixed_text(double x, int decimals)
{
  char buffer[400];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, x, std::chars_format::fixed, decimals).ptr;
  std::string text(buffer, end);
  // A value that rounds to nothing has no sign.
  if (text.front() == '-' && text.find_first_of("123456789") == std::string::npos) text.erase(0, 1);
  return text;
}

// As many digits as fit in `width` places, without trailing zeros; the shorter of plain and exponent form.
std::string best_text(double x, int width)
{
  // A whole number is written in full: 1000000, not 1e+06.
  if (x == std::floor(x) && std::fabs(x) < 1e15)
    if (std::string full = fixed_text(x, 0); static_cast<int>(full.size()) <= width) return full;
  std::string whole = shortest(x);
  if (static_cast<int>(whole.size()) <= width) return whole;
  const int exponent = decimal_exponent(x);
  if (exponent < width && exponent >= -4) {
    const int before = std::max(exponent, 0) + 1 + (x < 0 ? 1 : 0);
    std::string text = fixed_text(x, std::clamp(width - before - 1, 0, 60));
    if (text.find('.') != std::string::npos) {
      text.erase(text.find_last_not_of('0') + 1);
      if (text.back() == '.') text.pop_back();
    }
    if (static_cast<int>(text.size()) <= width) return text;
  }
  return exponent_text(x, width);
}

// Decimals that show at least `significant` digits of x in `width` places, or -1 when an exponent is needed.
int decimals_for(double x, int width, int significant)
{
  const int exponent = decimal_exponent(x);
  const int wanted = std::max(0, significant - 1 - exponent);
  const int before = std::max(exponent, 0) + 1 + (x < 0 ? 1 : 0);
  const int room = width - before - (wanted > 0 ? 1 : 0);
  if (room < 0) return -1;
  if (wanted <= room) return wanted;
  return -1;
}

// Decimals of a column under a best fit: enough for its smallest value, but not more than three beyond what its largest
// needs; none when all values are whole; -1 when no value can be shown without an exponent.
int common_decimals(const std::vector<double>& values, const NumberFormat& format)
{
  int most = -1, least = 1000, widest = 1;
  bool whole = true;
  for (const double x : values) {
    if (!std::isfinite(x) || x == 0.0) continue;
    whole = whole && x == std::floor(x) && std::fabs(x) < 1e15;
    const int decimals = decimals_for(x, format.width, format.digits);
    if (decimals < 0) continue;
    most = std::max(most, decimals);
    least = std::min(least, decimals);
    widest = std::max(widest, std::max(decimal_exponent(x), 0) + 1 + (x < 0 ? 1 : 0));
  }
  if (whole) return 0;
  if (most <= 0) return most;
  return std::clamp(format.width - widest - 1, 0, std::min(most, least + 3));
}

std::string special_text(double x)
{
  if (std::isinf(x)) return x > 0 ? "I" : "-I";
  return std::string(1, missing_letter(canonical_missing(x)));
}

} // namespace

void append_shortest(std::string& out, double x)
{
  if (std::isnan(x)) {
    const char letter = missing_letter(canonical_missing(x));
    out += '.';
    if (letter != '.') out += letter;
    return;
  }
  char buffer[40];
  out.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, x).ptr);
}

std::string shortest(double x)
{
  std::string out;
  append_shortest(out, x);
  return out;
}

std::string readable(double x)
{
  if (!std::isfinite(x)) return shortest(x);
  if (x == std::floor(x) && std::fabs(x) < 1e16) return fixed_text(x, 0);
  char buffer[40];
  return {buffer, std::to_chars(buffer, buffer + sizeof buffer, x, std::chars_format::general, 7).ptr};
}

std::optional<double> parse_number(std::string_view text)
{
  const bool plus = text.starts_with('+'); // from_chars does not take it
  if (plus) text.remove_prefix(1);
  const std::size_t sign = !plus && text.starts_with('-') ? 1 : 0;
  // from_chars knows words too (inf, nan) and would take them.
  if (sign == text.size() || !(text[sign] == '.' || is_digit(text[sign]))) return std::nullopt;
  double x = 0.0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), x);
  if (end != text.data() + text.size()) return std::nullopt;
  if (error == std::errc()) return x;
  if (error != std::errc::result_out_of_range || !is_too_small(text)) return std::nullopt;
  return sign == 1 ? -0.0 : 0.0;
}

std::optional<double> parse_missing(std::string_view text)
{
  if (text.empty() || text == ".") return missing;
  if (text.size() != 2 || text[0] != '.') return std::nullopt;
  const char c = text[1];
  const bool kind = c == '_' || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
  return kind ? std::optional<double>(special_missing(c)) : std::nullopt;
}

NumberFormat parse_format(std::string_view text)
{
  NumberFormat format;
  if (text.empty()) return format;
  const std::size_t digit = std::min(text.find_first_of("0123456789"), text.size());
  const std::string kind = wzstrup(text.substr(0, digit));
  if (kind == "D")
    format.kind = NumberFormat::Kind::best_fit;
  else if (kind == "PVALUE")
    format.kind = NumberFormat::Kind::probability;
  else if (kind.empty())
    format.kind = NumberFormat::Kind::fixed;
  const std::string_view sizes = text.substr(digit);
  const std::size_t point = std::min(sizes.find('.'), sizes.size());
  std::from_chars(sizes.data(), sizes.data() + point, format.width);
  if (point == sizes.size()) return format;
  const auto rest = std::from_chars(sizes.data() + point + 1, sizes.data() + sizes.size(), format.digits);
  if (rest.ptr != sizes.data() + sizes.size())
    std::from_chars(rest.ptr + 1, sizes.data() + sizes.size(), format.least_decimals);
  return format;
}

std::string format_number(double x, const NumberFormat& format)
{
  if (!std::isfinite(x)) return special_text(x);
  switch (format.kind) {
  case NumberFormat::Kind::fixed: {
    std::string text = fixed_text(x, format.digits);
    return static_cast<int>(text.size()) <= format.width ? text : best_text(x, format.width);
  }
  case NumberFormat::Kind::probability: {
    const double smallest = std::pow(10.0, -format.digits);
    const bool below = x >= 0.0 && x < smallest;
    std::string text = fixed_text(below ? smallest : x, format.digits);
    if (below) text[0] = '<'; // in place of the leading zero
    return text;
  }
  case NumberFormat::Kind::best_fit: {
    if (x == 0.0) return "0";
    int decimals = decimals_for(x, format.width, format.digits);
    // Of a value that is too small for the width the least decimals would show nothing but zeros.
    if (decimals >= 0) decimals = std::max(decimals, format.least_decimals);
    return decimals < 0 ? exponent_text(x, format.width) : fixed_text(x, decimals);
  }
  case NumberFormat::Kind::best:
    break;
  }
  return best_text(x, format.width);
}

std::vector<std::string> format_column(const std::vector<double>& values, const NumberFormat& format)
{
  int common = format.kind == NumberFormat::Kind::best_fit ? common_decimals(values, format) : -1;
  if (format.least_decimals > 0) common = std::max(common, format.least_decimals);
  std::vector<std::string> out;
  out.reserve(values.size());
  for (const double x : values) {
    const int own = std::isfinite(x) && x != 0.0 ? decimals_for(x, format.width, format.digits) : 0;
    // A value that the common decimals would show with more than two digits too few keeps its own form.
    const bool fits = common >= 0 && std::isfinite(x) && own >= 0 && own - 2 <= common;
    std::string text = fits ? fixed_text(x, common) : format_number(x, format);
    if (static_cast<int>(text.size()) > format.width) text = format_number(x, format);
    out.push_back(std::move(text));
  }
  return out;
}

} // namespace torvale::host
