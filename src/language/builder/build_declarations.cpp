// Declarations: attributes, retained and kept variables.
#include "language/builder/builder.h"

#include "language/lexical.h"

#include <algorithm>

namespace torvale::language {

using namespace syntax;
using Form = Value::Form;

namespace {

// "8." or "$8." where a length is meant.
Token format_length(const Token& format)
{
  Token token = format;
  std::string digits;
  for (char c : format.text)
    if (c >= '0' && c <= '9') digits += c;
  token.number = digits.empty() ? 0.0 : number_value(digits, false);
  return token;
}

} // namespace

std::span<const std::string_view> Builder::name_span(const std::vector<Name>& list)
{
  std::vector<std::string_view> texts;
  for (const Name& n : list) texts.push_back(n.text);
  return arena_.copy(texts);
}

void Builder::attribute_statements(std::span<Value> r, Value& result)
{
  // LENGTH, LABEL, FORMAT and ATTRIB hold one item for each group of names: the last becomes the statement, those
  // before it go into the program first.
  std::vector<AttributeDeclaration*> parts;
  for (const Value& v : items(r[1].list))
    if (v.node) parts.push_back(static_cast<AttributeDeclaration*>(v.node));
  Statement* last = nullptr;
  std::vector<Statement*> body;
  for (AttributeDeclaration* part : parts) {
    part->where = r.front().token.where;
    part->end = r.back().token.where;
    body.push_back(part);
    last = part;
  }
  if (body.size() > 1 && result.depth == 0) {
    proc_->program.statements.insert(proc_->program.statements.end(), body.begin(), body.end() - 1);
  } else if (body.size() > 1) { // several groups inside another statement: a block keeps them together
    DoStatement* group = make_statement<DoStatement>(StatementKind::do_, r);
    group->body = arena_.copy(body);
    last = group;
  }
  store(result, last ? last : make_statement<Statement>(StatementKind::empty, r));
}

void Builder::retain_statement(std::span<Value> r, Value& result)
{
  RetainDeclaration* s = make_statement<RetainDeclaration>(StatementKind::retain, r);
  s->is_static = upper_case(r[0].token.text) == "STATIC";
  std::vector<std::string_view> list;
  std::vector<Expr*> initial;
  for (const Value& v : items(r[1].list)) {
    list.push_back(v.token.text);
    initial.push_back(v.expr);
  }
  s->names = arena_.copy(list);
  s->initial = arena_.copy(initial);
  store(result, s);
}

// One entry a name: its token is the name, its expression the initial value, if there is one.
void Builder::retain(List* entries, const std::vector<Name>& list, const std::vector<Expr*>& initial, Value& result)
{
  for (std::size_t k = 0; k < list.size(); ++k) {
    Value v;
    v.token.text = list[k].text;
    v.token.where = list[k].where;
    v.expr = k < initial.size() ? initial[k] : nullptr;
    append(*entries, v);
  }
  result.list = entries;
  result.form = Form::plain;
  result.expr = nullptr;
}

AttributeDeclaration& Builder::attributes_of(const Value& named, Value& result)
{
  AttributeDeclaration* part = arena_.make<AttributeDeclaration>();
  part->kind = StatementKind::attributes;
  part->names = name_span(names_of(named));
  result.node = part;
  result.list = nullptr;
  result.form = Form::plain;
  return *part;
}

void Builder::set_length(AttributeDeclaration& part, const Token& token, bool character)
{
  part.has_length = true;
  part.character = character;
  part.length = static_cast<std::int32_t>(std::clamp(token.number, 0.0, 40000.0));
  if (token.number < 1.0 || token.number > 32767.0)
    diagnostics_->error(Problem::out_of_range, token.where,
                        "LENGTH " + std::string(token.text) + " is out of range: 1 to 32767.", token.length);
}

template <> void Builder::on<Action::none>(const SEMARG&, std::span<Value>, Value&) {}

template <> void Builder::on<Action::length_item>(const SEMARG&, std::span<Value> r, Value& result)
{
  const Token& last = r.back().token;
  const bool format = last.symbol == token_class::FMT;
  set_length(attributes_of(r[0], result), format ? format_length(last) : last,
             r.size() > 2 || (format && last.text.front() == '$'));
}

template <> void Builder::on<Action::label_item>(const SEMARG&, std::span<Value> r, Value& result)
{
  AttributeDeclaration& part = attributes_of(r[0], result);
  part.has_label = true;
  part.text_label = r[2].token.text;
}

template <> void Builder::on<Action::format_item>(const SEMARG&, std::span<Value> r, Value& result)
{
  attributes_of(r[0], result).format = r[1].token.text;
}

template <> void Builder::on<Action::attribute>(const SEMARG& a, std::span<Value> r, Value& result)
{
  result.code = a.arglist[0];
  result.token = r.back().token;
}

template <> void Builder::on<Action::attribute_item>(const SEMARG&, std::span<Value> r, Value& result)
{
  const std::vector<Value> given = items(r[1].list);
  AttributeDeclaration& part = attributes_of(r[0], result);
  for (const Value& v : given) {
    if (v.code == 1 || v.code == 2) set_length(part, v.token, v.code == 2);
    if (v.code == 5) set_length(part, format_length(v.token), v.token.text.front() == '$');
    if (v.code == 3) {
      part.has_label = true;
      part.text_label = v.token.text;
    }
    if (v.code == 4) part.format = v.token.text;
  }
}

template <> void Builder::on<Action::length_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  attribute_statements(r, result);
}

template <> void Builder::on<Action::label_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  attribute_statements(r, result);
}

template <> void Builder::on<Action::format_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  attribute_statements(r, result);
}

template <> void Builder::on<Action::attribute_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  attribute_statements(r, result);
}

template <> void Builder::on<Action::keep_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  KeepDeclaration* s = make_statement<KeepDeclaration>(StatementKind::keep_drop, r);
  s->drop = upper_case(r[0].token.text) == "DROP";
  s->names = name_span(names(r[1].list));
  store(result, s);
}

template <> void Builder::on<Action::retain_item>(const SEMARG&, std::span<Value> r, Value& result)
{
  const std::vector<Name> list = names_of(r[0]);
  retain(new_list(), list, std::vector<Expr*>(list.size(), r[1].expr), result);
}

template <> void Builder::on<Action::retain_negative>(const SEMARG&, std::span<Value> r, Value& result)
{
  Token number = r[1].token;
  number.number = -number.number;
  Expr* value = number_expression(number);
  const std::vector<Name> list = names_of(r[0]);
  retain(new_list(), list, std::vector<Expr*>(list.size(), value), result);
}

template <> void Builder::on<Action::retain_last>(const SEMARG&, std::span<Value> r, Value& result)
{
  retain(r[0].list, names_of(r[1]), {}, result);
}

template <> void Builder::on<Action::retain_values>(const SEMARG&, std::span<Value> r, Value& result)
{
  const std::vector<Expr*> initial = initial_values(r[2]);
  const std::vector<Name> list = names_of(r[0]);
  if (initial.size() > list.size())
    diagnostics_->error(Problem::bad_list, r[1].token.where, "There are more initial values than names.");
  retain(new_list(), list, initial, result);
}

template <> void Builder::on<Action::retain_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  retain_statement(r, result);
}

template <> void Builder::on<Action::negative_start>(const SEMARG&, std::span<Value> r, Value& result)
{
  // names, a name or a range, then '-': the list without the sign.
  const std::vector<Value> parts(r.begin(), r.end() - 1);
  List* list = parts[0].list && parts[0].form == Form::plain ? parts[0].list : new_list();
  for (std::size_t k = list == parts[0].list ? 1 : 0; k < parts.size(); ++k) append(*list, parts[k]);
  result.list = list;
  result.form = Form::plain;
}

} // namespace torvale::language
