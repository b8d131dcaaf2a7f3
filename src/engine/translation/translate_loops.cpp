// Loops and jumps. Every kind of loop is a sequence of passes under the mask `active`; what leaves a loop early waits
// in a mask of its own and joins again behind it.

#include "engine/translation/translate.h"
#include "syntax/walk.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace torvale::engine {

using namespace syntax;

namespace {

// Loops of at most this many passes are unrolled; longer ones carry their values from pass to pass.
constexpr double most_unrolled_passes = 400.0;

// Longer loops that take elements of arrays are unrolled too, as far as all of them together make no more nodes than
// this: where the subscript is a number, an element is a variable. A loop that carries its values would choose it
// among all in every pass.
constexpr std::int64_t most_nodes_of_long_loops = 60000;
constexpr std::int64_t most_nodes_of_short_loop = 200000; // that takes elements: it is not unrolled at any price either
constexpr std::int64_t most_requests_of_long_loops = 20 * most_nodes_of_long_loops; // also nodes made already

// True when a pass takes an element of an array, or hands an array on.
bool takes_elements(const DoStatement& d, const std::function<bool(std::string_view)>& is_array)
{
  bool found = false;
  for (const Statement* const s : d.body)
    each_expression(s, [&](const Expr& e) {
      found = found || e.kind == ExprKind::element || (e.kind == ExprKind::variable && is_array(e.name));
    });
  return found;
}

// The statement with a label, at any depth; null when there is none.
const Statement* labelled(Block block, std::string_view label);

const Statement* labelled(const Statement* s, std::string_view label)
{
  if (s == nullptr) return nullptr;
  if (same_name(s->label, label)) return s;
  const Statement* found = nullptr;
  switch (s->kind) {
  case StatementKind::if_: {
    const auto& x = *static_cast<const IfStatement*>(s);
    found = labelled(x.then_branch, label);
    return found != nullptr ? found : labelled(x.else_branch, label);
  }
  case StatementKind::do_:
    return labelled(static_cast<const DoStatement*>(s)->body, label);
  case StatementKind::select: {
    const auto& x = *static_cast<const SelectStatement*>(s);
    for (const WhenClause& w : x.whens)
      if (found = labelled(w.body, label); found != nullptr) return found;
    return labelled(x.otherwise, label);
  }
  default:
    return nullptr;
  }
}

const Statement* labelled(Block block, std::string_view label)
{
  for (const Statement* const s : block)
    if (const Statement* const found = labelled(s, label)) return found;
  return nullptr;
}

} // namespace

void Translator::go_to(const JumpStatement& j)
{
  for (auto it = labels_.rbegin(); it != labels_.rend(); ++it) {
    const auto found = it->pending.find(j.target);
    if (found == it->pending.end()) continue;
    if (const auto passed = it->passed.find(j.target); passed != it->passed.end() && passed->second) break;
    set(found->second, graph_.or_(env(found->second).number, active()));
    return set(active_, graph_.zero());
  }
  fail(message::jump, j.where, "GOTO " + std::string(j.target) + no_way_to(j.target));
}

// Statements among which labels are looked for: of the program, or of the subprogram at hand.
Block Translator::outermost_block() const
{
  if (!scopes_.empty()) return scopes_.back().definition->body;
  return {gcmp_.program->statements.data(), gcmp_.program->statements.size()};
}

// Why a jump to the label is refused.
std::string Translator::no_way_to(std::string_view label) const
{
  const Statement* const s = labelled(outermost_block(), label);
  if (s == nullptr) return ": no statement has this label.";
  return ": the label stands in line " + std::to_string(s->where.line) +
         ", inside a group of statements (DO, SELECT or IF) that this statement is not part of. A jump may go to a "
         "label of its own group or of a group around it, not into another one.";
}

// LINK runs the statements from the label on until RETURN (or the end), then comes back.
void Translator::link(const JumpStatement& j)
{
  for (const Statement* const outer : links_)
    if (same_name(static_cast<const JumpStatement*>(outer)->target, j.target)) {
      fail(message::recursion, j.where,
           "LINK to " + std::string(j.target) + " comes back to itself; a LINK may not be recursive.");
      return;
    }
  const Block all = outermost_block();
  for (std::size_t k = 0; k < all.size(); ++k) {
    if (!same_name(all[k]->label, j.target)) continue;
    const Slot returned = new_slot("returned", {graph_.zero(), no_text}, true);
    returns_.push_back(returned);
    links_.push_back(&j);
    std::vector<LoopMasks> loops_outside;
    loops_outside.swap(loops_); // LEAVE does not reach into the loop that the LINK stands in
    run_block(all.subspan(k));
    loops_.swap(loops_outside);
    links_.pop_back();
    returns_.pop_back();
    return set(active_, graph_.or_(active(), env(returned).number));
  }
  fail(message::jump, j.where, "LINK " + std::string(j.target) + no_way_to(j.target));
}

// The value of a function. A text keeps the length that it has.
void Translator::give_back(Value v, Position where)
{
  const Slot result = scopes_.back().result;
  if (info(result).type != 'c') return assign(result, v, where);
  set(result, choose(active(), {no_node, as_text(v, where)}, env(result)));
}

void Translator::return_from(const ReturnStatement& r)
{
  if (!scopes_.empty() && r.value != nullptr && scopes_.back().result >= 0) give_back(value_of(*r.value), r.where);
  if (!returns_.empty()) set(returns_.back(), graph_.or_(env(returns_.back()).number, active()));
  set(active_, graph_.zero());
}

void Translator::leave_or_continue(const Statement* s)
{
  if (loops_.empty()) {
    fail(message::loop, s->where, "LEAVE and CONTINUE stand only in loops.");
    return;
  }
  const Slot waiting = s->kind == StatementKind::leave ? loops_.back().leave : loops_.back().next;
  set(waiting, graph_.or_(env(waiting).number, active()));
  set(active_, graph_.zero());
}

void Translator::do_statement(const DoStatement& d)
{
  if (d.index == nullptr && d.while_ == nullptr && d.until == nullptr) return run_block(d.body);
  LoopMasks masks;
  masks.leave = new_slot("leave", {graph_.zero(), no_text}, true);
  masks.next = new_slot("next", {graph_.zero(), no_text}, true);
  loops_.push_back(masks);
  if (d.index != nullptr)
    ranges(d);
  else
    conditional_loop(d);
  loops_.pop_back();
  set(active_, graph_.or_(active(), env(masks.leave).number));
  set(masks.leave, graph_.zero());
}

void Translator::ranges(const DoStatement& d)
{
  for (const LoopRange& r : d.ranges)
    if (is_active()) counted(d, r);
}

// One pass: WHILE, the body, UNTIL. Lanes that fail a condition wait in the mask `ended`.
void Translator::pass(const DoStatement& d, const Expr* while_, const Expr* until, Slot ended)
{
  const auto go_on_if = [&](NodeId go) {
    set(ended, graph_.or_(env(ended).number, graph_.and_(active(), graph_.not_(go))));
    set(active_, graph_.and_(active(), go));
  };
  if (while_ != nullptr) {
    stand_at(while_->where);
    go_on_if(truth_of(*while_));
  }
  if (is_active()) run_block(d.body);
  const Slot next = loops_.back().next;
  set(active_, graph_.or_(active(), env(next).number));
  set(next, graph_.zero());
  if (until == nullptr || !is_active()) return;
  stand_at(until->where);
  go_on_if(graph_.not_(truth_of(*until)));
}

// index = start TO stop BY step WHILE UNTIL. The number of passes is fixed on entry, floor((stop - start) / step +
// 1e-9)
// + 1, and pass k has the value start + k * step, so that no rounding accumulates. WHILE and UNTIL end this range only;
// the next range of the list is entered all the same.
void Translator::counted(const DoStatement& d, const LoopRange& r)
{
  const auto store = [&](NodeId v) { assign_to(*d.index, {v, no_text}, d.where); };
  const bool single = r.stop == nullptr && r.step == nullptr;
  const Value first = value_of(*r.start);
  if (single) assign_to(*d.index, first, d.where); // may be a text
  const NodeId start = single && first.is_text() ? graph_.missing() : as_number(first, r.start->where);
  const Slot ended = new_slot("ended", {graph_.zero(), no_text}, true);
  const NodeId step = r.step != nullptr ? number_of(*r.step) : graph_.one();
  const auto value_at = [&](NodeId k) { return graph_.add(start, graph_.multiply(k, step)); };
  if (graph_.is_constant(step, 0.0)) {
    fail(message::loop, d.where, "The BY value of this loop is 0; it would never end.");
    return;
  }
  if (single) {
    pass(d, r.while_, r.until, ended);
    return set(active_, graph_.or_(active(), env(ended).number));
  }
  const Slot count = new_slot("count", {graph_.zero(), no_text}, true);
  const auto counted_pass = [&] {
    store(value_at(env(count).number));
    pass(d, r.while_, r.until, ended);
    set(count, graph_.select(active(), graph_.add(env(count).number, graph_.one()), env(count).number));
  };
  if (r.stop == nullptr) { // start BY step WHILE or UNTIL: no end of its own
    const Slot again = new_slot("again", {active(), no_text}, true);
    carried_loop(d.where, again, {count, loops_.back().next}, counted_pass);
    return set(active_, env(ended).number);
  }
  const NodeId quotient = graph_.divide(graph_.subtract(number_of(*r.stop), start), step);
  const NodeId passes = graph_.add(graph_.apply(Kernel::floor, {graph_.shift(quotient, 1e-9)}), graph_.one());
  const NodeId enter = graph_.and_(active(), graph_.compare(Kernel::less, graph_.zero(), passes));
  if (graph_.is_constant(enter, 0.0)) return store(start);
  const auto known_pass = [&](double k) {
    store(value_at(graph_.constant(k)));
    pass(d, r.while_, r.until, ended);
  };
  if (graph_.is_constant(passes) && unrolled(d, graph_.value(passes), known_pass)) {
    if (is_active()) store(value_at(passes));
    return set(active_, graph_.or_(active(), env(ended).number));
  }
  const Slot again = new_slot("again", {enter, no_text}, true);
  const Slot done = new_slot("done", {graph_.and_(active(), graph_.not_(enter)), no_text}, true);
  carried_loop(d.where, again, {loops_.back().next}, [&] {
    counted_pass();
    const NodeId more = graph_.compare(Kernel::less, env(count).number, passes);
    set(done, graph_.or_(env(done).number, graph_.and_(active(), graph_.not_(more))));
    set(active_, graph_.and_(active(), more));
  });
  set(active_, env(done).number);
  store(value_at(env(count).number));
  set(active_, graph_.or_(active(), env(ended).number));
}

// Translates pass by pass. False, and nothing has changed, where that would make the program too long.
bool Translator::unrolled(const DoStatement& d, double passes, const std::function<void(double)>& known_pass)
{
  const bool is_long = passes > most_unrolled_passes;
  const auto is_array = [&](std::string_view name) { return array_named(name).has_value(); };
  const bool takes = takes_elements(d, is_array);
  if (too_long_.count(&d) > 0 || (is_long && !takes)) return false;
  const std::size_t mark = journal_.size(), effects_before = gcmp_.effects.size(), lags_before = lags_;
  const std::int64_t nodes_before = graph_.size(), requests_before = graph_.requests();
  const auto within_measure = [&] {
    const std::int64_t nodes = graph_.size() - nodes_before, requests = graph_.requests() - requests_before;
    if (!is_long) return !takes || nodes <= most_nodes_of_short_loop;
    return long_loop_nodes_ + nodes <= most_nodes_of_long_loops &&
           long_loop_requests_ + requests <= most_requests_of_long_loops;
  };
  for (double k = 0.0; k < passes && is_active() && !too_large_ && within_measure(); k += 1.0) known_pass(k);
  if (within_measure()) {
    if (is_long) long_loop_nodes_ += graph_.size() - nodes_before;
    if (is_long) long_loop_requests_ += graph_.requests() - requests_before;
    return true;
  }
  take_back(mark, effects_before);
  lags_ = lags_before;
  too_long_.insert(&d);
  return false;
}

// Takes back what statements have changed since the journal had `mark` entries.
void Translator::take_back(std::size_t mark, std::size_t effects)
{
  while (journal_.size() > mark) {
    env(journal_.back().first) = journal_.back().second;
    journal_.pop_back();
  }
  gcmp_.effects.resize(effects);
}

// DO WHILE and DO UNTIL. As long as the conditions fold to constants the passes are unrolled.
void Translator::conditional_loop(const DoStatement& d)
{
  const Slot ended = loops_.back().leave; // ended lanes and those that left go on at the same place
  const NodeId on_entry = active();
  for (double k = 0.0; k < most_unrolled_passes && active() == on_entry && !too_large_; k += 1.0) {
    if (d.while_ != nullptr && !graph_.is_constant(truth_of(*d.while_))) break;
    pass(d, d.while_, d.until, ended);
  }
  if (!is_active()) return;
  const Slot again = new_slot("again", {active(), no_text}, true);
  carried_loop(d.where, again, {loops_.back().next}, [&] { pass(d, d.while_, d.until, ended); });
  set(active_, graph_.zero());
}

// A region that a backward GOTO returns to. Each pass runs statements first..last-1.
void Translator::goto_loop(Block block, std::size_t first, std::size_t last)
{
  const Slot pending = labels_.back().pending.at(std::string(block[first]->label));
  const Slot again = new_slot("again", {active(), no_text}, true);
  const Slot behind = new_slot("behind", {graph_.zero(), no_text}, true);
  carried_loop(block[first]->where, again, {pending}, [&] {
    run_statements(block, first, last, true);
    set(behind, graph_.or_(env(behind).number, active()));
    set(active_, env(pending).number);
    set(pending, graph_.zero());
  });
  set(active_, env(behind).number);
}

// What a slot holds when it is handed on as `number`: itself, or the text of that code.
Value Translator::handed_on(Slot s, NodeId number)
{
  if (!env(s).is_text()) return {number, no_text};
  return {no_node, text_.kept(number, std::max(info(s).length, text_.length(env(s).text)))};
}

// A loop with a count that only a run knows. `body` translates one pass: it starts with `active` equal to the mask
// `again` and ends with `active` set for the lanes that make another pass. The slots that a pass changes are found by
// translating it until no new one appears; then each of them is a carried value.
// Lanes leave through masks; a loop that changes none but its own, `again` and those of `own`, never ends.
void Translator::carried_loop(Position where, Slot again, std::initializer_list<Slot> own,
                              const std::function<void()>& body)
{
  const auto made_before = static_cast<Slot>(values_.size());
  const std::size_t effects_before = gcmp_.effects.size();
  std::set<Slot> carried{again, active_};
  ++carried_depth_;
  const std::int32_t around = carried_loop_;
  const std::size_t lags_before = lags_;
  // Lanes that the branches around do not reach make no pass: theirs might never end.
  set(again, graph_.and_(path_, env(again).number));
  for (;;) {
    const std::size_t mark = journal_.size();
    const std::int32_t loop = graph_.new_loop(around, where);
    carried_loop_ = loop;
    lags_ = lags_before;
    std::map<Slot, NodeId> entry;
    for (const Slot s : carried) {
      const TextId text = env(s).text;
      entry[s] = graph_.carry(loop, text != no_text ? code_of(text, where) : env(s).number);
      set(s, handed_on(s, entry[s]));
    }
    set(active_, graph_.truth(entry.at(again)));
    body();
    set(again, active());
    std::set<Slot> changed;
    for (std::size_t k = mark; k < journal_.size(); ++k) {
      const Slot s = journal_[k].first;
      if (s < made_before || info(s).lasting) changed.insert(s);
    }
    const bool closed = std::includes(carried.begin(), carried.end(), changed.begin(), changed.end());
    if (closed) {
      for (const auto& [s, node] : entry)
        graph_.carry_at(graph_.node(node).index).next = env(s).is_text() ? code_of(env(s).text, where) : env(s).number;
      graph_.loop_at(loop).condition = entry.at(again);
      for (const auto& [s, node] : entry) set(s, handed_on(s, graph_.result(graph_.node(node).index)));
      break;
    }
    take_back(mark, effects_before); // and try again with the new slots carried too
    carried.insert(changed.begin(), changed.end());
  }
  --carried_depth_;
  carried_loop_ = around;
  const bool left = std::any_of(carried.begin(), carried.end(), [&](Slot s) {
    return info(s).hidden && s != again && s != active_ && std::find(own.begin(), own.end(), s) == own.end();
  });
  if (!left && !too_large_)
    fail(message::loop, where,
         "This loop never ends: no condition of it can become false, and no LEAVE, GOTO, RETURN or STOP leads out.");
}

} // namespace torvale::engine
