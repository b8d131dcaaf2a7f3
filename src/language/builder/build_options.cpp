// Options of procedure statements: values into slots, marks into flags, ranges checked.
#include "language/builder/builder.h"

#include "host/values/missing.h"
#include "language/lexical.h"

#include <algorithm>
#include <cmath>

namespace torvale::language {

using namespace syntax;

namespace {

std::string limits_text(const OptionValue& v)
{
  if (v.has_low && v.has_high) return std::to_string(v.low) + " to " + std::to_string(v.high);
  return "from " + std::to_string(v.low);
}

} // namespace

bool Builder::check_number(const OptionValue& v, std::string_view word, const Value& given)
{
  const double x = given.token.number;
  if (host::wzmis(x)) return true; // `.`: as if not given
  const std::string shown = std::string(word) + "=" + std::string(given.token.text);
  const bool whole =
      v.kind == ValueKind::count || v.kind == ValueKind::integer || v.kind == ValueKind::count_or_missing;
  if ((v.has_low && x < v.low) || (v.has_high && x > v.high)) {
    diagnostics_->error(Problem::out_of_range, given.token.where,
                        shown + " is out of range: " + std::string(word) + " takes a " + (whole ? "whole " : "") +
                            "number " + limits_text(v) + ".",
                        given.token.length);
    return false;
  }
  if (whole && x != std::floor(x)) {
    diagnostics_->error(Problem::not_whole, given.token.where,
                        shown + " has a fraction: " + std::string(word) + " takes a whole number" +
                            (v.has_low ? " " + limits_text(v) : "") + ".",
                        given.token.length);
    return false;
  }
  return true;
}

StItem Builder::data_set_item(const Value& value)
{
  StItem i = item(StItem::Kind::data_set, value.token.where);
  i.text = std::string(value.token.text);
  i.quoted = value.token.symbol == token_class::QS;
  if (value.list) i.options = std::string(value.list->first->value.token.text);
  if (value.token.symbol == token_class::FMT)
    diagnostics_->error(Problem::ends_early, value.token.where,
                        "'" + i.text + "' is no data set: the name behind the dot is missing.", value.token.length);
  if (i.quoted && i.text.find_first_not_of(' ') == std::string::npos)
    diagnostics_->error(Problem::ends_early, value.token.where, "The name of the data set is empty.",
                        value.token.length);
  return i;
}

void Builder::option_value(const OptionRow& row, const OptionValue& v, std::string_view word, const Value& given)
{
  (void)row;
  const Position where = given.token.where;
  switch (v.kind) {
  case ValueKind::input:
  case ValueKind::output: {
    StItem data = data_set_item(given);
    cell(v.slot, 't', where).list = {std::move(data)};
    return;
  }
  case ValueKind::name: {
    StItem i = item(is_number(given.token) ? StItem::Kind::number : StItem::Kind::name, where);
    i.number = given.token.number;
    i.text = std::string(given.token.text);
    cell(v.slot, 'l', where).list = {std::move(i)};
    return;
  }
  case ValueKind::keep: {
    StItem i = item(StItem::Kind::word, where);
    i.text = upper_case(given.token.text);
    cell(v.slot, 't', where).list = {std::move(i)};
    diagnostics_->warning(Problem::without_effect, where, std::string(word) + "= has no effect.", given.token.length);
    return;
  }
  case ValueKind::word:
    cell(v.slot, 'n', where).number = given.code;
    return;
  default:
    break;
  }
  if (!check_number(v, word, given)) return;
  cell(v.slot, 'n', where).number = given.token.number;
  if (word == "ALPHA" && (given.token.number == 0.0 || given.token.number == 1.0))
    diagnostics_->add(
        Severity::note, Problem::ambiguous_reading, where,
        std::string("ALPHA=") +
            (given.token.number == 0.0 ? "0 asks for infinite limits" : "1 asks for limits without width") +
            ": they will be missing.",
        given.token.length);
}

void Builder::option(const SEMARG& a, std::span<Value> r)
{
  const OptionRow& row = option_rows()[static_cast<std::size_t>(a.arglist[0])];
  const std::string word = upper_case(r[0].token.text);
  if (!given_.insert(a.arglist[0]).second) {
    diagnostics_->warning(Problem::given_twice, r[0].token.where,
                          word + " is given twice in this statement: the last one holds.", r[0].token.length);
    for (const OptionValue& v : row.values) proc_->current->fld[static_cast<std::size_t>(v.slot)] = {};
    for (const OptionValue& v : row.bracket) proc_->current->fld[static_cast<std::size_t>(v.slot)] = {};
  }
  for (std::int16_t flag : row.flags) proc_->current->set_flag(flag);
  for (std::int16_t t : row.traces) {
    std::erase(proc_->traces, t % 100);
    if (t < 100) proc_->traces.push_back(t);
  }
  if (a.arglist[1] > 0) option_value(row, row.values[static_cast<std::size_t>(a.arglist[1] - 1)], word, r[2]);
  if (a.arglist[2] > 0) option_value(row, row.bracket[0], word + "[ ]", r[4]);
}

} // namespace torvale::language
