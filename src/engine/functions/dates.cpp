#include "engine/functions/dates.h"

#include "syntax/tree.h"

namespace torvale::engine {

namespace {

using Nodes = std::span<const NodeId>;

constexpr double days_to_1960 = 715815; // from 0000-03-01
constexpr double sunday = 5;            // days from the Sunday before 1960-01-01
constexpr double day_seconds = 86400;

// The whole part of a / b, downwards, for a whole constant b. Exact for whole a: the quotient of two whole numbers
// below 2^53 / b never rounds up to the next one.
NodeId whole_quotient(GraphBuilder& g, NodeId a, double b)
{
  return g.call(Kernel::floor, g.divide(a, g.constant(b)));
}

NodeId remainder(GraphBuilder& g, NodeId a, double b)
{
  return g.subtract(a, g.scale(b, whole_quotient(g, a, b)));
}

NodeId at_most(GraphBuilder& g, NodeId a, double b)
{
  return g.compare(Kernel::less_equal, a, g.constant(b));
}

NodeId equal(GraphBuilder& g, NodeId a, NodeId b)
{
  return g.compare(Kernel::equal, a, b);
}

// Days of a date whose month is 1 to 12; the day may be any number.
NodeId days_unchecked(GraphBuilder& g, NodeId year, NodeId month, NodeId day)
{
  const NodeId early = at_most(g, month, 2);
  const NodeId y = g.subtract(year, early); // years begin in March
  const NodeId era = whole_quotient(g, y, 400);
  const NodeId year_of_era = g.subtract(y, g.scale(400, era));
  const NodeId from_march = g.select(early, g.shift(month, 9), g.shift(month, -3));
  const NodeId day_of_year = g.add(whole_quotient(g, g.shift(g.scale(153, from_march), 2), 5), g.shift(day, -1));
  const NodeId leap_days = g.subtract(whole_quotient(g, year_of_era, 4), whole_quotient(g, year_of_era, 100));
  const NodeId day_of_era = g.add(g.add(g.scale(365, year_of_era), leap_days), day_of_year);
  return g.shift(g.add(g.scale(146097, era), day_of_era), -days_to_1960);
}

enum class Unit { day, week, month, quarter, year, none };

Unit unit_of(std::string_view name, std::string* error)
{
  constexpr std::string_view names[] = {"DAY", "WEEK", "MONTH", "QUARTER", "YEAR"};
  for (int i = 0; i < 5; ++i)
    if (syntax::same_name(name, names[i])) return static_cast<Unit>(i);
  *error = "There is no interval '" + std::string(name) + "'; there are DAY, WEEK, MONTH, QUARTER and YEAR.";
  return Unit::none;
}

double months_of(Unit unit)
{
  return unit == Unit::year ? 12 : unit == Unit::quarter ? 3 : 1;
}

// Months since the year 0.
NodeId month_number(GraphBuilder& g, const DateNodes& date)
{
  return g.shift(g.add(g.scale(12, date.year), date.month), -1);
}

// The first day of a month by that number.
NodeId first_of_month(GraphBuilder& g, NodeId number)
{
  return days_unchecked(g, whole_quotient(g, number, 12), g.shift(remainder(g, number, 12), 1), g.one());
}

} // namespace

// Howard Hinnant, "chrono-compatible low-level date algorithms": years that begin in March, in eras of 400.
DateNodes date_nodes(GraphBuilder& g, NodeId days)
{
  const NodeId z = g.shift(g.call(Kernel::floor, days), days_to_1960);
  const NodeId era = whole_quotient(g, z, 146097);
  const NodeId day_of_era = g.subtract(z, g.scale(146097, era));
  const NodeId leap_days = g.subtract(g.add(whole_quotient(g, day_of_era, 1460), whole_quotient(g, day_of_era, 146096)),
                                      whole_quotient(g, day_of_era, 36524));
  const NodeId year_of_era = whole_quotient(g, g.subtract(day_of_era, leap_days), 365);
  const NodeId before = g.subtract(g.add(g.scale(365, year_of_era), whole_quotient(g, year_of_era, 4)),
                                   whole_quotient(g, year_of_era, 100));
  const NodeId day_of_year = g.subtract(day_of_era, before);
  const NodeId from_march = whole_quotient(g, g.shift(g.scale(5, day_of_year), 2), 153);
  DateNodes date{};
  date.day = g.shift(g.subtract(day_of_year, whole_quotient(g, g.shift(g.scale(153, from_march), 2), 5)), 1);
  date.month = g.select(at_most(g, from_march, 9), g.shift(from_march, 3), g.shift(from_march, -9));
  date.year = g.add(g.add(year_of_era, g.scale(400, era)), at_most(g, date.month, 2));
  return date;
}

NodeId days_node(GraphBuilder& g, NodeId year, NodeId month, NodeId day)
{
  const NodeId days = days_unchecked(g, year, month, day);
  const DateNodes back = date_nodes(g, days);
  const NodeId exists = g.and_(g.and_(equal(g, back.year, year), equal(g, back.month, month)), equal(g, back.day, day));
  return g.select(exists, days, g.missing());
}

// clang-format off
NodeId year_rule(GraphBuilder& g, Nodes x, std::string*) { return date_nodes(g, x[0]).year; }
NodeId month_rule(GraphBuilder& g, Nodes x, std::string*) { return date_nodes(g, x[0]).month; }
NodeId day_rule(GraphBuilder& g, Nodes x, std::string*) { return date_nodes(g, x[0]).day; }
NodeId mdy_rule(GraphBuilder& g, Nodes x, std::string*) { return days_node(g, x[2], x[0], x[1]); }
NodeId datepart_rule(GraphBuilder& g, Nodes x, std::string*) { return whole_quotient(g, x[0], day_seconds); }
NodeId timepart_rule(GraphBuilder& g, Nodes x, std::string*) { return remainder(g, x[0], day_seconds); }
NodeId minute_rule(GraphBuilder& g, Nodes x, std::string*) { return remainder(g, whole_quotient(g, x[0], 60), 60); }
NodeId second_rule(GraphBuilder& g, Nodes x, std::string*) { return remainder(g, x[0], 60); }
// clang-format on

NodeId weekday_rule(GraphBuilder& g, Nodes x, std::string*)
{
  return g.shift(remainder(g, g.shift(g.call(Kernel::floor, x[0]), sunday), 7), 1);
}

NodeId hour_rule(GraphBuilder& g, Nodes x, std::string*)
{
  return whole_quotient(g, remainder(g, x[0], day_seconds), 3600);
}

NodeId hms_rule(GraphBuilder& g, Nodes x, std::string*)
{
  return g.add(g.add(g.scale(3600, x[0]), g.scale(60, x[1])), x[2]);
}

NodeId dhms_rule(GraphBuilder& g, Nodes x, std::string* error)
{
  return g.add(g.scale(day_seconds, x[0]), hms_rule(g, x.subspan(1), error));
}

NodeId interval_count(GraphBuilder& g, std::string_view unit, NodeId from, NodeId to, std::string* error)
{
  const Unit u = unit_of(unit, error);
  if (u == Unit::none) return no_node;
  const auto number = [&](NodeId days) {
    const NodeId whole = g.call(Kernel::floor, days);
    if (u == Unit::day) return whole;
    if (u == Unit::week) return whole_quotient(g, g.shift(whole, sunday), 7);
    return whole_quotient(g, month_number(g, date_nodes(g, days)), months_of(u));
  };
  return g.subtract(number(to), number(from));
}

NodeId interval_step(GraphBuilder& g, std::string_view unit, NodeId from, NodeId count, std::string_view place,
                     std::string* error)
{
  const Unit u = unit_of(unit, error);
  if (u == Unit::none) return no_node;
  const char at = place.empty() ? 'B' : static_cast<char>(place[0] & ~0x20);
  if (at != 'B' && at != 'E' && at != 'S') {
    *error = "The place of INTNX is 'B' (beginning), 'E' (end) or 'S' (same).";
    return no_node;
  }
  const NodeId whole = g.call(Kernel::floor, from), steps = g.call(Kernel::truncate, count);
  if (u == Unit::day) return g.add(whole, steps);
  if (u == Unit::week) {
    const NodeId week = g.add(whole_quotient(g, g.shift(whole, sunday), 7), steps);
    if (at == 'S') return g.add(whole, g.scale(7, steps));
    return g.shift(g.scale(7, week), at == 'B' ? -sunday : 6 - sunday);
  }
  const double months = months_of(u);
  const DateNodes date = date_nodes(g, from);
  if (at != 'S') {
    const NodeId interval = g.shift(g.add(whole_quotient(g, month_number(g, date), months), steps), at == 'E' ? 1 : 0);
    const NodeId first = first_of_month(g, g.scale(months, interval));
    return at == 'E' ? g.shift(first, -1) : first;
  }
  const NodeId month = g.add(month_number(g, date), g.scale(months, steps));
  const NodeId first = first_of_month(g, month), next = first_of_month(g, g.shift(month, 1));
  const NodeId same = g.add(first, g.shift(date.day, -1)); // the last day of a shorter month
  return g.select(g.compare(Kernel::less_equal, next, same), g.shift(next, -1), same);
}

} // namespace torvale::engine
