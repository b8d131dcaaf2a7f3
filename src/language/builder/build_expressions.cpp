// Expressions: the typed tree from the productions of the expression grammar.
#include "language/builder/builder.h"

#include "host/values/missing.h"
#include "language/lexical.h"

#include <algorithm>

namespace torvale::language {

using syntax::Expr;
using syntax::ExprKind;
using syntax::Op;
using Form = Value::Form;

namespace {
constexpr int greatest_height = 3000; // of a tree: what reads it may do so by recursion
}

Expr* Builder::expr(ExprKind kind, syntax::Position where)
{
  Expr* e = arena_.make<Expr>();
  e->kind = kind;
  e->where = where;
  return e;
}

void Builder::set_args(Expr* e, const std::vector<Expr*>& args)
{
  e->args = arena_.copy(args);
}

void Builder::check_height(Value& result, int height)
{
  if (height == greatest_height)
    diagnostics_->error(Problem::too_deep, result.token.where,
                        "This expression is nested more than 3000 deep: split it over several assignments.");
  result.code = static_cast<std::int16_t>(std::min(height, greatest_height + 1));
}

// Puts an expression made of parts into the result.
void Builder::set_expr(Value& result, Expr* e, std::initializer_list<const Value*> parts)
{
  int height = 0;
  for (const Value* p : parts) height = std::max<int>(height, p->code);
  result.expr = e;
  result.list = nullptr;
  result.form = Form::plain;
  check_height(result, height + 1);
}

std::vector<Expr*> Builder::expressions(const List* list) const
{
  std::vector<Expr*> out;
  if (list)
    for (const ListCell* c = list->first; c; c = c->next)
      if (c->value.expr) out.push_back(c->value.expr);
  return out;
}

Expr* Builder::name_expression(const Value& name)
{
  Expr* e = expr(ExprKind::variable, name.token.where);
  e->name = name.token.text;
  return e;
}

Expr* Builder::number_expression(const Token& token)
{
  Expr* e = expr(ExprKind::number, token.where);
  e->number = token.number;
  return e;
}

Expr* Builder::binary(Op op, Expr* a, Expr* b, syntax::Position where)
{
  Expr* e = expr(ExprKind::binary, where);
  e->op = op;
  set_args(e, {a, b});
  return e;
}

// A chain a < b < c is the AND of its links, with b evaluated once. `r`: left operand, operator, right operand.
void Builder::compare(std::span<Value> r, Value& result)
{
  const Op op = static_cast<Op>(r[1].code);
  const bool truncated = r[1].form == Form::range; // set by `truncated`
  Expr* left = r[0].expr;
  const bool open = r[0].form != Form::bracketed && left &&
                    (left->kind == ExprKind::chain ||
                     (left->kind == ExprKind::binary && left->op >= Op::less && left->op <= Op::not_equal));
  if (r[0].form == Form::negated) warn_not(r[0], "comparison");
  Expr* e = nullptr;
  if (open && left->truncated == truncated) {
    e = expr(ExprKind::chain, left->where);
    std::vector<Expr*> operands(left->args.begin(), left->args.end());
    std::vector<Op> links(left->ops.begin(), left->ops.end());
    if (left->kind == ExprKind::binary) links.push_back(left->op);
    operands.push_back(r[2].expr);
    links.push_back(op);
    set_args(e, operands);
    e->ops = arena_.copy(links);
  } else {
    e = binary(op, left, r[2].expr, r[1].token.where);
  }
  e->truncated = truncated;
  set_expr(result, e, {&r[0], &r[2]});
}

void Builder::warn_not(const Value& value, std::string_view rest)
{
  diagnostics_->warning(Problem::ambiguous_reading, value.token.where,
                        "NOT binds tighter than the " + std::string(rest) +
                            " behind it: this is read as (NOT a) = b. Write NOT (a = b) when that is meant.",
                        value.token.length);
}

// e IN (list). NOT e IN (list) is NOT (e IN (list)), the same as NOTIN.
void Builder::in_list(Op op, std::span<Value> r, Value& result)
{
  Expr* left = r[0].expr;
  if (r[0].form == Form::negated && left && left->kind == ExprKind::unary && left->op == Op::not_) {
    left = left->args[0];
    op = op == Op::in ? Op::not_in : Op::in;
  }
  std::vector<Expr*> args{left};
  bool numbers = false, texts = false;
  for (const ListCell* c = r[3].list->first; c; c = c->next) {
    const Value& v = c->value;
    args.push_back(v.expr);
    args.push_back(v.list && v.list->first ? v.list->first->value.expr : nullptr);
    (v.expr && v.expr->kind == ExprKind::text ? texts : numbers) = true;
  }
  if (numbers && texts)
    diagnostics_->error(Problem::bad_list, r[2].token.where, "An IN list holds numbers or texts, not both.");
  Expr* e = expr(ExprKind::in_list, r[1].token.where);
  e->op = op;
  set_args(e, args);
  set_expr(result, e, {&r[0]});
}

// name(arguments): an array's element when the name is a declared array, else a function.
void Builder::call(std::span<Value> r, Value& result)
{
  const bool arguments = r.size() > 3;
  if (arguments && scanner_.is_array(r[0].token.text)) return element(r, result);
  Expr* e = expr(ExprKind::call, r[0].token.where);
  e->name = r[0].token.text;
  int height = 0;
  if (arguments) {
    std::vector<Expr*> args;
    for (const ListCell* c = r[2].list->first; c; c = c->next) {
      const Value& v = c->value;
      height = std::max<int>(height, v.code);
      if (v.form == Form::whole_array) {
        args.push_back(v.expr);
      } else if (v.expr) {
        args.push_back(v.expr);
      } else {
        for (const Name& n : function_names(v)) { // OF a1-a5
          Value single;
          single.token = v.token;
          single.token.text = n.text;
          args.push_back(name_expression(single));
        }
      }
    }
    set_args(e, args);
  }
  set_expr(result, e, {});
  check_height(result, height + 1);
}

void Builder::element(std::span<Value> r, Value& result)
{
  Expr* e = expr(ExprKind::element, r[0].token.where);
  e->name = r[0].token.text;
  if (!scanner_.is_array(e->name))
    diagnostics_->error(Problem::bad_array, e->where,
                        std::string(e->name) + " is not an array: declare it before this place, as in ARRAY " +
                            std::string(e->name) + "[3];",
                        r[0].token.length);
  int height = 0;
  for (const Value& v : items(r[2].list)) {
    height = std::max<int>(height, v.code);
    if (!v.expr || v.form == Form::whole_array)
      diagnostics_->error(Problem::bad_array, v.token.where, "A subscript is an expression.");
  }
  set_args(e, expressions(r[2].list));
  set_expr(result, e, {});
  check_height(result, height + 1);
}

// A condition whose top operator is <> or ><: many languages write "not equal" so, here they are maximum and minimum.
void Builder::condition(const Value& value)
{
  const Expr* e = value.expr;
  if (!e || e->kind != ExprKind::binary || (e->op != Op::maximum && e->op != Op::minimum)) return;
  const bool maximum = e->op == Op::maximum;
  diagnostics_->warning(Problem::ambiguous_reading, e->where,
                        std::string(maximum ? "<> is the maximum" : ">< is the minimum") +
                            " of two numbers, not a comparison: write ^= or NE for 'not equal'.",
                        2);
}

template <> void Builder::on<Action::op>(const SEMARG& a, std::span<Value>, Value& result)
{
  result.code = a.arglist[0];
}

template <> void Builder::on<Action::truncated>(const SEMARG&, std::span<Value>, Value& result)
{
  result.form = Form::range;
}

template <> void Builder::on<Action::binary>(const SEMARG&, std::span<Value> r, Value& result)
{
  set_expr(result, binary(static_cast<Op>(r[1].code), r[0].expr, r[2].expr, r[1].token.where), {&r[0], &r[2]});
}

template <> void Builder::on<Action::concatenate>(const SEMARG&, std::span<Value> r, Value& result)
{
  set_expr(result, binary(Op::concatenate, r[0].expr, r[2].expr, r[1].token.where), {&r[0], &r[2]});
}

template <> void Builder::on<Action::binary_op>(const SEMARG& a, std::span<Value> r, Value& result)
{
  const bool negated = r[0].form == Form::negated;
  set_expr(result, binary(static_cast<Op>(a.arglist[0]), r[0].expr, r[2].expr, r[1].token.where), {&r[0], &r[2]});
  if (negated) warn_not(r[0], "operator");
}

template <> void Builder::on<Action::compare>(const SEMARG&, std::span<Value> r, Value& result)
{
  compare(r, result);
}

template <> void Builder::on<Action::in_list>(const SEMARG& a, std::span<Value> r, Value& result)
{
  in_list(static_cast<Op>(a.arglist[0]), r, result);
}

template <> void Builder::on<Action::in_single>(const SEMARG&, std::span<Value>, Value& result)
{
  result.list = nullptr;
}

template <> void Builder::on<Action::in_range>(const SEMARG&, std::span<Value> r, Value& result)
{
  result.expr = number_expression(r[0].token);
  result.list = new_list();
  Value high = r[2];
  high.expr = number_expression(r[2].token);
  append(*result.list, high);
  const double low = r[0].token.number, top = r[2].token.number;
  if (low != static_cast<double>(static_cast<long long>(std::clamp(low, -1e15, 1e15))) ||
      top != static_cast<double>(static_cast<long long>(std::clamp(top, -1e15, 1e15))) || top < low)
    diagnostics_->error(Problem::bad_list, r[0].token.where,
                        "A range in an IN list runs upwards between whole numbers, as in 1:5.");
}

template <> void Builder::on<Action::unary>(const SEMARG& a, std::span<Value> r, Value& result)
{
  Expr* e = expr(ExprKind::unary, r[0].token.where);
  e->op = static_cast<Op>(a.arglist[0]);
  set_args(e, {r[1].expr});
  set_expr(result, e, {&r[1]});
  if (e->op == Op::not_) result.form = Form::negated;
}

template <> void Builder::on<Action::variable>(const SEMARG&, std::span<Value> r, Value& result)
{
  set_expr(result, name_expression(r[0]), {});
}

template <> void Builder::on<Action::number_expression>(const SEMARG&, std::span<Value> r, Value& result)
{
  set_expr(result, number_expression(r[0].token), {});
}

template <> void Builder::on<Action::missing_expression>(const SEMARG&, std::span<Value> r, Value& result)
{
  set_expr(result, number_expression(r[0].token), {});
}

template <> void Builder::on<Action::text_expression>(const SEMARG&, std::span<Value> r, Value& result)
{
  Expr* e = expr(ExprKind::text, r[0].token.where);
  e->name = r[0].token.text;
  set_expr(result, e, {});
}

template <> void Builder::on<Action::bracketed>(const SEMARG&, std::span<Value> r, Value& result)
{
  const syntax::Position where = r[0].token.where;
  result = r[1];
  result.token.where = where;
  result.form = Form::bracketed;
}

template <> void Builder::on<Action::element>(const SEMARG&, std::span<Value> r, Value& result)
{
  element(r, result);
}

template <> void Builder::on<Action::target_element>(const SEMARG&, std::span<Value> r, Value& result)
{
  element(r, result);
}

template <> void Builder::on<Action::call>(const SEMARG&, std::span<Value> r, Value& result)
{
  call(r, result);
}

template <> void Builder::on<Action::put_function>(const SEMARG&, std::span<Value> r, Value& result)
{
  Expr* format = expr(ExprKind::text, r[4].token.where);
  format->name = r[4].token.text;
  Expr* e = expr(ExprKind::call, r[0].token.where);
  e->name = r[0].token.text;
  set_args(e, {r[2].expr, format});
  set_expr(result, e, {&r[2]});
}

template <> void Builder::on<Action::conditional>(const SEMARG&, std::span<Value> r, Value& result)
{
  condition(r[1]);
  Expr* e = expr(ExprKind::conditional, r[0].token.where);
  set_args(e, {r[1].expr, r[3].expr, r[5].expr});
  set_expr(result, e, {&r[1], &r[3], &r[5]});
}

template <> void Builder::on<Action::whole_array>(const SEMARG&, std::span<Value> r, Value& result)
{
  Expr* e = expr(ExprKind::whole_array, r[0].token.where);
  e->name = r[0].token.text;
  if (!scanner_.is_array(e->name))
    diagnostics_->error(Problem::bad_array, e->where, std::string(e->name) + " is not an array.", r[0].token.length);
  set_expr(result, e, {});
  result.form = Form::whole_array;
}

} // namespace torvale::language
