// Slots, branches and the frame of a translation.

#include "engine/translation/translate.h"
#include "host/values/missing.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace torvale::engine {

Translator::Translator(CMPGLOBAL& gcmp) : gcmp_(gcmp), graph_(gcmp.graph), text_(gcmp.text)
{
  follow(graph_.one());
  active_ = new_slot("active", {graph_.one(), no_text}, true);
  deleted_ = new_slot("deleted", {graph_.zero(), no_text}, true);
  slot_of_symbol_.assign(gcmp.symbols.size(), -1);
}

NodeId Translator::fail(int number, syntax::Position where, std::string text)
{
  gcmp_.error(number, where, std::move(text));
  return graph_.missing();
}

Slot Translator::new_slot(std::string name, Value initial, bool hidden)
{
  SlotInfo i;
  i.name = std::move(name);
  i.hidden = hidden;
  if (hidden) i.type = 'n';
  infos_.push_back(std::move(i));
  values_.push_back(initial);
  return static_cast<Slot>(values_.size()) - 1;
}

Slot Translator::flag_slot(const void* owner, std::string name)
{
  if (const auto it = flags_.find(owner); it != flags_.end()) return it->second;
  const Slot s = new_slot(std::move(name), {graph_.zero(), no_text}, true);
  info(s).lasting = true;
  flags_.emplace(owner, s);
  return s;
}

// A slot whose value is what it was at the end of the record before, `first` at the first record of a subject.
Slot Translator::kept_slot(std::string name, Value first)
{
  const NodeId entry = graph_.carry(0, first.is_text() ? code_of(first.text, {}) : first.number);
  const Value before =
      first.is_text() ? Value{no_node, text_.kept(entry, text_.length(first.text))} : Value{entry, no_text};
  const Slot slot = new_slot(std::move(name), before, false);
  kept_.emplace(graph_.node(entry).index, slot);
  SlotInfo& i = info(slot);
  i.kept = i.lasting = i.written = true;
  if (first.is_text()) {
    i.type = 'c';
    i.length = text_.length(first.text);
  }
  return slot;
}

NodeId Translator::code_of(TextId text, syntax::Position where)
{
  std::string error;
  const NodeId code = text_.ask(TextQuestion::code, text, no_text, false, &error);
  if (code == no_node) return fail(message::unsupported, where, error);
  codes_.emplace_back(code, where);
  return code;
}

bool Translator::is_kept(const CMPSYM& s) const
{
  return s.assigned && s.retained && gcmp_.written.count(s.index) > 0 && s.parameter < 0 && s.random_effect < 0 &&
         s.dsvarno == 0;
}

// What a variable holds before the first statement: at the first record, when it is kept from record to record.
// Variables that the program assigns begin as missing, so that a run is a function of its inputs.
Value Translator::initial_value(const CMPSYM& s)
{
  const auto declared_length = gcmp_.text_length.find(s.index);
  const std::int32_t length = declared_length == gcmp_.text_length.end() ? 0 : declared_length->second;
  if (s.dsvarno > 0 && s.type == 'c') {
    const auto at = static_cast<std::size_t>(s.dsvarno) - 1;
    const std::int32_t width = at < gcmp_.data_variables.size() ? gcmp_.data_variables[at].width : 8;
    return {no_node, text_.column(s.index, width)};
  }
  if (s.parameter >= 0 || s.random_effect >= 0 || s.dsvarno > 0) return {graph_.symbol(s.index), no_text};
  const auto given = gcmp_.initial.find(s.index);
  if (given != gcmp_.initial.end() && given->second->kind == syntax::ExprKind::text) {
    const TextId initial = text_.constant(given->second->name);
    return {no_node, length > 0 ? text_.fit(initial, length) : initial};
  }
  if (s.type == 'c') return {no_node, text_.fit(text_.constant(""), std::max(length, std::int32_t{1}))};
  if (!s.assigned) return {graph_.symbol(s.index), no_text};
  if (given != gcmp_.initial.end()) return constant_value(*given->second);
  return {gcmp_.sums.count(s.index) > 0 ? graph_.zero() : graph_.missing(), no_text};
}

Slot Translator::symbol_slot(std::string_view name, syntax::Position where)
{
  CMPSYM& s = gcmp_.named_symbol(name, where);
  const auto at = static_cast<std::size_t>(s.index);
  if (slot_of_symbol_.size() <= at) slot_of_symbol_.resize(at + 1, -1);
  if (slot_of_symbol_[at] >= 0) return slot_of_symbol_[at];
  const Value initial = initial_value(s);
  const Slot slot = is_kept(s) ? kept_slot(s.name, initial) : new_slot(s.name, initial, false);
  slot_of_symbol_[at] = slot;
  SlotInfo& i = info(slot);
  i.symbol = s.index;
  i.type = initial.is_text() ? 'c' : s.type;
  i.lasting = true;
  const auto declared = gcmp_.text_length.find(s.index);
  i.length = declared == gcmp_.text_length.end() ? 0 : declared->second; // 0: the first assignment decides
  i.written = !s.assigned || s.retained || s.resolved;
  return slot;
}

void Translator::set(Slot s, Value v)
{
  if (env(s) == v) return;
  journal_.emplace_back(s, env(s));
  env(s) = v;
}

// A variable that is kept turns out to hold texts of this length.
void Translator::learn_text(const SlotInfo& i, TextId text)
{
  const std::int32_t length = i.length > 0 ? i.length : std::max(text_.length(text), std::int32_t{1});
  if (i.symbol >= 0)
    gcmp_.text_length[i.symbol] = length;
  else
    gcmp_.kept_text_length[{i.owner, i.name}] = length;
  learned_ = true;
}

void Translator::assign(Slot s, Value v, syntax::Position where)
{
  SlotInfo& i = info(s);
  if (i.type == ' ') {
    i.type = v.is_text() ? 'c' : 'n';
    if (i.symbol >= 0) gcmp_.at(i.symbol).type = i.type;
    if (i.kept && v.is_text()) learn_text(i, v.text); // texts are handed on in another way than numbers
  } else if (i.type == 'c' && i.kept && i.length == 0) {
    learn_text(i, as_text(v, where));
  }
  if (i.type == 'c') {
    const TextId t = as_text(v, where);
    if (i.length == 0) i.length = std::max(text_.length(t), std::int32_t{1});
    if (text_.length(t) > i.length && text_.node(t).op != TextOp::put)
      gcmp_.note(message::text_cut, where,
                 "Texts assigned to " + i.name + " are cut to " + std::to_string(i.length) +
                     " characters, the length of the variable; a LENGTH statement before can make it longer.");
    v = {no_node, text_.fit(t, i.length)};
    if (!env(s).is_text()) env(s) = {no_node, text_.fit(text_.constant(""), i.length)};
  } else {
    v = {as_number(v, where), no_text};
  }
  i.written = true;
  set(s, choose(active(), v, env(s)));
}

Value Translator::choose(NodeId mask, Value yes, Value no)
{
  if (graph_.is_constant(mask)) return graph_.value(mask) != 0.0 ? yes : no;
  if (yes.is_text() != no.is_text()) { // one side has not been given a text yet: it is blank
    const TextId blank = text_.constant("");
    (yes.is_text() ? no : yes) = {no_node, blank};
  }
  if (yes.is_text()) return {no_node, text_.select(mask, yes.text, no.text)};
  return {graph_.select(mask, yes.number, no.number), no_text};
}

void Translator::branch(NodeId mask, const std::function<void()>& yes, const std::function<void()>& no)
{
  if (graph_.is_constant(mask)) {
    if (graph_.value(mask) != 0.0)
      yes();
    else
      no();
    return;
  }
  const std::size_t mark = journal_.size();
  const NodeId path_before = path_;
  follow(graph_.and_(path_before, mask));
  yes();
  std::map<Slot, Value> changed;
  while (journal_.size() > mark) {
    const auto [slot, before] = journal_.back();
    journal_.pop_back();
    changed.emplace(slot, env(slot)); // the first met going back is the last value
    env(slot) = before;
  }
  follow(graph_.and_(path_before, graph_.not_(mask)));
  no();
  follow(path_before);
  // What the second side alone changed had, in the first, the value from before.
  for (std::size_t k = mark; k < journal_.size(); ++k) changed.emplace(journal_[k].first, journal_[k].second);
  for (const auto& [slot, last] : changed) set(slot, choose(mask, last, env(slot)));
}

void Translator::run()
{
  using namespace syntax;
  const Block all(gcmp_.program->statements.data(), gcmp_.program->statements.size());
  // Variables in order of appearance get their slots first, whatever the order in which branches are translated.
  for (std::size_t k = 0; k < gcmp_.named.size(); ++k) symbol_slot(gcmp_.named[k]->name, gcmp_.named[k]->where);
  run_block(all);
  set(active_, graph_.one());
  gcmp_.deleted = env(deleted_).number;
  store_results();
}

void Translator::late(const Expr& e)
{
  stand_at(e.where);
  const auto index = static_cast<std::size_t>(gcmp_.sites.at(&e));
  if (gcmp_.value.size() <= index) gcmp_.value.resize(index + 1, no_node);
  gcmp_.value[index] = number_of(e);
}

void Translator::store_results()
{
  gcmp_.value.resize(gcmp_.symbols.size(), no_node);
  gcmp_.text_value.resize(gcmp_.symbols.size(), no_text);
  for (const auto& [carry_index, slot] : kept_) {
    const Value last = env(slot);
    graph_.carry_at(carry_index).next = last.is_text() ? code_of(last.text, {}) : last.number;
  }
  for (const CMPSYM* const s : gcmp_.named) {
    const auto at = static_cast<std::size_t>(s->index);
    if (at >= slot_of_symbol_.size() || slot_of_symbol_[at] < 0) continue;
    const Value v = env(slot_of_symbol_[at]);
    gcmp_.value[at] = v.number;
    gcmp_.text_value[at] = v.text;
  }
  for (Effect& e : gcmp_.effects)
    if (e.guard == no_node) e.guard = env(flags_.at(e.owner)).number;
  if (graph_.is_constant(gcmp_.deleted, 0.0)) return;
  // A deleted record has no results. Arguments of MODEL and RANDOM keep their values: `_ll` is missing there, and the
  // distribution of a subject's random effects must not depend on which of its records are deleted.
  for (std::size_t k = 0; k < gcmp_.value.size(); ++k) {
    const CMPSYM& s = gcmp_.at(static_cast<std::int32_t>(k));
    if (gcmp_.value[k] != no_node && s.assigned && s.kind != 'e')
      gcmp_.value[k] = graph_.select(gcmp_.deleted, graph_.missing(), gcmp_.value[k]);
  }
}

// A text that is handed on gets a number in a table, which every evaluation would make longer if texts were made from
// numbers that change with the parameters. A choice between texts may depend on anything.
void Translator::check_kept_texts()
{
  std::set<NodeId> seen;
  for (const auto& [code, where] : codes_) {
    std::vector<NodeId> open{code};
    while (!open.empty()) {
      const NodeId id = open.back();
      open.pop_back();
      if (!seen.insert(id).second) continue;
      const Node& n = graph_.node(id);
      if (n.kind == NodeKind::kernel && n.kernel == Kernel::select) {
        open.push_back(n.operand[1]);
        open.push_back(n.operand[2]);
      }
      for (int k = 0; n.kind == NodeKind::text && k < n.operands; ++k) {
        const std::uint8_t classes = gcmp_.dependence.classes(n.operand[static_cast<std::size_t>(k)]);
        if ((classes & (depends::on_parameters | depends::on_random_effects)) == 0) continue;
        fail(message::retain, graph_.position(id),
             "A text that is kept from record to record, or from pass to pass of a loop, is made from a number that "
             "depends on parameters or random effects; keep the number instead.");
        break;
      }
    }
  }
}

bool deletes_records(const CMPGLOBAL& gcmp)
{
  return gcmp.deleted != no_node && !gcmp.graph.is_constant(gcmp.deleted, 0.0);
}

bool keeps_values(const CMPGLOBAL& gcmp)
{
  for (int c = 0; c < gcmp.graph.carries(); ++c)
    if (gcmp.graph.carry_at(c).loop == 0) return true;
  return false;
}

CMPGLOBAL::CMPGLOBAL(const CMPINIT& init) : options(init), text(graph) {}
CMPGLOBAL::~CMPGLOBAL() = default;

void CMPGLOBAL::translate()
{
  static const syntax::Program no_statements;
  if (!translated && origin.empty()) {
    if (program == nullptr) program = &no_statements;
    const std::size_t said = diagnostics.size();
    const int errors_before = errors;
    late_done = 0;
    dependence.clear();
    for (const CMPSYM& s : symbols) {
      const bool by_data = s.dsvarno > 0 && s.parameter < 0 && s.random_effect < 0;
      const int with = (by_data ? GraphBuilder::by_record : 0) | (s.random_effect >= 0 ? GraphBuilder::by_point : 0);
      graph.declare_variation(s.index, static_cast<std::uint8_t>(with));
    }
    for (bool again = true; again;) { // until the run learns nothing that it should have known from its beginning
      diagnostics.resize(said);
      errors = errors_before;
      effects.clear();
      value.assign(symbols.size(), no_node);
      text_value.assign(symbols.size(), no_text);
      lag_depth = 0;
      const bool had_special = graph.has_special_missing();
      const std::int64_t before = graph.requests();
      translator = std::make_unique<Translator>(*this);
      translator->run();
      requests_before = graph.requests() - before;
      again = graph.has_special_missing() != had_special || translator->learned();
    }
    translator->check_kept_texts();
    const std::uint8_t classes = dependence.classes(deleted);
    if ((classes & (depends::on_parameters | depends::on_random_effects)) != 0)
      error(message::delete_condition, graph.position(deleted),
            "DELETE depends on parameters or random effects; whether a record takes part may depend on the data only.");
  }
  translated = true;
  while (late_done < late_expressions.size()) translator->late(*late_expressions[late_done++]);
}

} // namespace torvale::engine
