#include "host/values/calendar.h"
#include "host/values/formats.h"
#include "host/values/missing.h"
#include <cmath>
#include <ctime>
#include <gtest/gtest.h>

namespace torvale::host {

namespace {

ValueFormat format_of(const char* text)
{
  std::string problem;
  const auto format = parse_value_format(text, problem);
  EXPECT_TRUE(format) << text << ": " << problem;
  return format.value_or(ValueFormat{});
}

double day(int year, int month, int d)
{
  return days_of({year, month, d}).value_or(-1e9);
}

} // namespace

TEST(Calendar, AgreesWithTheSystemsOwn)
{
  EXPECT_EQ(day(1960, 1, 1), 0.0);
  for (double days = -715509; days <= 2936549; days += 997) {
    const auto date = date_of(days);
    ASSERT_TRUE(date);
    ASSERT_EQ(days_of(*date), days);
    std::tm broken{};
    const auto seconds = static_cast<std::time_t>((days - 3653) * 86400);
    ASSERT_TRUE(gmtime_r(&seconds, &broken));
    ASSERT_EQ(broken.tm_year + 1900, date->year);
    ASSERT_EQ(broken.tm_mon + 1, date->month);
    ASSERT_EQ(broken.tm_mday, date->day);
  }
  EXPECT_FALSE(date_of(-715510));
  EXPECT_FALSE(date_of(2936550));
  EXPECT_FALSE(date_of(missing));
  for (const CivilDate& none : {CivilDate{2023, 2, 29}, {1900, 2, 29}, {2024, 13, 1}, {2024, 4, 31}, {0, 1, 1}})
    EXPECT_FALSE(days_of(none));
  EXPECT_TRUE(days_of({2000, 2, 29}));
}

TEST(Calendar, IsoTextsGoBothWays)
{
  struct Row {
    const char* text;
    Moment moment;
    double value;
  };
  for (const Row& row : {Row{"2024-01-31", Moment::date, day(2024, 1, 31)},
                         {"0001-01-01", Moment::date, -715509},
                         {"13:30:15", Moment::time, 48615},
                         {"00:00:00.25", Moment::time, 0.25},
                         {"2024-02-29T23:59:59", Moment::datetime, (day(2024, 2, 29) + 1) * 86400 - 1},
                         {"1950-06-01T01:02:03.125", Moment::datetime, day(1950, 6, 1) * 86400 + 3723.125}}) {
    EXPECT_EQ(iso_moment(row.text), row.moment) << row.text;
    EXPECT_EQ(parse_iso(row.text, row.moment), row.value) << row.text;
    std::string back;
    EXPECT_TRUE(append_iso(back, row.value, row.moment));
    EXPECT_EQ(back, row.text);
  }
  EXPECT_EQ(parse_iso("2024-01-31 9:05", Moment::datetime), day(2024, 1, 31) * 86400 + 9 * 3600 + 300);
  EXPECT_EQ(parse_iso("2024-01-31T09:05:00Z", Moment::datetime), day(2024, 1, 31) * 86400 + 9 * 3600 + 300);
  for (const char* other : {"2024-1-31", "2023-02-29", "24:00", "12:60", "12:30:60", "2024-01-31T", "12", "2024",
                            "12:3", "2024-01-31T09:05:00+01:00", "2024-01-31x", "1e5", ""})
    EXPECT_EQ(iso_moment(other), Moment::none) << other;
  std::string none = "x";
  for (const double x : {1.5, 1e300, -1e300, missing, HUGE_VAL}) EXPECT_FALSE(append_iso(none, x, Moment::date));
  EXPECT_FALSE(append_iso(none, 86400.0, Moment::time));
  EXPECT_FALSE(append_iso(none, 1e18, Moment::datetime));
  EXPECT_EQ(none, "x");
}

TEST(Formats, ShowValues)
{
  struct Row {
    const char* format;
    double x;
    const char* shown;
  };
  const double d = day(2024, 1, 31), dt = d * 86400 + 48615;
  for (const Row& row : {Row{"8.2", 3.14159, "    3.14"},
                         {"f6.1", -2.25, "  -2.2"},
                         {"z8.2", -3.14159, "-0003.14"},
                         {"COMMA12.2", 1234567.891, "1,234,567.89"},
                         {"comma9.", 999.0, "      999"},
                         {"COMMAX10.1", 12345.67, "  12.345,7"},
                         {"percent8.1", 0.2555, "   25.6%"},
                         {"e10.", 0.125, "1.2500E-01"},
                         {"best6.", 3.14159265, "3.1416"},
                         {"hex4.", 255, "00FF"},
                         {"hex4.", 65536, "****"},
                         {"hex16.", 1.0, "3FF0000000000000"},
                         {"date9.", d, "31JAN2024"},
                         {"DATE7", d, "31JAN24"},
                         {"date11.", d, "31-JAN-2024"},
                         {"datetime18.", dt, "31JAN2024:13:30:15"},
                         {"datetime.", d * 86400, "31JAN2024:00:00:00"},
                         {"time8.", 48615, "13:30:15"},
                         {"time5.", 48615, "13:30"},
                         {"time10.1", 3.25, " 0:00:03.2"},
                         {"time8.", 360000, "********"},
                         {"yymmdd10.", d, "2024-01-31"},
                         {"yymmdd6.", d, "240131"},
                         {"yymmdd8.", d, "24-01-31"},
                         {"ddmmyy10.", d, "31/01/2024"},
                         {"mmddyy8.", d, "01/31/24"},
                         {"monyy7.", d, "JAN2024"},
                         {"year4.", d, "2024"},
                         {"month2.", d, " 1"},
                         {"isodt.", dt, "2024-01-31T13:30:15"},
                         {"date9.", 1e9, "*********"},
                         {"8.2", missing, "       ."},
                         {"date9.", special_missing('A'), "        A"},
                         {"z4.", 123456, "****"}})
    EXPECT_EQ(format_value(row.x, format_of(row.format)), row.shown) << row.format;
  EXPECT_EQ(format_text("a\"b  ", format_of("$quote.")), "\"a\"\"b\"");
  EXPECT_EQ(format_text("abc", format_of("$upcase5.")), "ABC  ");
  EXPECT_EQ(format_text("gr\xC3\xB6\xC3\x9F", format_of("$3.")), "gr ");
}

TEST(Formats, WhatIsNoFormatIsRefusedWithAReason)
{
  const auto problem = [](const char* text) {
    std::string why;
    EXPECT_FALSE(parse_value_format(text, why)) << text;
    return why;
  };
  EXPECT_NE(problem("dat9.").find("did you mean DATE?"), std::string::npos);
  EXPECT_NE(problem("nothing10.").find("YYMMDD"), std::string::npos);
  EXPECT_NE(problem("date99.").find("5 to 11"), std::string::npos);
  EXPECT_NE(problem("4.6").find("decimals"), std::string::npos);
  for (const char* text : {"", "8.2x", "99999999999999999999.2", "-3.2", "8.-2", "$quote-1."}) problem(text);
}

TEST(Formats, ReadTexts)
{
  const double d = day(2024, 1, 31);
  struct Row {
    const char* text;
    const char* format;
    double value;
  };
  for (const Row& row : {Row{" 12.5 ", "8.", 12.5},
                         {"1250", "8.2", 12.5},
                         {"1,234.5", "comma12.", 1234.5},
                         {"1.234,5", "commax12.", 1234.5},
                         {"25%", "percent8.", 0.25},
                         {"FF", "hex4.", 255},
                         {"-$1,250.5", "comma12.", -1250.5},
                         {"1.5D+02", "e12.", 150},
                         {"31jan2024", "date9.", d},
                         {"31-JAN-2024", "date11.", d},
                         {"31JAN24", "date9.", d},
                         {"2024-01-31", "date9.", d},
                         {"31/01/2024", "ddmmyy10.", d},
                         {"01/31/24", "mmddyy8.", d},
                         {"20240131", "yymmdd8.", d},
                         {"2024/1/31", "yymmdd10.", d},
                         {"13:30:15", "time8.", 48615},
                         {"31JAN2024:13:30", "datetime18.", d * 86400 + 48600}})
    EXPECT_EQ(read_value(row.text, format_of(row.format)), row.value) << row.text;
  for (const char* text : {"", ".", "abc", "31feb2024", "13:30", "1,5"})
    EXPECT_TRUE(wzmis(read_value(text, format_of("date9.")))) << text;
}

} // namespace torvale::host
