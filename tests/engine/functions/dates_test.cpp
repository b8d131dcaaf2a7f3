#include "engine/functions/dates.h"
#include "engine/functions/functions.h"
#include "engine/functions/plain_graph.h"
#include "host/values/calendar.h"
#include "host/values/missing.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace torvale::engine {
namespace {

// The value of an expression of up to three symbols.
template <class Build> double value_of(const Build& build, const std::vector<double>& values)
{
  GraphBuilder g;
  std::vector<NodeId> x;
  for (std::size_t k = 0; k < values.size(); ++k) x.push_back(g.symbol(static_cast<std::int32_t>(k)));
  return evaluate(g, build(g, x), values);
}

double count(const char* unit, double from, double to)
{
  std::string error;
  return value_of([&](GraphBuilder& g, const auto& x) { return interval_count(g, unit, x[0], x[1], &error); },
                  {from, to});
}

double step(const char* unit, double from, double n, const char* place)
{
  std::string error;
  return value_of([&](GraphBuilder& g, const auto& x) { return interval_step(g, unit, x[0], x[1], place, &error); },
                  {from, n});
}

double day(int year, int month, int d)
{
  return host::days_of({year, month, d}).value_or(host::missing);
}

TEST(Dates, PartsAgreeWithTheCalendar)
{
  std::mt19937 random(2);
  for (int round = 0; round < 1500; ++round) {
    const double days = static_cast<double>(random() % 3652000) - 715509.0;
    const double within = round % 3 == 0 ? 0.75 : 0.0;
    const auto date = *host::date_of(days);
    ASSERT_EQ(call("YEAR", {days + within}), date.year);
    ASSERT_EQ(call("MONTH", {days}), date.month);
    ASSERT_EQ(call("DAY", {days}), date.day);
    const double month = date.month, dd = date.day, year = date.year;
    ASSERT_EQ(call("MDY", {month, dd, year}), days);
    ASSERT_EQ(call("WEEKDAY", {days}), call("WEEKDAY", {days + 7}));
  }
  EXPECT_EQ(call("WEEKDAY", {0}), 6); // a Friday
  for (const auto& none :
       {std::vector<double>{2, 29, 2023}, {13, 1, 2024}, {0, 1, 2024}, {4, 31, 2024}, {1.5, 1, 2024}})
    EXPECT_TRUE(host::wzmis(call("MDY", none)));
  for (const char* part : {"YEAR", "MONTH", "DAY", "HOUR", "DATEPART"})
    EXPECT_TRUE(std::isnan(call(part, {host::missing})));
}

TEST(Dates, TimesOfMoments)
{
  const double moment = call("DHMS", {day(2024, 2, 29), 13, 30, 15.25});
  EXPECT_EQ(moment, day(2024, 2, 29) * 86400 + 48615.25);
  EXPECT_EQ(call("DATEPART", {moment}), day(2024, 2, 29));
  EXPECT_EQ(call("TIMEPART", {moment}), 48615.25);
  EXPECT_EQ(call("HOUR", {moment}), 13);
  EXPECT_EQ(call("MINUTE", {moment}), 30);
  EXPECT_EQ(call("SECOND", {moment}), 15.25);
  EXPECT_EQ(call("HOUR", {-1}), 23); // before 1960
  EXPECT_EQ(call("DATEPART", {-1}), -1);
}

TEST(Dates, Intervals)
{
  std::mt19937 random(3);
  for (int round = 0; round < 300; ++round) {
    const double from = static_cast<double>(random() % 40000) - 9000.0;
    const double to = from + static_cast<double>(random() % 900);
    int weeks = 0, months = 0, quarters = 0, years = 0;
    for (double d = from + 1; d <= to; ++d) { // one day after the other
      const auto date = *host::date_of(d);
      weeks += call("WEEKDAY", {d}) == 1;
      months += date.day == 1;
      quarters += date.day == 1 && date.month % 3 == 1;
      years += date.day == 1 && date.month == 1;
    }
    ASSERT_EQ(count("week", from, to), weeks);
    ASSERT_EQ(count("Month", from, to), months);
    ASSERT_EQ(count("QUARTER", from, to), quarters);
    ASSERT_EQ(count("year", from, to), years);
    ASSERT_EQ(count("month", to, from), -months);
    for (const char* unit : {"day", "week", "month", "quarter", "year"}) {
      const double begin = step(unit, from, 2, "B");
      ASSERT_EQ(count(unit, from, begin), 2);
      ASSERT_EQ(count(unit, from, begin - 1), 1);
      ASSERT_EQ(step(unit, from, 2, "e"), step(unit, from, 3, "b") - 1);
    }
  }
  EXPECT_EQ(step("month", day(2024, 1, 31), 1, "S"), day(2024, 2, 29));
  EXPECT_EQ(step("year", day(2024, 2, 29), -1, "same"), day(2023, 2, 28));
  EXPECT_EQ(step("week", day(2024, 1, 31), 1, "S"), day(2024, 2, 7));
  GraphBuilder g;
  std::string error;
  EXPECT_EQ(interval_count(g, "fortnight", g.zero(), g.one(), &error), no_node);
  EXPECT_NE(error.find("QUARTER"), std::string::npos);
  EXPECT_EQ(interval_step(g, "day", g.zero(), g.one(), "middle", &error), no_node);
}

} // namespace
} // namespace torvale::engine
