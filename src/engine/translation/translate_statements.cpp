// Statements: assignments, branches, selections, stops, output, expression sites.

#include "engine/translation/translate.h"

namespace torvale::engine {

using namespace syntax;

namespace {

// True when some statement in s, at any depth, jumps to the label.
bool jumps_to(const Statement* s, std::string_view label)
{
  if (s == nullptr) return false;
  const auto any = [&](Block b) {
    for (const Statement* const x : b)
      if (jumps_to(x, label)) return true;
    return false;
  };
  switch (s->kind) {
  case StatementKind::go_to:
    return same_name(static_cast<const JumpStatement*>(s)->target, label);
  case StatementKind::if_: {
    const auto& x = *static_cast<const IfStatement*>(s);
    return jumps_to(x.then_branch, label) || jumps_to(x.else_branch, label);
  }
  case StatementKind::do_:
    return any(static_cast<const DoStatement*>(s)->body);
  case StatementKind::select: {
    const auto& x = *static_cast<const SelectStatement*>(s);
    for (const WhenClause& w : x.whens)
      if (jumps_to(w.body, label)) return true;
    return jumps_to(x.otherwise, label);
  }
  default:
    return false;
  }
}

constexpr int most_nodes = 600000;
constexpr std::int64_t most_requests = 10000000; // also those that find the node made already

} // namespace

void Translator::run_block(Block block)
{
  Labels labels;
  for (const Statement* const s : block)
    if (!s->label.empty())
      labels.pending.emplace(std::string(s->label), new_slot(std::string(s->label), {graph_.zero(), no_text}, true));
  labels_.push_back(std::move(labels));
  run_statements(block, 0, block.size(), false);
  labels_.pop_back();
}

// Statements first..last-1 of a block whose labels are the innermost ones. `looping`: a loop returns to `first`.
void Translator::run_statements(Block block, std::size_t first, std::size_t last, bool looping)
{
  for (std::size_t k = first; k < last; ++k) {
    const Statement* const s = block[k];
    if (!s->label.empty() && !(looping && k == first)) {
      const Slot pending = labels_.back().pending.at(std::string(s->label));
      set(active_, graph_.or_(active(), env(pending).number));
      set(pending, graph_.zero());
      std::size_t end = 0; // just after the last statement that jumps back here
      for (std::size_t j = k; j < last; ++j)
        if (jumps_to(block[j], s->label)) end = j + 1;
      if (end > 0) {
        goto_loop(block, k, end);
        labels_.back().passed[std::string(s->label)] = true;
        k = end - 1;
        continue;
      }
      labels_.back().passed[std::string(s->label)] = true;
    }
    if (is_active()) run_statement(s);
  }
}

// Says so once: loops in loops that are written out, and calls in calls, can ask for more than any machine holds.
bool Translator::too_large(Position where)
{
  if (too_large_ || (graph_.size() < most_nodes && graph_.requests() < most_requests)) return too_large_;
  too_large_ = true;
  fail(message::loop, where,
       "The program grows beyond all measure here: loops of at most 400 passes are written out pass by pass, and calls "
       "of subprograms statement by statement. A loop of more passes, or one whose count is a variable, is not written "
       "out.");
  return true;
}

void Translator::run_statement(const Statement* s)
{
  if (s == nullptr || too_large(s->where)) return;
  stand_at(s->where);
  switch (s->kind) {
  case StatementKind::assign:
    return assignment(*static_cast<const Assignment*>(s));
  case StatementKind::if_: {
    const auto& x = *static_cast<const IfStatement*>(s);
    const NodeId condition = truth_of(*x.condition);
    return branch(
        condition, [&] { run_statement(x.then_branch); }, [&] { run_statement(x.else_branch); });
  }
  case StatementKind::do_:
    return do_statement(*static_cast<const DoStatement*>(s));
  case StatementKind::select:
    return select_statement(*static_cast<const SelectStatement*>(s));
  case StatementKind::go_to:
    return go_to(*static_cast<const JumpStatement*>(s));
  case StatementKind::link:
    return link(*static_cast<const JumpStatement*>(s));
  case StatementKind::return_:
    return return_from(*static_cast<const ReturnStatement*>(s));
  case StatementKind::leave:
  case StatementKind::continue_:
    return leave_or_continue(s);
  case StatementKind::stop:
    return stop(Effect::Kind::stop, s);
  case StatementKind::abort:
    return stop(Effect::Kind::abort, s);
  case StatementKind::delete_:
    set(deleted_, graph_.or_(env(deleted_).number, active()));
    return set(active_, graph_.zero());
  case StatementKind::call:
    return call_statement(*static_cast<const CallStatement*>(s));
  case StatementKind::put:
    return put(*static_cast<const PutStatement*>(s));
  case StatementKind::file:
    return file(*static_cast<const FileStatement*>(s));
  case StatementKind::site:
    return site(*static_cast<const ExpressionSite*>(s));
  case StatementKind::array:
  case StatementKind::attributes:
  case StatementKind::retain:
    return declare(s);
  case StatementKind::keep_drop:
  case StatementKind::subprogram:
  case StatementKind::empty:
    return; // read by the scan
  }
}

void Translator::assignment(const Assignment& a)
{
  const auto store = [&](Value v) { assign_to(*a.target, v, a.where); };
  switch (a.form) {
  case Assignment::Form::plain:
    return store(value_of(*a.value));
  case Assignment::Form::sum: {
    if (!scopes_.empty() && a.target->kind == ExprKind::variable && scopes_.back().locals.count(a.target->name) == 0)
      keep_local(a.target->name, {graph_.zero(), no_text});
    const NodeId before = graph_.apply(Kernel::zero_if_missing, {number_of(*a.target)});
    const NodeId term = graph_.apply(Kernel::zero_if_missing, {number_of(*a.value)});
    return store({graph_.add(before, term), no_text});
  }
  case Assignment::Form::substring: {
    TextNode n;
    n.op = TextOp::replace_at;
    n.a = text_of(*a.target);
    n.b = text_of(*a.value);
    n.number = number_of(*a.position);
    if (a.length != nullptr) n.number2 = number_of(*a.length);
    n.length = text_.length(n.a);
    return store({no_node, text_.make(std::move(n))});
  }
  }
}

void Translator::select_statement(const SelectStatement& s)
{
  const Value selector = s.selector != nullptr ? value_of(*s.selector) : Value{};
  select_from(s, selector, 0);
}

void Translator::select_from(const SelectStatement& s, const Value& selector, std::size_t when)
{
  if (when == s.whens.size()) {
    if (s.otherwise != nullptr) return run_statement(s.otherwise);
    gcmp_.note(message::unmatched_select, s.where,
               "This SELECT has no OTHERWISE: where no WHEN applies nothing is done.");
    return;
  }
  const WhenClause& w = s.whens[when];
  if (!w.values.empty()) stand_at(w.values.front()->where);
  NodeId hit = graph_.zero();
  for (const Expr* const e : w.values) {
    const NodeId one =
        s.selector == nullptr ? truth_of(*e) : comparison(Op::equal, selector, value_of(*e), false, e->where);
    hit = graph_.or_(hit, one);
  }
  branch(
      hit, [&] { run_statement(w.body); }, [&] { select_from(s, selector, when + 1); });
}

void Translator::stop(Effect::Kind kind, const Statement* s)
{
  const Slot flag = flag_slot(s, kind == Effect::Kind::stop ? "stopped" : "aborted");
  set(flag, graph_.or_(env(flag).number, active()));
  set(active_, graph_.zero());
  for (const Effect& e : gcmp_.effects)
    if (e.owner == s) return;
  Effect effect;
  effect.kind = kind;
  effect.owner = s;
  effect.where = s->where;
  if (kind == Effect::Kind::abort) {
    const Expr* const value = static_cast<const ReturnStatement*>(s)->value;
    if (value != nullptr && value->kind == ExprKind::text) effect.text = value->name;
  }
  gcmp_.effects.push_back(std::move(effect));
}

void Translator::put(const PutStatement& s)
{
  Effect effect;
  effect.kind = Effect::Kind::put;
  effect.loop = carried_loop_;
  effect.owner = &s;
  effect.where = s.where;
  effect.guard = graph_.and_(path_, active());
  const auto add = [&](const PutItem& item, std::string name, Value v) {
    const auto of_variable = gcmp_.formats.find(name);
    std::string format =
        !item.format.empty() || of_variable == gcmp_.formats.end() ? std::string(item.format) : of_variable->second;
    if (const std::string fault = item.format.empty() ? std::string() : format_fault(item.format); !fault.empty())
      fail(message::declaration, s.where, fault);
    effect.items.push_back({&item, std::move(name), std::move(format), v.number, v.text});
  };
  for (const PutItem& item : s.items) {
    if (item.kind == PutItem::Kind::all || item.kind == PutItem::Kind::pdv) {
      for (std::size_t k = 0; k < gcmp_.named.size(); ++k) {
        const CMPSYM& v = *gcmp_.named[k];
        if (v.kind == 'v') add(item, v.name, env(symbol_slot(v.name, v.where)));
      }
      continue;
    }
    const bool pointer = item.kind == PutItem::Kind::column || item.kind == PutItem::Kind::advance;
    Value value;
    if (pointer)
      value.number = number_of(*item.value);
    else if (item.value != nullptr)
      value = value_of(*item.value);
    add(item, item.value != nullptr ? to_text(*item.value) : std::string(), value);
  }
  gcmp_.effects.push_back(std::move(effect));
}

void Translator::file(const FileStatement& s)
{
  Effect effect;
  effect.kind = Effect::Kind::file;
  effect.loop = carried_loop_;
  effect.owner = &s;
  effect.where = s.where;
  effect.guard = graph_.and_(path_, active());
  gcmp_.effects.push_back(std::move(effect));
}

void Translator::site(const ExpressionSite& s)
{
  for (const Expr* const e : s.expressions) {
    const auto index = static_cast<std::size_t>(gcmp_.sites.at(e));
    const Value v = value_of(*e);
    if (v.is_text()) {
      gcmp_.at(static_cast<std::int32_t>(index)).type = 'c';
      gcmp_.text_value[index] = v.text;
      continue;
    }
    gcmp_.value[index] = v.number; // also on records that DELETE has left: a subject's distribution is one for all
  }
}

} // namespace torvale::engine
