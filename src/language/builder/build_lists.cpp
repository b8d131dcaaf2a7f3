// Lists: of values as the grammar gathers them, and of names with their ranges and prefixes.
#include "language/builder/builder.h"

#include "language/lexical.h"

#include <algorithm>
#include <charconv>

namespace torvale::language {

using syntax::same_name;
using Form = Value::Form;

namespace {

constexpr long longest_range = 10000; // names that one numbered range may stand for

// Splits a name into stem and trailing digits; the digits may be empty.
void split_number(std::string_view name, std::string_view& stem, std::string_view& digits)
{
  std::size_t n = name.size();
  while (n > 0 && name[n - 1] >= '0' && name[n - 1] <= '9') --n;
  stem = name.substr(0, n);
  digits = name.substr(n);
}

bool starts_with_name(std::string_view name, std::string_view prefix)
{
  return name.size() >= prefix.size() && same_name(name.substr(0, prefix.size()), prefix);
}

} // namespace

List* Builder::new_list()
{
  return scratch_->make<List>();
}

void Builder::append(List& list, const Value& value)
{
  auto* cell = scratch_->make<ListCell>();
  cell->value = value;
  if (list.last)
    list.last->next = cell;
  else
    list.first = cell;
  list.last = cell;
  ++list.count;
}

// Appends the entries of a list, or one value that is none.
void Builder::append_all(List& list, const Value& value)
{
  if (!value.list || value.form != Form::plain) return append(list, value);
  for (const ListCell* c = value.list->first; c; c = c->next) append(list, c->value);
}

std::vector<Value> Builder::items(const List* list) const
{
  std::vector<Value> out;
  if (list)
    for (const ListCell* c = list->first; c; c = c->next) out.push_back(c->value);
  return out;
}

std::vector<Builder::Name> Builder::names(const List* list)
{
  std::vector<Name> out;
  if (list)
    for (const ListCell* c = list->first; c; c = c->next) expand(c->value, out);
  return out;
}

std::vector<Builder::Name> Builder::one_name(const Value& value)
{
  std::vector<Name> out;
  expand(value, out);
  return out;
}

void Builder::know_name(std::string_view name)
{
  if (known_set_.insert(upper_case(name)).second) known_.push_back(name);
}

void Builder::expand(const Value& item, std::vector<Name>& out)
{
  switch (item.form) {
  case Form::numbered:
    return expand_numbered(item, out);
  case Form::ordered:
  case Form::ordered_numeric:
  case Form::ordered_character:
    return expand_ordered(item, out);
  case Form::prefix:
    return expand_prefix(item, out);
  default:
    out.push_back({item.token.text, item.token.where});
  }
}

void Builder::expand_numbered(const Value& item, std::vector<Name>& out)
{
  const Token& from = item.list->first->value.token;
  const Token& to = item.list->last->value.token;
  std::string_view stem, other, first, last;
  split_number(from.text, stem, first);
  split_number(to.text, other, last);
  const auto refuse = [&](const std::string& why) {
    diagnostics_->error(Problem::bad_list, from.where,
                        std::string(from.text) + "-" + std::string(to.text) + " is no range: " + why, from.length);
  };
  if (first.empty() || last.empty())
    return refuse("both names must end in a number, as in x1-x5. A difference cannot stand in a list of names.");
  if (!same_name(stem, other))
    return refuse(
        "both names must be alike up to the number, as in x1-x5. A difference cannot stand in a list of names.");
  long a = 0, b = 0;
  if (first.size() > 9 || last.size() > 9) return refuse("the numbers are too large.");
  std::from_chars(first.data(), first.data() + first.size(), a);
  std::from_chars(last.data(), last.data() + last.size(), b);
  if (b < a) return refuse("it runs downwards.");
  if (b - a >= longest_range) return refuse("it stands for more than 10000 names.");
  const std::size_t width = first.size() > 1 && first[0] == '0' ? first.size() : 0; // x01-x12 keeps its zeros
  for (long k = a; k <= b; ++k) {
    std::string digits = std::to_string(k);
    if (digits.size() < width) digits.insert(0, width - digits.size(), '0');
    out.push_back({scanner_.intern(std::string(stem) + digits), from.where});
  }
}

// a--b: the names from a to b in the order of PARMS when both stand there, else in the order of the input data.
void Builder::expand_ordered(const Value& item, std::vector<Name>& out)
{
  const Token& from = item.list->first->value.token;
  const Token& to = item.list->last->value.token;
  const auto refuse = [&](const std::string& why) {
    diagnostics_->error(Problem::bad_list, from.where,
                        std::string(from.text) + "--" + std::string(to.text) + ": " + why, from.length);
  };
  const auto place = [](const auto& list, std::string_view name, auto&& text) {
    const auto found = std::find_if(list.begin(), list.end(), [&](const auto& x) { return same_name(text(x), name); });
    return found == list.end() ? std::string_view::npos : static_cast<std::size_t>(found - list.begin());
  };
  const auto itself = [](std::string_view s) { return s; };
  const auto variable_name = [](const InputVariable& v) { return std::string_view(v.name); };
  if (item.form == Form::ordered) {
    const std::size_t a = place(known_, from.text, itself), b = place(known_, to.text, itself);
    if (a != std::string_view::npos && b != std::string_view::npos) {
      if (b < a) return refuse(std::string(to.text) + " stands before " + std::string(from.text) + ".");
      for (std::size_t k = a; k <= b; ++k) out.push_back({known_[k], from.where});
      return;
    }
  }
  const std::size_t a = place(variables_, from.text, variable_name), b = place(variables_, to.text, variable_name);
  for (const auto& [found, token] : {std::pair{a, &from}, {b, &to}})
    if (found == std::string_view::npos)
      return refuse(std::string(token->text) +
                    (variables_.empty() ? " is not known; the order of the input data set is needed for such a list."
                                        : " is not in the input data set."));
  if (b < a)
    return refuse(std::string(to.text) + " stands before " + std::string(from.text) + " in the input data set.");
  const std::size_t before = out.size();
  for (std::size_t k = a; k <= b; ++k) {
    const bool wanted = item.form == Form::ordered || variables_[k].character == (item.form == Form::ordered_character);
    if (wanted) out.push_back({scanner_.intern(variables_[k].name), from.where});
  }
  if (out.size() == before) refuse("no variable of that type stands between them.");
}

void Builder::expand_prefix(const Value& item, std::vector<Name>& out)
{
  const std::size_t before = out.size();
  for (std::string_view name : known_)
    if (starts_with_name(name, item.token.text)) out.push_back({name, item.token.where});
  if (out.size() == before)
    for (const InputVariable& v : variables_)
      if (starts_with_name(v.name, item.token.text)) out.push_back({scanner_.intern(v.name), item.token.where});
  if (out.size() == before)
    diagnostics_->error(Problem::bad_list, item.token.where,
                        std::string(item.token.text) +
                            ": names no variable: nothing in the input data set or in PARMS begins so.",
                        item.token.length);
}

// The names of a function's list. A prefix means everything that begins so at this place of the program: parameters or
// data, then what has been assigned.
std::vector<Builder::Name> Builder::function_names(const Value& value)
{
  if (value.form != Form::prefix) return one_name(value);
  const auto fits = [&](std::string_view name) { return starts_with_name(name, value.token.text); };
  std::vector<Name> out;
  for (const std::string_view name : assigned_) {
    const bool known = std::any_of(out.begin(), out.end(), [&](const Name& n) { return same_name(n.text, name); });
    if (fits(name) && !known) out.push_back({name, value.token.where});
  }
  const bool elsewhere = std::any_of(known_.begin(), known_.end(), fits) ||
                         std::any_of(variables_.begin(), variables_.end(), [&](auto& v) { return fits(v.name); });
  if (!elsewhere && !out.empty()) return out;
  std::vector<Name> all = one_name(value);
  for (const Name& n : out)
    if (std::none_of(all.begin(), all.end(), [&](const Name& other) { return same_name(other.text, n.text); }))
      all.push_back(n);
  return all;
}

void Builder::pair_of(const Value& x, const Value& y, Form form, Value& result)
{
  result.list = new_list();
  append(*result.list, x);
  append(*result.list, y);
  result.form = form;
}

template <> void Builder::on<Action::list_empty>(const SEMARG&, std::span<Value>, Value& result)
{
  result.list = new_list();
}

template <> void Builder::on<Action::list_first>(const SEMARG& a, std::span<Value> r, Value& result)
{
  List* list = new_list();
  append(*list, r[a.length > 1 ? 1 : 0]); // "TO n" as well as the first of a list
  result.list = list;
  result.form = Form::plain;
}

template <> void Builder::on<Action::list_first_all>(const SEMARG&, std::span<Value> r, Value& result)
{
  List* list = new_list();
  append_all(*list, r[0]);
  result.list = list;
  result.form = Form::plain;
  result.expr = nullptr;
}

template <> void Builder::on<Action::list_append>(const SEMARG&, std::span<Value> r, Value&)
{
  append(*r[0].list, r.back());
}

template <> void Builder::on<Action::list_append_all>(const SEMARG&, std::span<Value> r, Value&)
{
  append_all(*r[0].list, r.back());
}

template <> void Builder::on<Action::second>(const SEMARG&, std::span<Value> r, Value& result)
{
  const Token first = r[0].token;
  result = r[1];
  result.token.where = first.where;
}

template <> void Builder::on<Action::pair>(const SEMARG&, std::span<Value> r, Value& result)
{
  // TO n BY k
  result.list = new_list();
  append(*result.list, r[1]);
  append(*result.list, r[3]);
}

template <> void Builder::on<Action::by_without_to>(const SEMARG&, std::span<Value> r, Value& result)
{
  diagnostics_->error(Problem::bad_sequence, r[0].token.where, "BY needs TO before it, as in 1 TO 9 BY 2.", 2);
  result.list = new_list();
}

template <> void Builder::on<Action::numbered_range>(const SEMARG&, std::span<Value> r, Value& result)
{
  pair_of(r[0], r[2], Form::numbered, result);
}

template <> void Builder::on<Action::ordered_range>(const SEMARG& a, std::span<Value> r, Value& result)
{
  pair_of(r[0], r.back(),
          a.arglist[0] == 0   ? Form::ordered
          : a.arglist[0] == 1 ? Form::ordered_numeric
                              : Form::ordered_character,
          result);
}

template <> void Builder::on<Action::prefix_range>(const SEMARG&, std::span<Value>, Value& result)
{
  result.form = Form::prefix;
}

template <> void Builder::on<Action::negate>(const SEMARG&, std::span<Value> r, Value& result)
{
  const Token sign = r[0].token;
  result = r[1];
  result.token.number = -result.token.number;
  result.token.text = arena_.text("-" + std::string(r[1].token.text));
  result.token.length += r[1].token.where.column - sign.where.column;
  result.token.where = sign.where;
}

template <> void Builder::on<Action::missing_number>(const SEMARG&, std::span<Value>, Value&) {}

} // namespace torvale::language
