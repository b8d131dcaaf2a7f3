// Programming statements: assignments, control flow, output.
#include "language/builder/builder.h"

#include "language/lexical.h"

#include <algorithm>
#include <utility>

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

// A header: the statements behind it are nested.
void Builder::open(Value& result, Expr* e, List* list, void* node)
{
  result.expr = e;
  result.list = list;
  result.node = node;
  result.form = Value::Form::plain;
  ++result.depth;
}

void Builder::open_do(Expr* LoopRange::*part, const Value& test, Value& result)
{
  LoopRange* range = scratch_->make<LoopRange>();
  range->*part = test.expr;
  condition(test);
  open(result, nullptr, nullptr, range);
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

LoopRange* Builder::store_range(Action action, std::span<Value> r)
{
  LoopRange* range = scratch_->make<LoopRange>();
  *range = loop_range(action, r);
  return range;
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

template <> void Builder::on<Action::open_do>(const SEMARG&, std::span<Value>, Value& result)
{
  open(result, nullptr, nullptr);
}

template <> void Builder::on<Action::open_do_while>(const SEMARG&, std::span<Value> r, Value& result)
{
  open_do(&LoopRange::while_, r[3], result);
}

template <> void Builder::on<Action::open_do_until>(const SEMARG&, std::span<Value> r, Value& result)
{
  open_do(&LoopRange::until, r[3], result);
}

template <> void Builder::on<Action::open_do_index>(const SEMARG&, std::span<Value> r, Value& result)
{
  open(result, r[1].expr, r[3].list);
}

template <> void Builder::on<Action::loop_single>(const SEMARG&, std::span<Value> r, Value& result)
{
  result.node = store_range(Action::loop_single, r);
}

template <> void Builder::on<Action::loop_to>(const SEMARG&, std::span<Value> r, Value& result)
{
  result.node = store_range(Action::loop_to, r);
}

template <> void Builder::on<Action::loop_to_by>(const SEMARG&, std::span<Value> r, Value& result)
{
  result.node = store_range(Action::loop_to_by, r);
}

template <> void Builder::on<Action::loop_by>(const SEMARG&, std::span<Value> r, Value& result)
{
  result.node = store_range(Action::loop_by, r);
}

template <> void Builder::on<Action::loop_by_to>(const SEMARG&, std::span<Value> r, Value& result)
{
  result.node = store_range(Action::loop_by_to, r);
}

template <> void Builder::on<Action::loop_while>(const SEMARG&, std::span<Value> r, Value& result)
{
  result.node = store_range(Action::loop_while, r);
}

template <> void Builder::on<Action::loop_until>(const SEMARG&, std::span<Value> r, Value& result)
{
  result.node = store_range(Action::loop_until, r);
}

template <> void Builder::on<Action::loop_while_part>(const SEMARG&, std::span<Value> r, Value& result)
{
  result.node = store_range(Action::loop_while_part, r);
}

template <> void Builder::on<Action::loop_until_part>(const SEMARG&, std::span<Value> r, Value& result)
{
  result.node = store_range(Action::loop_until_part, r);
}

template <> void Builder::on<Action::do_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  do_statement(r, result);
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

template <> void Builder::on<Action::put_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  put_statement(r, result);
}

template <> void Builder::on<Action::put_mark>(const SEMARG& a, std::span<Value> r, Value& result)
{
  put_item(Action::put_mark, a, r, result);
}

template <> void Builder::on<Action::put_text>(const SEMARG& a, std::span<Value> r, Value& result)
{
  put_item(Action::put_text, a, r, result);
}

template <> void Builder::on<Action::put_value>(const SEMARG& a, std::span<Value> r, Value& result)
{
  put_item(Action::put_value, a, r, result);
}

template <> void Builder::on<Action::put_named>(const SEMARG& a, std::span<Value> r, Value& result)
{
  put_item(Action::put_named, a, r, result);
}

template <> void Builder::on<Action::put_column>(const SEMARG& a, std::span<Value> r, Value& result)
{
  put_item(Action::put_column, a, r, result);
}

template <> void Builder::on<Action::put_column_name>(const SEMARG& a, std::span<Value> r, Value& result)
{
  put_item(Action::put_column_name, a, r, result);
}

template <> void Builder::on<Action::put_column_expression>(const SEMARG& a, std::span<Value> r, Value& result)
{
  put_item(Action::put_column_expression, a, r, result);
}

template <> void Builder::on<Action::put_advance>(const SEMARG& a, std::span<Value> r, Value& result)
{
  put_item(Action::put_advance, a, r, result);
}

template <> void Builder::on<Action::put_advance_name>(const SEMARG& a, std::span<Value> r, Value& result)
{
  put_item(Action::put_advance_name, a, r, result);
}

template <> void Builder::on<Action::put_advance_expression>(const SEMARG& a, std::span<Value> r, Value& result)
{
  put_item(Action::put_advance_expression, a, r, result);
}

template <> void Builder::on<Action::file_option_value>(const SEMARG&, std::span<Value> r, Value& result)
{
  const Token value = r[1].token;
  file_value_ =
      value.symbol == token_class::INT ? static_cast<std::int32_t>(std::clamp(value.number, 0.0, 32767.0)) : 0;
  result = r[0];
}

template <> void Builder::on<Action::file_option>(const SEMARG&, std::span<Value> r, Value&)
{
  const std::string word = upper_case(r[1].token.text);
  const std::int32_t value = std::exchange(file_value_, 0);
  if (value > 0 && (word == "LRECL" || word == "LINESIZE" || word == "LS"))
    file_.line_size = value;
  else if (word == "PAD" || word == "NOPAD")
    file_.pad = word == "PAD";
  else if (word == "DROPOVER" || word == "FLOWOVER")
    file_.drop_over = word == "DROPOVER";
  else if (word == "MOD" || word == "OLD")
    file_.append = word == "MOD";
  else
    diagnostics_->warning(Problem::without_effect, r[1].token.where,
                          "This option of FILE has no effect. LRECL=, PAD, DROPOVER and MOD have one.",
                          r[1].token.length);
}

template <> void Builder::on<Action::file_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  const Token target = r[1].token;
  FileStatement* s = statement<FileStatement>(StatementKind::file, r, result);
  s->line_size = file_.line_size;
  s->drop_over = file_.drop_over;
  s->pad = file_.pad;
  s->append = file_.append;
  file_ = {};
  s->is_name = target.symbol == token_class::QS;
  s->target = target.text;
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
