#pragma once
#include <optional>
#include <string>
#include <string_view>

// Dates as numbers: a date is days, a date-time seconds since 1960-01-01 (a time of day: seconds since midnight) in the
// proleptic Gregorian calendar, years 1 to 9999. No time zones, no leap seconds.
namespace torvale::host {

struct CivilDate {
  int year = 1960;
  int month = 1; // 1 to 12
  int day = 1;   // 1 to 31
};

inline constexpr double seconds_per_day = 86400.0;

// Days of a date; nothing for one that does not exist.
std::optional<double> days_of(const CivilDate& date);
// The date of a day; the fraction of a day is dropped. Nothing outside the years 1 to 9999 and for missing values.
std::optional<CivilDate> date_of(double days);
int days_in_month(int year, int month);

// What kind of moment a number means.
enum class Moment { none, date, time, datetime };

// ISO spellings, the whole text: 2024-01-31; 13:30, 13:30:15, 13:30:15.25 (hours 0 to 23); a date, T or a blank, and a
// time, perhaps with Z behind it. Nothing for any other text, also for a date that does not exist.
std::optional<double> parse_iso(std::string_view text, Moment moment);
// The format that a column of moments gets when its file spells them in ISO form.
constexpr std::string_view iso_format(Moment moment)
{
  return moment == Moment::date       ? "YYMMDD10."
         : moment == Moment::time     ? "TIME8."
         : moment == Moment::datetime ? "ISODT19."
                                      : "";
}
// The moment that a text spells, none when it is not one of these.
Moment iso_moment(std::string_view text);

// Writes a moment so that parse_iso gives back the same number. False, with `out` as it was, when no such text exists
// (a fraction of a day as a date, a time of 30 hours).
bool append_iso(std::string& out, double x, Moment moment);

} // namespace torvale::host
