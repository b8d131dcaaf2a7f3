#include "host/values/calendar.h"
#include "host/values/text.h"
#include <charconv>
#include <cmath>

namespace torvale::host {

namespace {

constexpr double last_day = 2936549.0;     // 9999-12-31
constexpr double first_day = -715509.0;    // 0001-01-01
constexpr int days_to_1960 = 715509 + 306; // from 0000-03-01, where the years of the algorithms below begin

// The first `digits` characters of text as a number, and the text without them; -1 when they are not all digits.
int take_digits(std::string_view& text, std::size_t digits)
{
  if (text.size() < digits) return -1;
  int value = 0;
  for (std::size_t i = 0; i < digits; ++i) {
    if (text[i] < '0' || text[i] > '9') return -1;
    value = 10 * value + (text[i] - '0');
  }
  text.remove_prefix(digits);
  return value;
}

bool take(std::string_view& text, char c)
{
  if (text.empty() || text.front() != c) return false;
  text.remove_prefix(1);
  return true;
}

std::optional<double> take_date(std::string_view& text)
{
  CivilDate date;
  date.year = take_digits(text, 4);
  if (date.year < 0 || !take(text, '-')) return std::nullopt;
  date.month = take_digits(text, 2);
  if (date.month < 0 || !take(text, '-')) return std::nullopt;
  date.day = take_digits(text, 2);
  return days_of(date);
}

std::optional<double> take_time(std::string_view& text)
{
  const int hours = take_digits(text, text.size() > 1 && text[1] == ':' ? 1 : 2);
  if (hours < 0 || hours > 23 || !take(text, ':')) return std::nullopt;
  const int minutes = take_digits(text, 2);
  if (minutes < 0 || minutes > 59) return std::nullopt;
  const double whole = 3600.0 * hours + 60.0 * minutes;
  if (!take(text, ':')) return whole;
  const std::size_t length = std::min(text.find_first_not_of("0123456789."), text.size());
  if (length < 2 || (length > 2 && text[2] != '.')) return std::nullopt;
  const auto seconds = parse_number(text.substr(0, length));
  if (!seconds || !(*seconds < 60.0)) return std::nullopt;
  text.remove_prefix(length);
  return whole + *seconds;
}

void append_two_digits(std::string& out, int value)
{
  out += static_cast<char>('0' + value / 10);
  out += static_cast<char>('0' + value % 10);
}

bool append_date(std::string& out, double days)
{
  if (days != std::floor(days)) return false;
  const auto date = date_of(days);
  if (!date) return false;
  append_two_digits(out, date->year / 100);
  append_two_digits(out, date->year % 100);
  out += '-';
  append_two_digits(out, date->month);
  out += '-';
  append_two_digits(out, date->day);
  return true;
}

// A time of day with as few decimals of its seconds as give back `before` + `seconds`.
bool append_time(std::string& out, double before, double seconds)
{
  if (!(seconds >= 0.0 && seconds < seconds_per_day)) return false;
  const int minutes = static_cast<int>(seconds / 60.0);
  std::string text;
  append_two_digits(text, minutes / 60);
  text += ':';
  append_two_digits(text, minutes % 60);
  text += ':';
  const double rest = seconds - 60.0 * minutes;
  for (const int decimals : {0, 1, 2, 3, 6, 9}) {
    char buffer[40];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, rest, std::chars_format::fixed, decimals).ptr;
    const std::string_view digits(buffer, static_cast<std::size_t>(end - buffer));
    const std::string whole = text + (std::min(digits.find('.'), digits.size()) < 2 ? "0" : "") + std::string(digits);
    const auto value = parse_iso(whole, Moment::time);
    if (!value || before + *value != before + seconds) continue;
    out += whole;
    return true;
  }
  return false;
}

} // namespace

int days_in_month(int year, int month)
{
  static constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return days[month - 1] + (month == 2 && leap ? 1 : 0);
}

// Howard Hinnant, "chrono-compatible low-level date algorithms": years that begin in March, in eras of 400.
std::optional<double> days_of(const CivilDate& date)
{
  const auto [year, month, day] = date;
  if (year < 1 || year > 9999 || month < 1 || month > 12 || day < 1 || day > days_in_month(year, month))
    return std::nullopt;
  const int y = year - (month <= 2 ? 1 : 0);
  const int era = y / 400;
  const int year_of_era = y - era * 400;
  const int day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const int day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return static_cast<double>(era * 146097 + day_of_era - days_to_1960);
}

std::optional<CivilDate> date_of(double days)
{
  days = std::floor(days);
  if (!(days >= first_day && days <= last_day)) return std::nullopt;
  const int z = static_cast<int>(days) + days_to_1960;
  const int era = z / 146097;
  const int day_of_era = z - era * 146097;
  const int year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
  const int day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const int m = (5 * day_of_year + 2) / 153; // from March
  CivilDate date;
  date.day = day_of_year - (153 * m + 2) / 5 + 1;
  date.month = m < 10 ? m + 3 : m - 9;
  date.year = year_of_era + era * 400 + (date.month <= 2 ? 1 : 0);
  return date;
}

std::optional<double> parse_iso(std::string_view text, Moment moment)
{
  std::optional<double> value;
  if (moment == Moment::date) value = take_date(text);
  if (moment == Moment::time) value = take_time(text);
  if (moment == Moment::datetime) {
    const auto day = take_date(text);
    if (!day || !(take(text, 'T') || take(text, ' '))) return std::nullopt;
    const auto time = take_time(text);
    if (!time) return std::nullopt;
    take(text, 'Z');
    value = *day * seconds_per_day + *time;
  }
  return text.empty() ? value : std::nullopt;
}

Moment iso_moment(std::string_view text)
{
  if (text.size() < 4 || text.front() < '0' || text.front() > '9') return Moment::none;
  for (const Moment moment : {Moment::date, Moment::time, Moment::datetime})
    if (parse_iso(text, moment)) return moment;
  return Moment::none;
}

bool append_iso(std::string& out, double x, Moment moment)
{
  if (moment == Moment::date) return append_date(out, x);
  if (moment == Moment::time) return append_time(out, 0.0, x);
  const std::size_t before = out.size();
  const double day = std::floor(x / seconds_per_day);
  if (moment == Moment::datetime && append_date(out, day)) {
    out += 'T';
    if (append_time(out, day * seconds_per_day, x - day * seconds_per_day)) return true;
  }
  out.resize(before);
  return false;
}

} // namespace torvale::host
