// ARRAY statements: bounds, elements, initial values.
#include "language/builder/builder.h"

#include "language/lexical.h"

#include <algorithm>
#include <cmath>

namespace torvale::language {

using namespace syntax;
using Form = Value::Form;

namespace {

constexpr double largest_array = 100000; // elements

} // namespace

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

} // namespace torvale::language
