#include "host/messages/names/fit.h"
#include "host/messages/names/starting_values.h"
#include "host/values/text.h"
#include "model/bound_unit.h"
#include "run/statements/statement_processing.h"
#include "syntax/statement_names.h"

#include <algorithm>
#include <cmath>

namespace torvale::run {

using model::NX;
using model::PARMSTR;
using syntax::bounds_slot;
using syntax::StItem;

namespace {

struct Relation {
  const StItem* low;  // the lesser side
  const StItem* high; // the greater side
  bool strict;
};

PARMSTR& parameter_of(NX& n, const StItem& item)
{
  const auto it = std::find_if(n.parmstr.begin(), n.parmstr.end(),
                               [&](const PARMSTR& p) { return host::equal_names(p.parmname, item.text); });
  if (it != n.parmstr.end()) return *it;
  std::vector<std::string> names;
  for (const auto& p : n.parmstr) names.push_back(p.parmname);
  n.host->log().xpmlog(
      message::bounds_name_no_parameter{.name = item.text, .near = host::nearest_name(item.text, names)},
      place_at(n, "BOUNDS", item.where));
  tvlexit(n, 1012);
}

[[noreturn]] void refuse(NX& n, const host::NumberedMessage& problem, const StItem& item)
{
  n.host->log().xpmlog(problem, place_at(n, "BOUNDS", item.where));
  tvlexit(n, 1012);
}

// slack: the distance that a strict bound keeps. of_unit: that from 0, which has no size, is in the unit of its start.
void apply(NX& n, const Relation& r, double slack, bool of_unit)
{
  const bool low_is_number = r.low->kind == StItem::Kind::number;
  const bool high_is_number = r.high->kind == StItem::Kind::number;
  if (low_is_number && high_is_number)
    refuse(n, message::bad_bounds{.problem = "a number stands on both sides of a comparison"}, *r.low);
  if (!low_is_number && !high_is_number) refuse(n, message::bounds_need_parameter_and_number, *r.low);
  const StItem& constant = low_is_number ? *r.low : *r.high;
  if (std::isnan(constant.number)) return; // "." is no bound
  PARMSTR& p = parameter_of(n, low_is_number ? *r.high : *r.low);
  const double kept = !r.strict ? 0.0 : of_unit && constant.number == 0.0 ? slack * model::bound_unit(p) : slack;
  if (low_is_number) {
    const double bound = constant.number + kept;
    p.lowbound = p.applyl ? std::max(p.lowbound, bound) : bound;
    p.applyl = true;
  } else {
    const double bound = constant.number - kept;
    p.highbound = p.applyh ? std::min(p.highbound, bound) : bound;
    p.applyh = true;
  }
  if (p.applyl && p.applyh && p.lowbound > p.highbound) {
    n.host->log().xpmlog(message::bounds_contradict{.lower = p.lowbound, .name = p.parmname, .upper = p.highbound},
                         place_at(n, "BOUNDS", constant.where));
    tvlexit(n, 1012);
  }
}

// The pairs of a statement: operand list k, operator, operand list k + 1; every symbol of one side with every one of
// the other.
std::vector<Relation> relations_of(const syntax::STMT& stmt)
{
  std::vector<Relation> relations;
  const auto& operands = stmt.slot(bounds_slot::operands).list;
  for (const StItem& op : stmt.slot(bounds_slot::relations).list) {
    const bool less = op.text[0] == '<';
    const bool strict = op.text.size() == 1;
    for (const StItem& a : operands)
      for (const StItem& b : operands)
        if (a.group == op.group && b.group == op.group + 1)
          relations.push_back(less ? Relation{&a, &b, strict} : Relation{&b, &a, strict});
  }
  return relations;
}

} // namespace

void process_bounds(NX& n)
{
  const double slack = n.str->ceps;
  const bool of_unit = !n.proc->statements.front().given(syntax::torvale_slot::lceps);
  for (const auto& stmt : n.proc->statements) {
    if (stmt.name != "BOUNDS" && stmt.name != "BOUND") continue;
    const auto relations = relations_of(stmt);
    for (const bool strict : {true, false})
      for (const Relation& r : relations)
        if (r.strict == strict) apply(n, r, slack, of_unit);
  }
  for (const PARMSTR& p : n.parmstr) {
    const bool elsewhere = std::any_of(p.parmlist.begin(), p.parmlist.end(), [&](double v) { return v != p.lowbound; });
    if (p.held() && elsewhere) n.host->log().xpmlog(message::parameter_held{.name = p.parmname, .value = p.lowbound});
  }
}

} // namespace torvale::run
