// PARMS and BOUNDS: names, their values, and the relations between them.
#include "language/builder/builder.h"

#include "syntax/statement_names.h"

namespace torvale::language {

using namespace syntax;
using Form = Value::Form;

// A value of PARMS: a number, a missing value, or a sequence n TO m BY k.
void Builder::add_parms_value(STLIST& to, const Value& v, int group)
{
  const bool sequence = v.list && v.list->count > 0;
  StItem i = item(sequence ? StItem::Kind::range : StItem::Kind::number, v.token.where);
  i.number = v.token.number;
  i.group = group;
  if (sequence) {
    i.to = v.list->first->value.token.number;
    i.by = v.list->count > 1 ? v.list->last->value.token.number : 1.0;
    const std::string shown = std::string(v.token.text) + " TO " + std::string(v.list->first->value.token.text) +
                              (v.list->count > 1 ? " BY " + std::string(v.list->last->value.token.text) : "");
    if (i.by == 0.0)
      diagnostics_->error(Problem::bad_sequence, i.where, shown + " never ends: BY must not be 0.", v.token.length);
    else if ((i.to - i.number) / i.by < -1e-9)
      diagnostics_->error(Problem::bad_sequence, i.where, shown + " is empty: the steps lead away from the end.",
                          v.token.length);
    else if ((i.to - i.number) / i.by > 1e7)
      diagnostics_->error(Problem::bad_sequence, i.where, shown + " has more than 10000000 values.", v.token.length);
  }
  to.list.push_back(std::move(i));
}

void Builder::parms_group(const Value& named, const std::vector<Value>& values)
{
  STLIST& c = cell(parms_slot::values, 'l',
                   proc_->current->given(parms_slot::values) ? proc_->current->slot(parms_slot::values).where
                                                             : named.token.where);
  const int group = c.list.empty() ? 0 : c.list.back().group + 1;
  const std::vector<Name> list = names_of(named);
  for (const Name& n : list) know_name(n.text);
  add_names(c, list, group);
  for (const Value& v : values) add_parms_value(c, v, group);
}

void Builder::end_bounds(std::span<Value> r)
{
  STLIST& symbols = cell(bounds_slot::operands, 'l', r[1].token.where);
  STLIST& operators = cell(bounds_slot::relations, 'l', r[1].token.where);
  int group = 0;
  for (const Value& relation : items(r[1].list)) {
    const std::vector<Value> parts = items(relation.list); // operand, operator, operand, ...
    for (std::size_t k = 0; k < parts.size(); ++k) {
      const Value& part = parts[k];
      if (k % 2 == 1) {
        // `.` is no bound: the operator beside it says nothing.
        if (parts[k - 1].code == -2 || (k + 1 < parts.size() && parts[k + 1].code == -2)) continue;
        StItem i = item(StItem::Kind::relation, part.token.where);
        i.text = std::string(part.token.text);
        i.group = group - 1;
        operators.list.push_back(std::move(i));
        continue;
      }
      for (const Value& v : part.code == -2 ? std::vector<Value>{} : items(part.list)) {
        if (is_number(v.token)) {
          StItem i = item(StItem::Kind::number, v.token.where);
          i.number = v.token.number;
          i.group = group;
          symbols.list.push_back(std::move(i));
        } else {
          add_names(symbols, one_name(v), group);
        }
      }
      ++group;
    }
  }
}

template <> void Builder::on<Action::parms_group>(const SEMARG&, std::span<Value> r, Value&)
{
  std::vector<Value> values;
  if (r.size() > 2) {
    values = items(r.back().list);
    values.insert(values.begin(), r[r.size() - 2]);
  }
  parms_group(r.size() == 2 ? r[1] : r[0], values);
}

template <> void Builder::on<Action::parms_group_negative>(const SEMARG&, std::span<Value> r, Value&)
{
  Value first = r[1];
  first.token.number = -first.token.number;
  first.token.text = arena_.text("-" + std::string(first.token.text));
  first.list = r[2].list;
  std::vector<Value> values = items(r[3].list);
  values.insert(values.begin(), first);
  parms_group(r[0], values);
}

template <> void Builder::on<Action::positive_range>(const SEMARG&, std::span<Value> r, Value& result)
{
  result.list = r[1].list;
}

template <> void Builder::on<Action::missing_value>(const SEMARG&, std::span<Value>, Value&) {}

template <> void Builder::on<Action::negative_value>(const SEMARG&, std::span<Value> r, Value& result)
{
  const Token sign = r[0].token;
  result = r[1];
  result.list = r[2].list;
  result.token.number = -result.token.number;
  result.token.text = arena_.text("-" + std::string(result.token.text));
  result.token.where = sign.where;
}

template <> void Builder::on<Action::positive_value>(const SEMARG&, std::span<Value> r, Value& result)
{
  const Token sign = r[0].token;
  result = r[1];
  result.list = r[2].list;
  result.token.where = sign.where;
}

template <> void Builder::on<Action::end_parms>(const SEMARG& a, std::span<Value> r, Value& result)
{
  close_statement(a, r, result);
}

template <> void Builder::on<Action::relation_first>(const SEMARG&, std::span<Value> r, Value& result)
{
  List* list = new_list();
  for (const Value& v : r) append(*list, v);
  result.list = list;
  result.form = Form::plain;
}

template <> void Builder::on<Action::relation_append>(const SEMARG&, std::span<Value> r, Value&)
{
  append(*r[0].list, r[1]);
  append(*r[0].list, r[2]);
}

template <> void Builder::on<Action::missing_operand>(const SEMARG&, std::span<Value>, Value& result)
{
  result.code = -2;
}

template <> void Builder::on<Action::end_bounds>(const SEMARG& a, std::span<Value> r, Value& result)
{
  end_bounds(r);
  close_statement(a, r, result);
}

template <> void Builder::on<Action::end_restrict>(const SEMARG& a, std::span<Value> r, Value& result)
{
  diagnostics_->warning(
      Problem::without_effect, r[0].token.where,
      "RESTRICT has no effect: the fit is not constrained. Use BOUNDS, or write the model in fewer parameters.",
      r[0].token.length);
  close_statement(a, r, result);
}

} // namespace torvale::language
