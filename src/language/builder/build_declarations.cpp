// Declarations: arrays, attributes, retained and kept variables, subprograms.
#include "language/builder/builder.h"

#include "language/lexical.h"

#include <algorithm>
#include <cmath>

namespace torvale::language {

using namespace syntax;
using Form = Value::Form;

namespace {

constexpr double largest_array = 100000; // elements

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

// Constants of an initial list; "3 * 0" repeats.
std::vector<Expr*> Builder::initial_values(const Value& value)
{
  std::vector<Expr*> out;
  for (const Value& v : items(value.list))
    for (int n = std::max<int>(v.code == -1 && v.list ? static_cast<int>(v.list->first->value.token.number) : 1, 0);
         n > 0; --n)
      if (v.expr) out.push_back(v.expr);
  return out;
}

// The names that are listed; _TEMPORARY_ is none, and marks the array.
std::vector<Builder::Name> Builder::array_elements(const List* list, ArrayDeclaration& array)
{
  std::vector<Name> elements;
  for (const Value& v : items(list)) {
    const std::string word =
        v.token.symbol != token_class::VLITERAL && v.form == Form::plain ? upper_case(v.token.text) : std::string();
    if (word == "_TEMPORARY_") {
      array.temporary = true;
    } else if (word == "_NUMERIC_" || word == "_CHARACTER_" || word == "_CHAR_" || word == "_ALL_") {
      const std::size_t before = elements.size();
      for (const InputVariable& x : variables_)
        if (word == "_ALL_" || x.character == (word != "_NUMERIC_"))
          elements.push_back({scanner_.intern(x.name), v.token.where});
      if (elements.size() == before)
        diagnostics_->error(Problem::bad_array, v.token.where, word + " stands for no variable of the input data set.",
                            v.token.length);
    } else {
      expand(v, elements);
    }
  }
  return elements;
}

// array head, kind, elements, initial values, ';'. The head holds the name and the list of bounds.
void Builder::array_statement(std::span<Value> r, Value& result)
{
  ArrayDeclaration* s = make_statement<ArrayDeclaration>(StatementKind::array, r);
  const Token name = r[0].token.symbol == 0 ? Token{} : r[0].token;
  s->name = name.text;
  s->character = r[1].code != 0;
  s->length = std::max<std::int32_t>(r[1].code, 0);

  std::vector<Name> elements = array_elements(r[2].list, *s);
  std::vector<std::int32_t> low, high;
  double size = 1.0;
  bool open = r[0].list == nullptr;
  for (const Value& v : items(r[0].list)) {
    if (v.code == -1) {
      open = true;
      continue;
    } // '*'
    const double a = v.list ? v.list->first->value.token.number : 1.0, b = v.token.number;
    const bool large = std::fabs(a) > largest_array || std::fabs(b) > largest_array;
    if (large || !(b >= a) || a != std::floor(a) || b != std::floor(b)) {
      diagnostics_->error(Problem::bad_array, v.token.where,
                          large ? "An array has at most 100000 elements, with bounds from -100000 to 100000. What "
                                  "depends on a record can be read from the data or computed."
                                : "The bounds of an array are whole numbers, the lower one first.",
                          v.token.length);
      low.push_back(1);
      high.push_back(1);
      continue;
    }
    low.push_back(static_cast<std::int32_t>(a));
    high.push_back(static_cast<std::int32_t>(b));
    size *= b - a + 1.0;
  }
  if (open) { // the elements tell the size
    if (!low.empty())
      diagnostics_->error(Problem::bad_array, name.where,
                          "[*] stands alone: an array of several dimensions needs all its bounds.");
    low = {1};
    high = {std::max<std::int32_t>(1, static_cast<std::int32_t>(elements.size()))};
    size = static_cast<double>(elements.size());
    if (elements.empty())
      diagnostics_->error(Problem::bad_array, name.where,
                          "The array " + std::string(s->name) + " has neither a size nor elements.", name.length);
  }
  if (size > largest_array) {
    diagnostics_->error(Problem::bad_array, name.where,
                        "The array " + std::string(s->name) + " has more than 100000 elements.", name.length);
    size = 0;
  }
  if (!s->temporary && elements.empty()) // named after the array: th1, th2, ...
    for (int k = 1; k <= static_cast<int>(size); ++k)
      elements.push_back({scanner_.intern(std::string(s->name) + std::to_string(k)), name.where});
  if (!s->temporary && static_cast<double>(elements.size()) != size && size > 0)
    diagnostics_->error(Problem::bad_array, name.where,
                        "The array " + std::string(s->name) + " has " + std::to_string(static_cast<int>(size)) +
                            " elements, but " + std::to_string(elements.size()) + " names are listed.",
                        name.length);
  s->low = arena_.copy(low);
  s->high = arena_.copy(high);
  if (!s->temporary) s->elements = name_span(elements);
  if (!s->temporary)
    for (const Name& element : elements) assigned_.push_back(element.text);
  const std::vector<Expr*> initial = initial_values(r[3]);
  s->initial = arena_.copy(initial);
  if (static_cast<double>(initial.size()) > size)
    diagnostics_->error(Problem::bad_array, name.where, "There are more initial values than elements.", name.length);
  store(result, s);
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

void Builder::subprogram(std::span<Value> r, Value& result)
{
  SubprogramDefinition* s = make_statement<SubprogramDefinition>(StatementKind::subprogram, r);
  s->is_function = r[0].code == 1;
  s->name = r[0].token.text;
  s->character_result = r[2].code != 0;
  std::vector<Parameter> parameters;
  for (const Value& v : items(r[1].list)) {
    Parameter p;
    p.name = v.token.text;
    p.character = v.code == 1;
    p.array = v.code == 2;
    p.output = std::any_of(outputs_.begin(), outputs_.end(), [&](std::string_view o) { return same_name(o, p.name); });
    parameters.push_back(p);
  }
  for (std::string_view o : outputs_)
    if (std::none_of(parameters.begin(), parameters.end(), [&](const Parameter& p) { return same_name(p.name, o); }))
      diagnostics_->error(Problem::bad_subprogram, s->where,
                          "OUTARGS names " + std::string(o) + ", which is no argument of " + std::string(s->name) +
                              ".");
  outputs_.clear();
  s->parameters = arena_.copy(parameters);
  s->body = block(r[4].list);
  if (result.depth > 0)
    diagnostics_->error(Problem::misplaced_statement, s->where,
                        "A subprogram cannot be defined inside another statement.");
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

template <> void Builder::on<Action::array_name>(const SEMARG&, std::span<Value> r, Value& result)
{
  const Token name = r[1].token;
  List* bounds = r.size() > 2 ? r[3].list : nullptr;
  if (r.size() > 2 && !bounds) bounds = new_list();
  result = Value{};
  result.token = name;
  result.list = bounds;
  scanner_.declare_array(name.text);
}

template <> void Builder::on<Action::array_bound>(const SEMARG&, std::span<Value> r, Value& result)
{
  const Value high = r.back();
  List* low = nullptr;
  if (r.size() > 1) {
    low = new_list();
    append(*low, r[0]);
  }
  result = high;
  result.list = low;
  result.code = 0;
}

template <> void Builder::on<Action::array_bound_open>(const SEMARG&, std::span<Value>, Value& result)
{
  result.code = -1;
}

template <> void Builder::on<Action::array_character>(const SEMARG&, std::span<Value> r, Value& result)
{
  result.code = static_cast<std::int16_t>(r.size() > 1 ? std::clamp(r[1].token.number, 1.0, 32767.0) : -1.0);
}

template <> void Builder::on<Action::array_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  array_statement(r, result);
}

template <> void Builder::on<Action::repeated>(const SEMARG&, std::span<Value> r, Value& result)
{
  List* count = new_list();
  append(*count, r[0]);
  if (r[0].token.number > largest_array)
    diagnostics_->error(Problem::bad_array, r[0].token.where, "There are more initial values than elements.",
                        r[0].token.length);
  const Token token = r[0].token;
  result = r[2];
  result.token = token;
  result.token.number = 0;
  count->first->value.token.number = std::min(r[0].token.number, largest_array);
  result.list = count;
  result.code = -1;
}

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

template <> void Builder::on<Action::open_subprogram>(const SEMARG& a, std::span<Value> r, Value& result)
{
  outputs_.clear();
  result.token = r[1].token;
  result.code = a.arglist[0];
}

template <> void Builder::on<Action::parameter>(const SEMARG&, std::span<Value>, Value& result)
{
  result.code = 0;
}

template <> void Builder::on<Action::parameter_character>(const SEMARG&, std::span<Value>, Value& result)
{
  result.code = 1;
}

template <> void Builder::on<Action::parameter_array>(const SEMARG&, std::span<Value> r, Value& result)
{
  result.code = 2;
  scanner_.declare_array(r[0].token.text);
}

template <> void Builder::on<Action::subprogram>(const SEMARG&, std::span<Value> r, Value& result)
{
  subprogram(r, result);
}

template <> void Builder::on<Action::outargs_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  for (const Value& v : items(r[1].list)) outputs_.push_back(v.token.text);
  store(result, make_statement<Statement>(StatementKind::empty, r));
}

} // namespace torvale::language
