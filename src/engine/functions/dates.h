#pragma once
// Functions of dates as nodes of the value graph: days and seconds since 1960-01-01 (host/calendar.h has the same
// numbers for one value at a time). Plain arithmetic on whole numbers, so that they run in lanes like everything else.

#include "engine/graph/graph.h"

#include <span>
#include <string>
#include <string_view>

namespace torvale::engine {

// The parts of a day. Missing days have missing parts.
struct DateNodes {
  NodeId year, month, day;
};
DateNodes date_nodes(GraphBuilder& g, NodeId days);
// The day of a date; missing when there is no such date.
NodeId days_node(GraphBuilder& g, NodeId year, NodeId month, NodeId day);

// Numeric functions of the language, as the function table calls them.
NodeId year_rule(GraphBuilder& g, std::span<const NodeId> x, std::string* error);
NodeId month_rule(GraphBuilder& g, std::span<const NodeId> x, std::string* error);
NodeId day_rule(GraphBuilder& g, std::span<const NodeId> x, std::string* error);
NodeId weekday_rule(GraphBuilder& g, std::span<const NodeId> x, std::string* error); // 1 Sunday to 7 Saturday
NodeId hour_rule(GraphBuilder& g, std::span<const NodeId> x, std::string* error);    // of seconds
NodeId minute_rule(GraphBuilder& g, std::span<const NodeId> x, std::string* error);
NodeId second_rule(GraphBuilder& g, std::span<const NodeId> x, std::string* error);
NodeId datepart_rule(GraphBuilder& g, std::span<const NodeId> x, std::string* error); // days of seconds
NodeId timepart_rule(GraphBuilder& g, std::span<const NodeId> x, std::string* error);
NodeId mdy_rule(GraphBuilder& g, std::span<const NodeId> x, std::string* error);
NodeId hms_rule(GraphBuilder& g, std::span<const NodeId> x, std::string* error);
NodeId dhms_rule(GraphBuilder& g, std::span<const NodeId> x, std::string* error);

// INTCK: beginnings of the interval that lie between two days. INTNX: a day that many intervals on, at the beginning
// (B), the end (E) or the same place (S) of the interval. Units DAY, WEEK (from Sunday), MONTH, QUARTER, YEAR in any
// case; no_node with the reason in *error for others.
NodeId interval_count(GraphBuilder& g, std::string_view unit, NodeId from, NodeId to, std::string* error);
NodeId interval_step(GraphBuilder& g, std::string_view unit, NodeId from, NodeId count, std::string_view place,
                     std::string* error);

} // namespace torvale::engine
