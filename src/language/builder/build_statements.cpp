// Programming statements: assignments, branches, jumps.
#include "language/builder/builder.h"

#include "language/lexical.h"

#include <algorithm>

namespace torvale::language {

using namespace syntax;

void Builder::store(Value& result, Statement* s)
{
  const Value begun = result;
  result = {};
  result.token = begun.token;
  result.depth = begun.depth;
  result.stmt = s;
}

// A statement that must not be absent: procedure statements leave none, and have been refused where this matters.
Statement* Builder::or_empty(const Value& value)
{
  if (value.stmt) return value.stmt;
  Statement* s = arena_.make<Statement>();
  s->where = value.token.where;
  s->end = value.token.where;
  return s;
}

Block Builder::block(const List* list)
{
  std::vector<Statement*> body;
  for (const Value& v : items(list))
    if (v.stmt && !(v.stmt->kind == StatementKind::empty && v.stmt->label.empty())) body.push_back(v.stmt);
  return arena_.copy(body);
}

void Builder::select_statement(std::span<Value> r, Value& result)
{
  Expr* selector = r[0].expr;
  const std::vector<Value> clauses = items(r[1].list);
  Statement* otherwise = r.size() > 4 ? or_empty(r[3]) : nullptr;
  SelectStatement* s = statement<SelectStatement>(StatementKind::select, r, result);
  s->selector = selector;
  s->otherwise = otherwise;
  std::vector<WhenClause> whens;
  for (const Value& v : clauses)
    if (v.node) whens.push_back(*static_cast<WhenClause*>(v.node));
  s->whens = arena_.copy(whens);
}

// A header: the statements behind it are nested.
void Builder::open(Value& result, Expr* e, List* list, void* node)
{
  result.expr = e;
  result.list = list;
  result.node = node;
  result.form = Value::Form::plain;
  ++result.depth;
}

void Builder::assignment(Assignment::Form form, std::span<Value> r, Value& result)
{
  Expr *target = r[0].expr, *value = r[2].expr;
  if (target->kind == syntax::ExprKind::variable) assigned_.push_back(target->name);
  Assignment* s = statement<Assignment>(StatementKind::assign, r, result);
  s->form = form;
  s->target = target;
  s->value = value;
}

void Builder::leave(StatementKind kind, std::span<Value> r, Value& result)
{
  Expr* value = r.size() > 2 ? r[1].expr : nullptr;
  statement<ReturnStatement>(kind, r, result)->value = value;
}

template <> void Builder::on<Action::program_statement>(const SEMARG&, std::span<Value> r, Value&)
{
  if (r[1].stmt && !(r[1].stmt->kind == StatementKind::empty && r[1].stmt->label.empty()))
    proc_->program.statements.push_back(r[1].stmt);
}

template <> void Builder::on<Action::empty_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  statement<Statement>(StatementKind::empty, r, result);
}

template <> void Builder::on<Action::labelled>(const SEMARG&, std::span<Value> r, Value& result)
{
  Statement* s = or_empty(r[2]);
  if (!r[2].stmt)
    diagnostics_->error(Problem::misplaced_statement, r[0].token.where,
                        "A label stands before a programming statement.", r[0].token.length);
  if (!s->label.empty()) { // two labels: an empty statement cannot carry one, so the outer one goes to the same place
    diagnostics_->error(Problem::unknown_label, r[0].token.where, "A statement can have one label.", r[0].token.length);
  }
  s->label = r[0].token.text;
  if (!labels_.insert(upper_case(s->label)).second)
    diagnostics_->error(Problem::unknown_label, r[0].token.where,
                        "The label " + std::string(s->label) + " is used twice.", r[0].token.length);
  result.stmt = s;
}

template <> void Builder::on<Action::assign>(const SEMARG&, std::span<Value> r, Value& result)
{
  assignment(Assignment::Form::plain, r, result);
}

template <> void Builder::on<Action::sum>(const SEMARG&, std::span<Value> r, Value& result)
{
  assignment(Assignment::Form::sum, r, result);
}

template <> void Builder::on<Action::assign_substring>(const SEMARG&, std::span<Value> r, Value& result)
{
  const bool length = r.size() > 9;
  Expr *target = r[2].expr, *position = r[4].expr, *count = length ? r[6].expr : nullptr, *value = r[r.size() - 2].expr;
  Assignment* s = statement<Assignment>(StatementKind::assign, r, result);
  s->form = Assignment::Form::substring;
  s->target = target;
  s->position = position;
  s->length = count;
  s->value = value;
}

template <> void Builder::on<Action::open_branch>(const SEMARG&, std::span<Value> r, Value& result)
{
  const Value* expression = r.size() == 3 ? &r[1] : nullptr; // IF e THEN
  if (expression) condition(*expression);
  open(result, expression ? expression->expr : nullptr, r.size() == 4 ? r[2].list : nullptr);
}

template <> void Builder::on<Action::if_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  Expr* test = r[0].expr;
  Statement* then_branch = or_empty(r[1]);
  Statement* else_branch = r.size() > 3 ? or_empty(r[3]) : nullptr;
  const Position end = (else_branch ? else_branch : then_branch)->end;
  IfStatement* s = statement<IfStatement>(StatementKind::if_, r, result);
  s->condition = test;
  s->then_branch = then_branch;
  s->else_branch = else_branch;
  s->end = end;
}

template <> void Builder::on<Action::open_select>(const SEMARG&, std::span<Value> r, Value& result)
{
  open(result, r.size() > 2 ? r[2].expr : nullptr, nullptr);
}

template <> void Builder::on<Action::when_clause>(const SEMARG&, std::span<Value> r, Value&)
{
  WhenClause* clause = scratch_->make<WhenClause>();
  for (const Value& v : items(r[1].list)) condition(v);
  clause->values = arena_.copy(expressions(r[1].list));
  clause->body = or_empty(r[2]);
  Value entry;
  entry.token = r[1].token;
  entry.node = clause;
  append(*r[0].list, entry);
}

template <> void Builder::on<Action::select_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  select_statement(r, result);
}

template <> void Builder::on<Action::jump>(const SEMARG&, std::span<Value> r, Value& result)
{
  const Token target = r[r.size() - 2].token;
  const bool link = upper_case(r[0].token.text) == "LINK";
  JumpStatement* s = statement<JumpStatement>(link ? StatementKind::link : StatementKind::go_to, r, result);
  s->target = target.text;
  jumps_.push_back(s);
}

template <> void Builder::on<Action::return_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  leave(StatementKind::return_, r, result);
}

template <> void Builder::on<Action::abort_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  leave(StatementKind::abort, r, result);
}

template <> void Builder::on<Action::call_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  Value called;
  const std::string_view name = r[1].token.text;
  call(r.size() > 5 ? r.subspan(1, 4) : r.subspan(1, 1), called);
  CallStatement* s = statement<CallStatement>(StatementKind::call, r, result);
  s->name = name;
  s->args = called.expr->args;
}

template <> void Builder::on<Action::simple_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  const std::string word = upper_case(r[0].token.text);
  statement<Statement>(word == "STOP"       ? StatementKind::stop
                       : word == "DELETE"   ? StatementKind::delete_
                       : word == "CONTINUE" ? StatementKind::continue_
                                            : StatementKind::leave,
                       r, result);
}

template <> void Builder::on<Action::include_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  const Token name = r[1].token;
  statement<Statement>(StatementKind::empty, r, result);
  stream_.include(std::string(name.text), r[0].token.where);
}

template <> void Builder::on<Action::not_available>(const SEMARG&, std::span<Value> r, Value& result)
{
  const std::string word = upper_case(r[0].token.text);
  diagnostics_->error(Problem::not_available, r[0].token.where,
                      word == "STRUCT"
                          ? "STRUCT is not available in this procedure: use arrays or separate variables."
                          : "DECLARE is not available in this procedure: it has no hash objects or dictionaries.",
                      r[0].token.length);
  statement<Statement>(StatementKind::empty, r, result);
}

template <> void Builder::on<Action::no_effect>(const SEMARG&, std::span<Value> r, Value& result)
{
  diagnostics_->warning(Problem::without_effect, r[0].token.where,
                        upper_case(r[0].token.text) + " has no effect in this procedure.", r[0].token.length);
  statement<Statement>(StatementKind::empty, r, result);
}

} // namespace torvale::language
