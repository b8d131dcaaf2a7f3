// Programming statements: assignments, control flow, output.
#include "language/builder/builder.h"

#include "language/lexical.h"

#include <algorithm>

namespace torvale::language {

using namespace syntax;

template <class S> S* Builder::statement(StatementKind kind, std::span<Value> r, Value& result)
{
  S* s = arena_.make<S>();
  s->kind = kind;
  s->where = r.front().token.where;
  s->end = r.back().token.where;
  const std::int16_t depth = result.depth;
  const Token first = r.front().token;
  result = {};
  result.token = first;
  result.depth = depth;
  result.stmt = s;
  return s;
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

LoopRange Builder::loop_range(Action action, std::span<Value> r)
{
  LoopRange range;
  range.start = r[0].expr;
  const auto condition_of = [&](const Value& v) { // the loop_condition part, a LoopRange of its own
    if (!v.node) return;
    range.while_ = static_cast<LoopRange*>(v.node)->while_;
    range.until = static_cast<LoopRange*>(v.node)->until;
  };
  switch (action) {
  case Action::loop_to:
    range.stop = r[2].expr;
    condition_of(r[3]);
    break;
  case Action::loop_to_by:
    range.stop = r[2].expr;
    range.step = r[4].expr;
    condition_of(r[5]);
    break;
  case Action::loop_by_to:
    range.step = r[2].expr;
    range.stop = r[4].expr;
    condition_of(r[5]);
    break;
  case Action::loop_by:
    range.step = r[2].expr;
    condition_of(r[3]);
    break;
  case Action::loop_while:
    range.while_ = r[3].expr;
    condition(r[3]);
    break;
  case Action::loop_until:
    range.until = r[3].expr;
    condition(r[3]);
    break;
  case Action::loop_while_part:
    range = {};
    range.while_ = r[2].expr;
    condition(r[2]);
    break;
  case Action::loop_until_part:
    range = {};
    range.until = r[2].expr;
    condition(r[2]);
    break;
  default:
    break;
  }
  if (range.step && range.step->kind == ExprKind::number && range.step->number == 0.0)
    diagnostics_->error(Problem::bad_sequence, range.step->where, "A loop with BY 0 never ends.");
  return range;
}

void Builder::do_statement(std::span<Value> r, Value& result)
{
  const Value head = r[0];
  DoStatement* s = statement<DoStatement>(StatementKind::do_, r, result);
  s->body = block(r[1].list);
  if (head.node) { // WHILE or UNTIL alone
    s->while_ = static_cast<LoopRange*>(head.node)->while_;
    s->until = static_cast<LoopRange*>(head.node)->until;
  }
  s->index = head.expr;
  std::vector<LoopRange> ranges;
  for (const Value& v : items(head.list))
    if (v.node) ranges.push_back(*static_cast<LoopRange*>(v.node));
  s->ranges = arena_.copy(ranges);
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

void Builder::put_item(Action action, const SEMARG& a, std::span<Value> r, Value& result)
{
  PutItem* item = scratch_->make<PutItem>();
  using Kind = PutItem::Kind;
  static constexpr Kind marks[] = {Kind::next_line, Kind::next_line, Kind::hold,     Kind::next_page,
                                   Kind::all,       Kind::pdv,       Kind::next_line};
  switch (action) {
  case Action::put_text:
    item->kind = Kind::text;
    item->text = r[0].token.text;
    break;
  case Action::put_value:
  case Action::put_named:
    item->kind = action == Action::put_value ? Kind::value : Kind::named_value;
    item->value = r[0].expr;
    if (r.back().token.symbol == token_class::FMT) item->format = r.back().token.text;
    break;
  case Action::put_column:
  case Action::put_column_name:
  case Action::put_column_expression:
  case Action::put_advance:
  case Action::put_advance_name:
  case Action::put_advance_expression: {
    const bool column =
        action == Action::put_column || action == Action::put_column_name || action == Action::put_column_expression;
    item->kind = column ? Kind::column : Kind::advance;
    item->value = r.size() > 2                            ? r[2].expr
                  : r[1].token.symbol == token_class::INT ? number_expression(r[1].token)
                                                          : name_expression(r[1]);
    break;
  }
  default:
    item->kind = marks[a.arglist[0]];
    break;
  }
  const std::int16_t depth = result.depth;
  const Token token = r[0].token;
  result = {};
  result.token = token;
  result.depth = depth;
  result.node = item;
  result.code = action == Action::put_mark ? a.arglist[0] : std::int16_t{0};
}

void Builder::put_statement(std::span<Value> r, Value& result)
{
  std::vector<PutItem> list;
  for (const Value& v : items(r[1].list)) {
    if (!v.node) continue;
    list.push_back(*static_cast<PutItem*>(v.node));
    if (v.code == 6) list.push_back(list.back()); // "//" is two lines
  }
  if (r.size() > 3 && r[2].node) list.push_back(*static_cast<PutItem*>(r[2].node));
  PutStatement* s = statement<PutStatement>(StatementKind::put, r, result);
  s->items = arena_.copy(list);
}

bool Builder::act_on_statements(Action action, const SEMARG& a, std::span<Value> r, Value& result)
{
  const auto open = [&](Expr* e, List* list, void* node = nullptr) { // a header: the statements behind it are nested
    result.expr = e;
    result.list = list;
    result.node = node;
    result.form = Value::Form::plain;
    ++result.depth;
  };
  const auto store_range = [&](Action kind) {
    LoopRange* range = scratch_->make<LoopRange>();
    *range = loop_range(kind, r);
    return range;
  };
  switch (action) {
  case Action::program_statement:
    if (r[1].stmt && !(r[1].stmt->kind == StatementKind::empty && r[1].stmt->label.empty()))
      proc_->program.statements.push_back(r[1].stmt);
    return true;
  case Action::empty_statement:
    statement<Statement>(StatementKind::empty, r, result);
    return true;
  case Action::labelled: {
    Statement* s = or_empty(r[2]);
    if (!r[2].stmt)
      diagnostics_->error(Problem::misplaced_statement, r[0].token.where,
                          "A label stands before a programming statement.", r[0].token.length);
    if (!s->label.empty()) { // two labels: an empty statement cannot carry one, so the outer one goes to the same place
      diagnostics_->error(Problem::unknown_label, r[0].token.where, "A statement can have one label.",
                          r[0].token.length);
    }
    s->label = r[0].token.text;
    if (!labels_.insert(upper_case(s->label)).second)
      diagnostics_->error(Problem::unknown_label, r[0].token.where,
                          "The label " + std::string(s->label) + " is used twice.", r[0].token.length);
    result.stmt = s;
    return true;
  }
  case Action::assign:
  case Action::sum: {
    Expr* target = r[0].expr;
    Expr* value = r[2].expr;
    Assignment* s = statement<Assignment>(StatementKind::assign, r, result);
    s->form = action == Action::sum ? Assignment::Form::sum : Assignment::Form::plain;
    s->target = target;
    s->value = value;
    return true;
  }
  case Action::assign_substring: {
    const bool length = r.size() > 9;
    Expr *target = r[2].expr, *position = r[4].expr, *count = length ? r[6].expr : nullptr,
         *value = r[r.size() - 2].expr;
    Assignment* s = statement<Assignment>(StatementKind::assign, r, result);
    s->form = Assignment::Form::substring;
    s->target = target;
    s->position = position;
    s->length = count;
    s->value = value;
    return true;
  }
  case Action::open_branch: {
    const Value* expression = r.size() == 3 ? &r[1] : nullptr; // IF e THEN
    if (expression) condition(*expression);
    open(expression ? expression->expr : nullptr, r.size() == 4 ? r[2].list : nullptr);
    return true;
  }
  case Action::if_statement: {
    Expr* test = r[0].expr;
    Statement* then_branch = or_empty(r[1]);
    Statement* else_branch = r.size() > 3 ? or_empty(r[3]) : nullptr;
    const Position end = (else_branch ? else_branch : then_branch)->end;
    IfStatement* s = statement<IfStatement>(StatementKind::if_, r, result);
    s->condition = test;
    s->then_branch = then_branch;
    s->else_branch = else_branch;
    s->end = end;
    return true;
  }
  case Action::open_do:
    open(nullptr, nullptr);
    return true;
  case Action::open_do_while:
  case Action::open_do_until: {
    LoopRange* range = scratch_->make<LoopRange>();
    (action == Action::open_do_while ? range->while_ : range->until) = r[3].expr;
    condition(r[3]);
    open(nullptr, nullptr, range);
    return true;
  }
  case Action::open_do_index:
    open(r[1].expr, r[3].list);
    return true;
  case Action::loop_single:
  case Action::loop_to:
  case Action::loop_to_by:
  case Action::loop_by:
  case Action::loop_by_to:
  case Action::loop_while:
  case Action::loop_until:
  case Action::loop_while_part:
  case Action::loop_until_part:
    result.node = store_range(action);
    return true;
  case Action::do_statement:
    do_statement(r, result);
    return true;
  case Action::open_select:
    open(r.size() > 2 ? r[2].expr : nullptr, nullptr);
    return true;
  case Action::when_clause: {
    WhenClause* clause = scratch_->make<WhenClause>();
    for (const Value& v : items(r[1].list)) condition(v);
    clause->values = arena_.copy(expressions(r[1].list));
    clause->body = or_empty(r[2]);
    Value entry;
    entry.token = r[1].token;
    entry.node = clause;
    append(*r[0].list, entry);
    return true;
  }
  case Action::select_statement:
    select_statement(r, result);
    return true;
  case Action::jump: {
    const Token target = r[r.size() - 2].token;
    const bool link = upper_case(r[0].token.text) == "LINK";
    JumpStatement* s = statement<JumpStatement>(link ? StatementKind::link : StatementKind::go_to, r, result);
    s->target = target.text;
    jumps_.push_back(s);
    return true;
  }
  case Action::return_statement:
  case Action::abort_statement: {
    Expr* value = r.size() > 2 ? r[1].expr : nullptr;
    ReturnStatement* s = statement<ReturnStatement>(
        action == Action::abort_statement ? StatementKind::abort : StatementKind::return_, r, result);
    s->value = value;
    return true;
  }
  case Action::call_statement: {
    Value called;
    const std::string_view name = r[1].token.text;
    call(r.size() > 5 ? r.subspan(1, 4) : r.subspan(1, 1), called);
    CallStatement* s = statement<CallStatement>(StatementKind::call, r, result);
    s->name = name;
    s->args = called.expr->args;
    return true;
  }
  case Action::simple_statement: {
    const std::string word = upper_case(r[0].token.text);
    statement<Statement>(word == "STOP"       ? StatementKind::stop
                         : word == "DELETE"   ? StatementKind::delete_
                         : word == "CONTINUE" ? StatementKind::continue_
                                              : StatementKind::leave,
                         r, result);
    return true;
  }
  case Action::put_statement:
    put_statement(r, result);
    return true;
  case Action::put_mark:
  case Action::put_text:
  case Action::put_value:
  case Action::put_named:
  case Action::put_column:
  case Action::put_column_name:
  case Action::put_column_expression:
  case Action::put_advance:
  case Action::put_advance_name:
  case Action::put_advance_expression:
    put_item(action, a, r, result);
    return true;
  case Action::file_option:
    diagnostics_->warning(Problem::without_effect, r[1].token.where, "Options of FILE have no effect.",
                          r[1].token.length);
    return true;
  case Action::file_statement: {
    const Token target = r[1].token;
    FileStatement* s = statement<FileStatement>(StatementKind::file, r, result);
    s->is_name = target.symbol == token_class::QS;
    s->target = target.text;
    return true;
  }
  case Action::include_statement: {
    const Token name = r[1].token;
    statement<Statement>(StatementKind::empty, r, result);
    stream_.include(std::string(name.text), r[0].token.where);
    return true;
  }
  case Action::not_available: {
    const std::string word = upper_case(r[0].token.text);
    diagnostics_->error(Problem::not_available, r[0].token.where,
                        word == "STRUCT"
                            ? "STRUCT is not available in this procedure: use arrays or separate variables."
                            : "DECLARE is not available in this procedure: it has no hash objects or dictionaries.",
                        r[0].token.length);
    statement<Statement>(StatementKind::empty, r, result);
    return true;
  }
  case Action::no_effect:
    diagnostics_->warning(Problem::without_effect, r[0].token.where,
                          upper_case(r[0].token.text) + " has no effect in this procedure.", r[0].token.length);
    statement<Statement>(StatementKind::empty, r, result);
    return true;
  default:
    return false;
  }
}

} // namespace torvale::language
