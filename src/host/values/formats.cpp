#include "host/values/formats.h"
#include "host/values/missing.h"
#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>

namespace torvale::host {

namespace {

using Kind = ValueFormat::Kind;

struct Row {
  std::string_view name;
  Kind kind;
  int usual; // width when none is given
  int least;
  int most;
};

constexpr Row rows[] = {{"", Kind::fixed, 12, 1, 64},
                        {"F", Kind::fixed, 12, 1, 64},
                        {"BEST", Kind::best, 12, 1, 32},
                        {"D", Kind::best_fit, 12, 1, 32},
                        {"PVALUE", Kind::probability, 6, 3, 32},
                        {"Z", Kind::zeros, 8, 1, 64},
                        {"COMMA", Kind::comma, 12, 1, 64},
                        {"COMMAX", Kind::comma_point, 12, 1, 64},
                        {"PERCENT", Kind::percent, 6, 3, 64},
                        {"E", Kind::exponent, 12, 7, 32},
                        {"HEX", Kind::hexadecimal, 8, 1, 16},
                        {"DATE", Kind::date, 9, 5, 11},
                        {"DATETIME", Kind::datetime, 18, 7, 40},
                        {"TIME", Kind::time, 8, 2, 20},
                        {"YYMMDD", Kind::yymmdd, 10, 6, 10},
                        {"DDMMYY", Kind::ddmmyy, 10, 6, 10},
                        {"MMDDYY", Kind::mmddyy, 10, 6, 10},
                        {"MONYY", Kind::monyy, 7, 5, 7},
                        {"YEAR", Kind::year, 4, 4, 32},
                        {"MONTH", Kind::month, 2, 1, 32},
                        {"DAY", Kind::day, 2, 1, 32},
                        {"ISODT", Kind::iso_datetime, 19, 19, 26},
                        {"$", Kind::characters, 0, 0, 32767},
                        {"$CHAR", Kind::characters, 0, 0, 32767},
                        {"$QUOTE", Kind::quote, 0, 0, 32767},
                        {"$UPCASE", Kind::upper, 0, 0, 32767}};

constexpr std::string_view month_names = "JANFEBMARAPRMAYJUNJULAUGSEPOCTNOVDEC";

std::string fixed(double x, int decimals)
{
  char buffer[400];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, x, std::chars_format::fixed, decimals).ptr;
  std::string text(buffer, end);
  if (text.front() == '-' && text.find_first_of("123456789") == std::string::npos) text.erase(0, 1); // no -0
  return text;
}

std::string two(int value)
{
  return {static_cast<char>('0' + value / 10 % 10), static_cast<char>('0' + value % 10)};
}

std::string four(int value)
{
  return two(value / 100) + two(value % 100);
}

std::string grouped(double x, const ValueFormat& format)
{
  std::string text = fixed(std::fabs(x), format.decimals);
  const bool minus = x < 0.0 && text.find_first_of("123456789") != std::string::npos;
  const bool swap = format.kind == Kind::comma_point;
  std::size_t point = std::min(text.find('.'), text.size());
  if (point < text.size() && swap) text[point] = ',';
  for (; point > 3; point -= 3) text.insert(point - 3, 1, swap ? '.' : ',');
  return (minus ? "-" : "") + text;
}

// As many digits as fit, in capital letters: 1.250E-01.
std::string exponent(double x, int width)
{
  for (int digits = width - 6; digits >= 0; --digits) {
    char buffer[64];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, x, std::chars_format::scientific, digits).ptr;
    if (end - buffer <= width || digits == 0) return wzstrup({buffer, static_cast<std::size_t>(end - buffer)});
  }
  return {};
}

std::string hexadecimal(double x, int width)
{
  const auto digits = static_cast<std::size_t>(width);
  std::uint64_t bits = 0;
  if (width == 16) {
    bits = std::bit_cast<std::uint64_t>(x);
  } else {
    const double whole = std::trunc(x);
    if (!(std::fabs(whole) < 0x1p60)) return {};
    bits = static_cast<std::uint64_t>(static_cast<std::int64_t>(whole));
    if (whole >= 0.0 && width < 15 && bits >> (4 * width) != 0) return {};
  }
  std::string text;
  for (std::size_t i = 0; i < digits; ++i) text += "0123456789ABCDEF"[(bits >> (4 * (digits - 1 - i))) & 15];
  return text;
}

std::string clock(double seconds, int width, int decimals)
{
  const double shown = std::floor(std::fabs(seconds) * std::pow(10.0, decimals) + 1e-6) / std::pow(10.0, decimals);
  if (!(shown < 1e9)) return {};
  const auto minutes = static_cast<long>(shown / 60.0);
  const std::string sign = seconds < 0.0 ? "-" : "";
  std::string text = sign + std::to_string(minutes / 60);
  if (width >= 5) text += ":" + two(static_cast<int>(minutes % 60));
  if (width < 8) return text;
  const std::string rest = fixed(shown - 60.0 * static_cast<double>(minutes), decimals);
  return text + ":" + (std::min(rest.find('.'), rest.size()) < 2 ? "0" : "") + rest;
}

std::string date_word(const CivilDate& date, int width)
{
  const std::string month(month_names.substr(3 * static_cast<std::size_t>(date.month - 1), 3));
  if (width < 7) return two(date.day) + month;
  if (width < 9) return two(date.day) + month + two(date.year % 100);
  if (width < 11) return two(date.day) + month + four(date.year);
  return two(date.day) + "-" + month + "-" + four(date.year);
}

// Three numbers: 8 places leave the century out, 6 the signs between too.
std::string date_digits(const std::string& year, const std::string& a, const std::string& b, char sign, int width,
                        bool year_first)
{
  const std::string between = width < 8 ? "" : std::string(1, sign);
  const std::string shown = width < 10 ? year.substr(2) : year;
  return year_first ? shown + between + a + between + b : a + between + b + between + shown;
}

std::string moment_text(double x, const ValueFormat& format)
{
  if (format.kind == Kind::time) return clock(x, format.width, format.decimals);
  const bool with_time = format.kind == Kind::datetime || format.kind == Kind::iso_datetime;
  const auto date = date_of(with_time ? x / seconds_per_day : x);
  if (!date) return {};
  const double seconds = with_time ? x - std::floor(x / seconds_per_day) * seconds_per_day : 0.0;
  const std::string day = two(date->day), month = two(date->month), year = four(date->year);
  switch (format.kind) {
  case Kind::date:
    return date_word(*date, format.width);
  case Kind::datetime: {
    if (format.width < 13) return date_word(*date, std::min(format.width, 9));
    // The date takes nine places; hours alone from 13 on, minutes from 16, seconds from 18.
    std::string time = clock(seconds, format.width < 16 ? 2 : format.width < 18 ? 5 : 8, format.decimals);
    if (seconds < 36000.0) time.insert(0, "0");
    return date_word(*date, 9) + ":" + time;
  }
  case Kind::iso_datetime: {
    std::string time = clock(seconds, 8, format.decimals);
    if (seconds < 36000.0) time.insert(0, "0");
    return year + "-" + month + "-" + day + "T" + time;
  }
  case Kind::yymmdd:
    return date_digits(year, month, day, '-', format.width, true);
  case Kind::ddmmyy:
    return date_digits(year, day, month, '/', format.width, false);
  case Kind::mmddyy:
    return date_digits(year, month, day, '/', format.width, false);
  case Kind::monyy:
    return std::string(month_names.substr(3 * static_cast<std::size_t>(date->month - 1), 3)) +
           (format.width < 7 ? year.substr(2) : year);
  case Kind::year:
    return std::to_string(date->year);
  case Kind::month:
    return std::to_string(date->month);
  default:
    return std::to_string(date->day);
  }
}

std::string number_text(double x, const ValueFormat& format)
{
  switch (format.kind) {
  case Kind::fixed:
    return format_number(x, {NumberFormat::Kind::fixed, format.width, format.decimals});
  case Kind::best_fit:
    return format_number(x, {NumberFormat::Kind::best_fit, format.width, format.decimals});
  case Kind::probability:
    return format_number(x, {NumberFormat::Kind::probability, format.width, format.decimals});
  case Kind::zeros: {
    std::string text = fixed(x, format.decimals);
    const std::size_t sign = text.front() == '-' ? 1 : 0;
    const auto width = static_cast<std::size_t>(format.width);
    if (text.size() < width) text.insert(sign, width - text.size(), '0');
    return text;
  }
  case Kind::comma:
  case Kind::comma_point: {
    std::string text = grouped(x, format);
    if (static_cast<int>(text.size()) <= format.width) return text;
    return format_number(x, {NumberFormat::Kind::fixed, format.width, format.decimals});
  }
  case Kind::percent:
    return fixed(100.0 * x, format.decimals) + "%";
  case Kind::exponent:
    return exponent(x, format.width);
  case Kind::hexadecimal:
    return hexadecimal(x, format.width);
  case Kind::best:
    return format_number(x, {NumberFormat::Kind::best, format.width, 0});
  default:
    return moment_text(x, format);
  }
}

// 31JAN2024, 31JAN24, 31-JAN-2024 with something behind it, which stays in `text`.
std::optional<double> read_date_word(std::string_view& text)
{
  CivilDate date;
  const auto number = [&](std::size_t most, int& value) {
    const std::size_t end = std::min(text.find_first_not_of("0123456789"), text.size());
    if (end == 0 || end > most) return false;
    std::from_chars(text.data(), text.data() + end, value);
    text.remove_prefix(end);
    return true;
  };
  if (!number(2, date.day)) return std::nullopt;
  const bool dashes = text.starts_with('-');
  if (dashes) text.remove_prefix(1);
  const std::size_t place = text.size() < 3 ? std::string_view::npos : month_names.find(wzstrup(text.substr(0, 3)));
  if (place == std::string_view::npos || place % 3 != 0) return std::nullopt;
  date.month = static_cast<int>(place / 3) + 1;
  text.remove_prefix(3);
  if (dashes && !text.starts_with('-')) return std::nullopt;
  if (dashes) text.remove_prefix(1);
  const std::size_t before = text.size();
  if (!number(4, date.year)) return std::nullopt;
  if (before - text.size() == 2) date.year += date.year < 40 ? 2000 : 1900; // two digits: 1940 to 2039
  return days_of(date);
}

// Digits with signs between them, in the order that the format has.
std::optional<double> read_date_digits(std::string_view text, Kind kind)
{
  std::string digits;
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c >= '0' && c <= '9')
      parts.back() += c;
    else
      parts.emplace_back();
  }
  if (parts.size() == 1) { // 20240131, 240131
    const std::string all = parts[0];
    if (all.size() != 6 && all.size() != 8) return std::nullopt;
    const std::size_t year = all.size() - 4;
    if (kind == Kind::yymmdd)
      parts = {all.substr(0, year), all.substr(year, 2), all.substr(year + 2)};
    else
      parts = {all.substr(0, 2), all.substr(2, 2), all.substr(4)};
  }
  if (parts.size() != 3) return std::nullopt;
  if (kind == Kind::ddmmyy) std::swap(parts[0], parts[2]);
  if (kind == Kind::mmddyy) parts = {parts[2], parts[0], parts[1]};
  int numbers[3] = {0, 0, 0};
  for (std::size_t i = 0; i < 3; ++i) {
    if (parts[i].empty() || parts[i].size() > 4) return std::nullopt;
    std::from_chars(parts[i].data(), parts[i].data() + parts[i].size(), numbers[i]);
  }
  if (parts[0].size() == 2) numbers[0] += numbers[0] < 40 ? 2000 : 1900;
  return days_of({numbers[0], numbers[1], numbers[2]});
}

double read_moment(std::string_view text, const ValueFormat& format)
{
  if (const auto value = parse_iso(text, format.moment())) return *value;
  if (format.moment() == Moment::time) return missing;
  std::string_view rest = text;
  const auto day = read_date_word(rest);
  if (format.moment() == Moment::datetime) {
    if (!day || rest.size() < 2) return missing;
    const auto time = parse_iso(rest.substr(1), Moment::time);
    return time ? *day * seconds_per_day + *time : missing;
  }
  if (day && rest.empty()) return *day;
  return read_date_digits(text, format.kind).value_or(missing);
}

} // namespace

Moment ValueFormat::moment() const
{
  if (kind == Kind::time) return Moment::time;
  if (kind == Kind::datetime || kind == Kind::iso_datetime) return Moment::datetime;
  return kind >= Kind::date && kind <= Kind::day ? Moment::date : Moment::none;
}

std::string format_names()
{
  std::string names;
  for (const Row& row : rows)
    if (!row.name.empty()) names += (names.empty() ? "" : ", ") + std::string(row.name);
  return names;
}

std::optional<ValueFormat> parse_value_format(std::string_view text, std::string& problem)
{
  const std::string given = wzstrup(stripped(text));
  const std::size_t name_end = std::min(given.find_first_of("0123456789."), given.size());
  const std::string_view name = std::string_view(given).substr(0, name_end);
  const auto* row = std::find_if(std::begin(rows), std::end(rows), [&](const Row& r) { return r.name == name; });
  if (row == std::end(rows) || (name.empty() && name_end == given.size())) {
    std::vector<std::string> names;
    for (const Row& r : rows) names.emplace_back(r.name);
    const std::string near = nearest_name(name, names);
    problem = "there is no format " + given +
              (near.empty() ? "; there are w.d, " + format_names() : "; did you mean " + near + "?");
    return std::nullopt;
  }
  ValueFormat format{row->kind, row->usual, 0};
  const char* const end = given.data() + given.size();
  const char* at = given.data() + name_end;
  const auto take_number = [&](int& number) {
    if (at == end || *at < '0' || *at > '9') return false;
    const auto [behind, error] = std::from_chars(at, end, number);
    if (error != std::errc()) number = 100000; // wider than any format
    at = behind;
    return true;
  };
  const bool width_given = take_number(format.width);
  if (at != end && *at == '.') {
    ++at;
    take_number(format.decimals);
  }
  if (at != end) {
    problem = "the format " + given + " is not a name, a width, a point and a number of decimals";
  } else if (width_given && (format.width < std::max(row->least, 1) || format.width > row->most)) {
    problem = "the width of the format " + given + " must be " + std::to_string(std::max(row->least, 1)) + " to " +
              std::to_string(row->most);
  } else if (format.decimals > 0 && format.decimals >= format.width && row->kind != Kind::best_fit) {
    problem = "the format " + given + " has more decimals than its width holds";
  } else {
    return format;
  }
  return std::nullopt;
}

std::string format_value(double x, const ValueFormat& format)
{
  const auto width = static_cast<std::size_t>(format.width);
  if (format.character()) return format_text(shortest(x), format);
  if (std::isnan(x)) return padded_left(std::string(1, missing_letter(canonical_missing(x))), width);
  if (std::isinf(x) && !(format.kind == Kind::hexadecimal && width == 16))
    return padded_left(x > 0 ? "I" : "-I", width);
  std::string text = number_text(x, format);
  if (text.empty() || text.size() > width) text = std::string(width, '*');
  return padded_left(text, width);
}

std::string format_text(std::string_view text, const ValueFormat& format)
{
  std::string out(text.substr(0, std::min(text.find_last_not_of(' ') + 1, text.size())));
  if (format.kind == Kind::upper) out = wzstrup(out);
  if (format.kind == Kind::quote) {
    std::string quoted = "\"";
    for (const char c : out) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    out = quoted + '"';
  }
  if (!format.character() || format.width == 0) return out;
  out = std::string(cut_name(out, static_cast<std::size_t>(format.width)));
  return padded_right(out, static_cast<std::size_t>(format.width));
}

namespace {

// The exponent of numbers that older programs write: 1.5D+02.
bool is_letter_d(char c)
{
  return c == 'D' || c == 'd';
}

} // namespace

double read_value(std::string_view text, const ValueFormat& format)
{
  std::string spelled(stripped(text));
  if (const auto none = parse_missing(spelled)) return *none;
  if (format.moment() != Moment::none) return read_moment(spelled, format);
  if (format.kind == Kind::hexadecimal) {
    std::uint64_t bits = 0;
    const auto [end, error] = std::from_chars(spelled.data(), spelled.data() + spelled.size(), bits, 16);
    if (error != std::errc() || end != spelled.data() + spelled.size()) return missing;
    return format.width == 16 ? std::bit_cast<double>(bits) : static_cast<double>(bits);
  }
  double scale = 1.0;
  if (format.kind == Kind::comma) {
    const std::size_t sign = spelled.starts_with('-') ? 1 : 0;
    if (spelled.substr(sign, 1) == "$") spelled.erase(sign, 1);
    std::erase(spelled, ',');
  }
  if (format.kind == Kind::exponent) std::replace_if(spelled.begin(), spelled.end(), is_letter_d, 'E');
  if (format.kind == Kind::comma_point) {
    std::erase(spelled, '.');
    std::replace(spelled.begin(), spelled.end(), ',', '.');
  }
  if (format.kind == Kind::percent && spelled.ends_with('%')) {
    spelled.pop_back();
    scale = 100.0;
  }
  const auto value = parse_number(stripped(spelled));
  if (!value) return missing;
  if (format.decimals > 0 && spelled.find_first_of(".eE") == std::string::npos)
    scale *= std::pow(10.0, format.decimals);
  return *value / scale;
}

} // namespace torvale::host
