// DO groups and their loops.
#include "language/builder/builder.h"

namespace torvale::language {

using namespace syntax;

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

void Builder::open_do(Expr* LoopRange::*part, const Value& test, Value& result)
{
  LoopRange* range = scratch_->make<LoopRange>();
  range->*part = test.expr;
  condition(test);
  open(result, nullptr, nullptr, range);
}

// A loop specification. `condition` is its WHILE or UNTIL part, a LoopRange of its own where there is one.
LoopRange& Builder::loop(Expr* start, Expr* stop, Expr* step, const Value* condition, Value& result)
{
  LoopRange* range = scratch_->make<LoopRange>();
  if (condition != nullptr && condition->node != nullptr) *range = *static_cast<LoopRange*>(condition->node);
  range->start = start;
  range->stop = stop;
  range->step = step;
  if (step != nullptr && step->kind == ExprKind::number && step->number == 0.0)
    diagnostics_->error(Problem::bad_sequence, step->where, "A loop with BY 0 never ends.");
  result.node = range;
  return *range;
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
  loop(r[0].expr, nullptr, nullptr, nullptr, result);
}

template <> void Builder::on<Action::loop_to>(const SEMARG&, std::span<Value> r, Value& result)
{
  loop(r[0].expr, r[2].expr, nullptr, &r[3], result);
}

template <> void Builder::on<Action::loop_to_by>(const SEMARG&, std::span<Value> r, Value& result)
{
  loop(r[0].expr, r[2].expr, r[4].expr, &r[5], result);
}

template <> void Builder::on<Action::loop_by_to>(const SEMARG&, std::span<Value> r, Value& result)
{
  loop(r[0].expr, r[4].expr, r[2].expr, &r[5], result);
}

template <> void Builder::on<Action::loop_by>(const SEMARG&, std::span<Value> r, Value& result)
{
  loop(r[0].expr, nullptr, r[2].expr, &r[3], result);
}

template <> void Builder::on<Action::loop_while>(const SEMARG&, std::span<Value> r, Value& result)
{
  condition(r[3]);
  loop(r[0].expr, nullptr, nullptr, nullptr, result).while_ = r[3].expr;
}

template <> void Builder::on<Action::loop_until>(const SEMARG&, std::span<Value> r, Value& result)
{
  condition(r[3]);
  loop(r[0].expr, nullptr, nullptr, nullptr, result).until = r[3].expr;
}

template <> void Builder::on<Action::loop_while_part>(const SEMARG&, std::span<Value> r, Value& result)
{
  condition(r[2]);
  loop(nullptr, nullptr, nullptr, nullptr, result).while_ = r[2].expr;
}

template <> void Builder::on<Action::loop_until_part>(const SEMARG&, std::span<Value> r, Value& result)
{
  condition(r[2]);
  loop(nullptr, nullptr, nullptr, nullptr, result).until = r[2].expr;
}

template <> void Builder::on<Action::do_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  do_statement(r, result);
}

} // namespace torvale::language
