// Expressions: operators, comparisons, elements of arrays, conversions between numbers and texts.

#include "engine/translation/translate.h"

#include "host/values/missing.h"

#include <cmath>

namespace torvale::engine {

using namespace syntax;

NodeId Translator::number_of(const Expr& e)
{
  return as_number(value_of(e), e.where);
}

TextId Translator::text_of(const Expr& e)
{
  return as_text(value_of(e), e.where);
}

NodeId Translator::as_number(Value v, Position where)
{
  if (!v.is_text()) return v.number;
  gcmp_.note(message::conversion, where,
             "A text is converted to a number here: the number that it spells, the days since 1960 of a date, the "
             "seconds of a time or of a date with a time; any other text becomes a missing value.");
  std::string error;
  const NodeId n = text_.ask(TextQuestion::to_number, v.text, no_text, false, &error);
  return n == no_node ? fail(message::unsupported, where, error) : n;
}

TextId Translator::as_text(Value v, Position where)
{
  if (v.is_text()) return v.text;
  gcmp_.note(message::conversion, where, "A number is converted to a text here.");
  TextNode n;
  n.op = TextOp::put;
  n.number = v.number;
  n.length = 12;
  return text_.make(std::move(n));
}

Value Translator::value_of(const Expr& e)
{
  switch (e.kind) {
  case ExprKind::number:
    return {graph_.constant(host::canonical_missing(e.number)), no_text};
  case ExprKind::text:
    return {no_node, text_.constant(e.name)};
  case ExprKind::variable:
    return variable(e);
  case ExprKind::element:
    return element(e);
  case ExprKind::whole_array:
    return {fail(message::unsupported, e.where,
                 "The array " + std::string(e.name) + " can stand as a whole only among the arguments of a function."),
            no_text};
  case ExprKind::unary: {
    if (e.op == Op::not_) return {graph_.not_(truth_of(*e.args[0])), no_text};
    const NodeId a = number_of(*e.args[0]);
    return {e.op == Op::minus ? graph_.negate(a) : graph_.ordinary(a), no_text};
  }
  case ExprKind::binary:
    return binary(e);
  case ExprKind::chain: {
    NodeId all = graph_.one();
    Value left = value_of(*e.args[0]);
    for (std::size_t k = 0; k < e.ops.size(); ++k) {
      const Value right = value_of(*e.args[k + 1]);
      all = graph_.and_(all, comparison(e.ops[k], left, right, e.truncated, e.where));
      left = right;
    }
    return {all, no_text};
  }
  case ExprKind::conditional: {
    const NodeId condition = truth_of(*e.args[0]);
    Value yes, no; // branch() keeps what functions with output arguments do on each side apart
    branch(
        condition, [&] { yes = value_of(*e.args[1]); }, [&] { no = value_of(*e.args[2]); });
    if (graph_.is_constant(condition)) return graph_.value(condition) != 0.0 ? yes : no;
    if (yes.is_text() && !no.is_text()) no = {no_node, as_text(no, e.where)};
    if (no.is_text() && !yes.is_text()) yes = {no_node, as_text(yes, e.where)};
    return choose(condition, yes, no);
  }
  case ExprKind::call:
    return call(e);
  case ExprKind::in_list: {
    const NodeId in = in_list(e);
    return {e.op == Op::not_in ? graph_.not_(in) : in, no_text};
  }
  }
  return {graph_.missing(), no_text};
}

Value Translator::variable(const Expr& e)
{
  Slot s = -1;
  if (!scopes_.empty()) {
    const auto it = scopes_.back().locals.find(e.name);
    if (it == scopes_.back().locals.end() && scopes_.back().keeps_all) return env(local(e.name));
    if (it == scopes_.back().locals.end()) {
      gcmp_.warning(message::read_before_written, e.where,
                    "The variable " + std::string(e.name) + " of " + std::string(scopes_.back().definition->name) +
                        " is used before it has a value; it is missing here.");
      return {graph_.missing(), no_text};
    }
    s = it->second;
  } else {
    s = symbol_slot(e.name, e.where);
  }
  SlotInfo& i = info(s);
  if (!i.written && !i.hidden) {
    i.written = true;
    gcmp_.warning(message::read_before_written, e.where,
                  "The variable " + i.name +
                      " is used before it has a value; it is missing here. (Every run of the program starts afresh; "
                      "RETAIN keeps a value.)");
  }
  return env(s);
}

Value Translator::binary(const Expr& e)
{
  switch (e.op) {
  case Op::and_:
    return {graph_.and_(truth_of(*e.args[0]), truth_of(*e.args[1])), no_text};
  case Op::or_:
    return {graph_.or_(truth_of(*e.args[0]), truth_of(*e.args[1])), no_text};
  case Op::concatenate: {
    TextNode n;
    n.op = TextOp::concatenate;
    n.a = text_of(*e.args[0]);
    n.b = text_of(*e.args[1]);
    n.length = text_.length(n.a) + text_.length(n.b);
    return {no_node, text_.make(std::move(n))};
  }
  case Op::less:
  case Op::less_equal:
  case Op::greater:
  case Op::greater_equal:
  case Op::equal:
  case Op::not_equal: {
    const Value a = value_of(*e.args[0]);
    const Value b = value_of(*e.args[1]);
    return {comparison(e.op, a, b, e.truncated, e.where), no_text};
  }
  default:
    break;
  }
  const NodeId a = number_of(*e.args[0]);
  const NodeId b = number_of(*e.args[1]);
  switch (e.op) {
  case Op::add:
    return {graph_.add(a, b), no_text};
  case Op::subtract:
    return {graph_.subtract(a, b), no_text};
  case Op::multiply:
    return {graph_.multiply(a, b), no_text};
  case Op::divide:
    return {graph_.divide(a, b), no_text};
  case Op::power:
    return {graph_.power(a, b), no_text};
  // The order of values decides: a missing value is the least. As selects, so that derivatives follow the side taken.
  case Op::minimum:
    return {graph_.select(graph_.compare(Kernel::less_equal, a, b), a, b), no_text};
  case Op::maximum:
    return {graph_.select(graph_.compare(Kernel::less, a, b), b, a), no_text};
  default:
    return {fail(message::unsupported, e.where, "This operator has no meaning here."), no_text};
  }
}

NodeId Translator::comparison(Op op, Value a, Value b, bool truncated, Position where)
{
  // A missing value beside a text means a blank text.
  const auto blank_for_missing = [&](Value& v) {
    if (!v.is_text() && graph_.is_constant(v.number) && std::isnan(graph_.value(v.number)))
      v = {no_node, text_.constant("")};
  };
  if (a.is_text()) blank_for_missing(b);
  if (b.is_text()) blank_for_missing(a);
  if (a.is_text() && b.is_text()) {
    const TextQuestion q = op == Op::less            ? TextQuestion::less
                           : op == Op::less_equal    ? TextQuestion::less_equal
                           : op == Op::greater       ? TextQuestion::greater
                           : op == Op::greater_equal ? TextQuestion::greater_equal
                           : op == Op::equal         ? TextQuestion::equal
                                                     : TextQuestion::not_equal;
    std::string error;
    const NodeId n = text_.ask(q, a.text, b.text, truncated, &error);
    return n == no_node ? fail(message::unsupported, where, error) : n;
  }
  const Kernel k = op == Op::less            ? Kernel::less
                   : op == Op::less_equal    ? Kernel::less_equal
                   : op == Op::greater       ? Kernel::greater
                   : op == Op::greater_equal ? Kernel::greater_equal
                   : op == Op::equal         ? Kernel::equal
                                             : Kernel::not_equal;
  const NodeId x = as_number(a, where);
  return graph_.compare(k, x, as_number(b, where));
}

NodeId Translator::in_list(const Expr& e)
{
  const Value x = value_of(*e.args[0]);
  NodeId any = graph_.zero();
  for (std::size_t k = 1; k + 1 < e.args.size(); k += 2) {
    const Value low = value_of(*e.args[k]);
    if (e.args[k + 1] == nullptr) {
      any = graph_.or_(any, comparison(Op::equal, x, low, false, e.where));
      continue;
    }
    const NodeId above = comparison(Op::less_equal, low, x, false, e.where);
    any = graph_.or_(any, graph_.and_(above, comparison(Op::less_equal, x, value_of(*e.args[k + 1]), false, e.where)));
  }
  return any;
}

// --- arrays ------------------------------------------------------------------------------------------------------

std::optional<Translator::Array> Translator::array_named(std::string_view name)
{
  if (!scopes_.empty()) {
    const auto it = scopes_.back().arrays.find(name);
    if (it != scopes_.back().arrays.end()) return it->second;
  }
  const auto it = gcmp_.arrays.find(name);
  if (it == gcmp_.arrays.end()) return std::nullopt;
  Array& a = arrays_[&it->second];
  if (a.declaration != nullptr) return a;
  a.declaration = it->second.declaration;
  for (const std::int32_t symbol : it->second.elements)
    a.slots.push_back(symbol_slot(gcmp_.at(symbol).name, gcmp_.at(symbol).where));
  return a;
}

bool Translator::place(const Expr& e, const Array& a, std::optional<std::size_t>& fixed, NodeId& index)
{
  const std::size_t dimensions = a.declaration != nullptr ? a.declaration->low.size() : 1;
  if (e.args.size() != dimensions) {
    fail(message::subscript, e.where,
         "The array " + std::string(e.name) + " has " + std::to_string(dimensions) + " dimension(s), but " +
             std::to_string(e.args.size()) + " subscript(s) are given.");
    return false;
  }
  index = graph_.zero();
  NodeId inside = graph_.one();
  for (std::size_t d = 0; d < dimensions; ++d) {
    const double low = a.declaration != nullptr ? a.declaration->low[d] : 1.0;
    const double high = a.declaration != nullptr ? a.declaration->high[d] : static_cast<double>(a.slots.size());
    const NodeId s = graph_.apply(Kernel::truncate, {number_of(*e.args[d])});
    const NodeId in_bounds = graph_.and_(graph_.compare(Kernel::less_equal, graph_.constant(low), s),
                                         graph_.compare(Kernel::less_equal, s, graph_.constant(high)));
    inside = graph_.and_(inside, in_bounds);
    index = graph_.add(graph_.scale(high - low + 1.0, index), graph_.shift(s, -low));
  }
  if (graph_.is_constant(inside, 0.0)) {
    // Only where the statement is sure to be executed is this known to be wrong; elsewhere the run decides.
    gcmp_.error(message::subscript, e.where,
                "A subscript of the array " + std::string(e.name) + " is outside its bounds.");
    return false;
  }
  if (graph_.is_constant(index)) {
    fixed = static_cast<std::size_t>(graph_.value(index));
    return true;
  }
  if (!graph_.is_constant(inside, 1.0)) {
    const Slot flag = flag_slot(&e, "subscript");
    set(flag, graph_.or_(env(flag).number, graph_.and_(active(), graph_.not_(inside))));
    bool known = false;
    for (const Effect& effect : gcmp_.effects) known = known || effect.owner == &e;
    if (!known) {
      Effect effect;
      effect.kind = Effect::Kind::subscript;
      effect.owner = &e;
      effect.where = e.where;
      gcmp_.effects.push_back(std::move(effect));
    }
  }
  return true;
}

Value Translator::element(const Expr& e)
{
  const std::optional<Array> a = array_named(e.name);
  if (!a) return {fail(message::subscript, e.where, std::string(e.name) + " is not an array here."), no_text};
  std::optional<std::size_t> fixed;
  NodeId index = no_node;
  if (!place(e, *a, fixed, index)) return {graph_.missing(), no_text};
  if (fixed) return env(a->slots[*fixed]);
  Value v = env(a->slots.front()).is_text() ? Value{no_node, text_.constant("")} : Value{graph_.missing(), no_text};
  for (std::size_t k = a->slots.size(); k-- > 0;)
    v = choose(graph_.compare(Kernel::equal, index, graph_.constant(static_cast<double>(k))), env(a->slots[k]), v);
  return v;
}

void Translator::assign_element(const Expr& target, Value v)
{
  const std::optional<Array> a = array_named(target.name);
  if (!a) {
    fail(message::subscript, target.where, std::string(target.name) + " is not an array here.");
    return;
  }
  std::optional<std::size_t> fixed;
  NodeId index = no_node;
  if (!place(target, *a, fixed, index)) return;
  if (fixed) return assign(a->slots[*fixed], v, target.where);
  for (std::size_t k = 0; k < a->slots.size(); ++k) {
    const NodeId here = graph_.compare(Kernel::equal, index, graph_.constant(static_cast<double>(k)));
    if (v.is_text() || !env(a->slots[k]).is_text())
      assign(a->slots[k], choose(here, v, env(a->slots[k])), target.where);
    else
      assign(a->slots[k], choose(here, {no_node, as_text(v, target.where)}, env(a->slots[k])), target.where);
  }
}

void Translator::assign_to(const Expr& target, Value v, Position where)
{
  if (target.kind == ExprKind::element) return assign_element(target, v);
  if (scopes_.empty()) return assign(symbol_slot(target.name, target.where), v, where);
  assign(local(target.name), v, where);
}

} // namespace torvale::engine
