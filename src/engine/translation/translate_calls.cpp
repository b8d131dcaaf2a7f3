// Calls: inlined subprograms, lags and differences, bounds of arrays, and the library of functions.

#include "engine/translation/translate.h"

#include "engine/functions/functions.h"
#include "engine/functions/names.h"
#include "engine/graph/loop_nesting.h"

#include <cmath>
#include <utility>

namespace torvale::engine {

using namespace syntax;

namespace {

constexpr std::size_t deepest_inlining = 64;

} // namespace

Value Translator::call(const Expr& e)
{
  if (const auto it = gcmp_.subprograms.find(e.name); it != gcmp_.subprograms.end()) {
    if (!it->second->is_function)
      return {fail(message::wrong_arguments, e.where,
                   std::string(e.name) + " is a subroutine; it is used by CALL and has no value."),
              no_text};
    return inlined(*it->second, e.args, e.where);
  }
  if (const auto v = lag(e)) return *v;
  if (const auto v = array_bound(e)) return *v;
  if (const auto v = text_function(e)) return *v;
  return library(e);
}

void Translator::call_statement(const CallStatement& c)
{
  const auto it = gcmp_.subprograms.find(c.name);
  if (it == gcmp_.subprograms.end()) {
    fail(message::unknown_function, c.where,
         "CALL " + std::string(c.name) + ": no SUBROUTINE of this name is defined.");
    return;
  }
  inlined(*it->second, c.args, c.where);
}

// A call is the body of the subprogram with its own variables, put where the call stands. Arguments are values; those
// named in OUTARGS are copied back at the end. Arrays are passed as their elements.
Value Translator::inlined(const SubprogramDefinition& d, std::span<Expr* const> given, Position where)
{
  for (const Scope& s : scopes_)
    if (s.definition == &d)
      return {fail(message::recursion, where,
                   std::string(d.name) + " calls itself, directly or through others; recursion is not possible here."),
              no_text};
  if (given.size() != d.parameters.size() || scopes_.size() >= deepest_inlining)
    return {fail(message::wrong_arguments, where,
                 std::string(d.name) + " takes " + std::to_string(d.parameters.size()) + " argument(s), but is given " +
                     std::to_string(given.size()) + "."),
            no_text};
  Scope scope;
  scope.definition = &d;
  if (!pass_arguments(d, given, where, scope)) return {graph_.missing(), no_text};
  scope.result =
      new_slot(std::string(d.name),
               d.character_result ? Value{no_node, text_.constant("")} : Value{graph_.missing(), no_text}, false);
  info(scope.result).type = d.character_result ? 'c' : 'n';
  const Slot result = scope.result;
  const Slot returned = new_slot("returned", {graph_.zero(), no_text}, true);

  scopes_.push_back(std::move(scope));
  returns_.push_back(returned);
  const std::int32_t call = graph_.origin();
  const std::int32_t caller_outside = std::exchange(caller_, call);
  std::vector<LoopMasks> loops_outside;
  std::vector<Labels> labels_outside;
  loops_outside.swap(loops_); // LEAVE and GOTO do not reach out of a subprogram
  labels_outside.swap(labels_);
  run_block(d.body);
  caller_ = caller_outside;
  graph_.return_to_origin(call);
  loops_.swap(loops_outside);
  labels_.swap(labels_outside);
  returns_.pop_back();
  set(active_, graph_.or_(active(), env(returned).number));
  const Scope done = std::move(scopes_.back());
  scopes_.pop_back();
  take_back_outputs(done, given, where);
  return env(result);
}

// Arguments become variables of the subprogram. An array that is no output is a copy, so that nothing written to it
// comes back.
bool Translator::pass_arguments(const SubprogramDefinition& d, std::span<Expr* const> given, Position where,
                                Scope& scope)
{
  for (std::size_t k = 0; k < given.size(); ++k) {
    const Parameter& p = d.parameters[k];
    if (p.array) {
      const std::optional<Array> a = array_named(given[k]->name);
      if (!a) {
        fail(message::wrong_arguments, where,
             "Argument " + std::to_string(k + 1) + " of " + std::string(d.name) + " must be an array.");
        return false;
      }
      Array own;
      for (const Slot s : a->slots) {
        own.slots.push_back(p.output ? s : new_slot(info(s).name, env(s), false));
        if (p.output) continue;
        SlotInfo& i = info(own.slots.back());
        i.type = info(s).type;
        i.length = info(s).length;
        i.written = true;
      }
      scope.arrays.emplace(std::string(p.name), std::move(own));
      continue;
    }
    Value v; // an output need not have a value yet
    if (!p.output || given[k]->kind != ExprKind::variable)
      v = value_of(*given[k]);
    else
      v = env(scopes_.empty() ? symbol_slot(given[k]->name, given[k]->where) : local(given[k]->name));
    if (p.character && p.output && !v.is_text()) v = {no_node, text_.constant("")};
    const Slot s =
        new_slot(std::string(p.name),
                 p.character ? Value{no_node, as_text(v, where)} : Value{as_number(v, where), no_text}, false);
    info(s).type = p.character ? 'c' : 'n';
    if (p.character) info(s).length = text_.length(env(s).text);
    info(s).written = true;
    scope.locals.emplace(std::string(p.name), s);
  }
  return true;
}

void Translator::take_back_outputs(const Scope& scope, std::span<Expr* const> given, Position where)
{
  const SubprogramDefinition& d = *scope.definition;
  for (std::size_t k = 0; k < given.size(); ++k) {
    const Parameter& p = d.parameters[k];
    if (!p.output || p.array) continue;
    if (given[k]->kind != ExprKind::variable && given[k]->kind != ExprKind::element)
      fail(message::wrong_arguments, where,
           "Argument " + std::to_string(k + 1) + " of " + std::string(d.name) +
               " is an output; it must be a variable.");
    else
      assign_to(*given[k], env(scope.locals.find(p.name)->second), where);
  }
}

// LAGn(x), DIFn(x): x at the n-th record before, whether or not the statement was executed there. A chain of values
// carried from record to record.
std::optional<Value> Translator::lag(const Expr& e)
{
  const std::string name = upper(e.name);
  if (name.rfind("LAG", 0) != 0 && name.rfind("DIF", 0) != 0) return std::nullopt;
  int n = 1;
  if (name.size() > 3) {
    n = 0;
    for (std::size_t k = 3; k < name.size(); ++k) {
      if (name[k] < '0' || name[k] > '9' || n > 1000) return std::nullopt;
      n = 10 * n + (name[k] - '0');
    }
  }
  if (n < 1 || n > 100 || e.args.size() != 1)
    return Value{fail(message::wrong_arguments, e.where,
                      std::string(e.name) + " takes one argument and an order from 1 to 100."),
                 no_text};
  const Value given = value_of(*e.args[0]);
  const bool text = given.is_text() && name[0] == 'L';
  const NodeId now = text ? code_of(given.text, e.where) : as_number(given, e.where);
  const NodeId first = text ? code_of(text_.constant(""), e.where) : graph_.missing();
  gcmp_.lag_depth = std::max(gcmp_.lag_depth, n);
  const auto carry = [&] { return graph_.carry(0, first); };
  NodeId before = now;
  int k = 0;
  if (carried_depth_ > 0 && LoopNesting(graph_).loop_of(now) != 0) {
    // In every pass another value: the last one of the record before counts.
    if (lags_ == lagged_.size()) {
      lagged_.push_back(new_slot("lagged", {first, no_text}, true));
      info(lagged_.back()).lasting = true;
    }
    const Slot last = lagged_[lags_++];
    set(last, graph_.select(active(), now, env(last).number));
    before = carry();
    kept_.emplace(graph_.node(before).index, last);
    k = 1;
  }
  for (; k < n; ++k) {
    const NodeId entry = carry();
    graph_.carry_at(graph_.node(entry).index).next = before;
    before = entry;
  }
  if (text) return Value{no_node, text_.kept(before, text_.length(given.text))};
  return Value{name[0] == 'L' ? before : graph_.subtract(now, before), no_text};
}

// Drawn from counters, so that every evaluation and every packing of lanes sees the same numbers: the place in the
// program and how often it was executed before in this run.
Value Translator::draw(const Expr& e, const LanguageFunction& f, std::span<const NodeId> arguments)
{
  const NodeId seed = graph_.constant(static_cast<double>(gcmp_.options.seed & ((std::uint64_t{1} << 53) - 1)));
  const int place = draws_.try_emplace(&e, static_cast<int>(draws_.size())).first->second;
  const Slot count = flag_slot(&e, "draws");
  const NodeId before = env(count).number;
  set(count, graph_.select(active(), graph_.shift(before, 1.0), before));
  return {expand_random(graph_, f, seed, graph_.row(), graph_.constant(place), before, arguments), no_text};
}

std::optional<Value> Translator::array_bound(const Expr& e)
{
  const std::string name = upper(e.name);
  const bool bound = name.rfind("DIM", 0) == 0 || name.rfind("HBOUND", 0) == 0 || name.rfind("LBOUND", 0) == 0;
  if (!bound || e.args.empty() || e.args.size() > 2) return std::nullopt;
  const std::size_t stem = name[0] == 'D' ? 3 : 6;
  double dimension = 1.0;
  if (name.size() > stem) {
    dimension = number_from_text(name.substr(stem));
    if (std::isnan(dimension)) return std::nullopt;
  } else if (e.args.size() == 2) {
    const NodeId d = number_of(*e.args[1]);
    dimension = graph_.is_constant(d) ? graph_.value(d) : 0.0;
  }
  const std::optional<Array> a = array_named(e.args[0]->name);
  const std::size_t dimensions = a && a->declaration != nullptr ? a->declaration->low.size() : 1;
  if (!a || !(dimension >= 1.0) || dimension > static_cast<double>(dimensions))
    return Value{fail(message::wrong_arguments, e.where,
                      std::string(e.name) + " takes an array and the number of one of its dimensions."),
                 no_text};
  const auto d = static_cast<std::size_t>(dimension) - 1;
  const double low = a->declaration != nullptr ? a->declaration->low[d] : 1.0;
  const double high = a->declaration != nullptr ? a->declaration->high[d] : static_cast<double>(a->slots.size());
  const double v = name[0] == 'D' ? high - low + 1.0 : name[0] == 'H' ? high : low;
  return Value{graph_.constant(v), no_text};
}

namespace {

// How other languages' functions are written here; empty for names that no habit explains.
std::string_view instead_of_function(std::string_view name)
{
  struct Habit {
    std::string_view name, advice;
  };
  constexpr std::string_view choice = "A choice is written x = IF condition THEN a ELSE b; or with the IF statement.";
  constexpr std::string_view power = "Powers are written x**y.";
  constexpr std::string_view logistic = "The inverse of the logit is 1/(1 + exp(-x)).";
  static constexpr Habit habits[] = {
      {"ifelse", choice},      {"if_else", choice},
      {"iif", choice},         {"where", choice},
      {"case_when", choice},   {"pow", power},
      {"power", power},        {"sqr", power},
      {"square", power},       {"expit", logistic},
      {"plogis", logistic},    {"invlogit", logistic},
      {"inv_logit", logistic}, {"ln", "The natural logarithm is log(x)."},
  };
  for (const Habit& h : habits)
    if (syntax::same_name(h.name, name)) return h.advice;
  return {};
}

} // namespace

Value Translator::library(const Expr& e)
{
  const LanguageFunction* const f = find_function(e.name);
  if (f == nullptr) {
    std::vector<std::string_view> own;
    for (const auto& [name, definition] : gcmp_.subprograms) own.push_back(name);
    const std::string_view near = nearest_name(e.name, own);
    const std::string_view habit = instead_of_function(e.name);
    const std::string hint = !habit.empty() ? " " + std::string(habit)
                             : near.empty() ? std::string()
                                            : " Did you mean " + std::string(near) + "?";
    return {fail(message::unknown_function, e.where, "There is no function " + std::string(e.name) + "." + hint),
            no_text};
  }
  std::vector<Value> given = arguments(e);
  if (const std::string fault = argument_fault(*f, static_cast<int>(given.size())); !fault.empty())
    return {fail(message::wrong_arguments, e.where, fault), no_text};
  std::string error;
  NodeId n = no_node;
  if (f->cls == FunctionClass::distribution) {
    if (!given[0].is_text() || text_.node(given[0].text).op != TextOp::constant)
      return {fail(message::wrong_arguments, e.where,
                   std::string(f->name) + " needs the name of a distribution in quotes as its first argument."),
              no_text};
    std::vector<NodeId> numbers;
    for (std::size_t k = 1; k < given.size(); ++k) numbers.push_back(as_number(given[k], e.where));
    n = expand_distribution(graph_, f->question, text_.node(given[0].text).characters, numbers, &error);
  } else {
    std::vector<NodeId> numbers;
    for (const Value& v : given) {
      // N, NMISS and their kin count a blank text as missing.
      if (v.is_text() && f->cls == FunctionClass::any) {
        const NodeId blank = text_.ask(TextQuestion::equal, v.text, text_.constant(""), false, &error);
        numbers.push_back(blank == no_node ? graph_.missing() : graph_.select(blank, graph_.missing(), graph_.one()));
      } else {
        numbers.push_back(as_number(v, e.where));
      }
    }
    if (f->cls == FunctionClass::random) {
      n = draw(e, *f, numbers).number;
    } else {
      n = expand_function(graph_, *f, numbers, &error);
    }
  }
  if (n == no_node)
    return {fail(message::wrong_arguments, e.where,
                 error.empty() ? "These arguments do not suit " + std::string(f->name) + "." : error),
            no_text};
  return {n, no_text};
}

// Values of the arguments, arrays given whole taken apart.
std::vector<Value> Translator::arguments(const Expr& e)
{
  std::vector<Value> values;
  for (const Expr* const a : e.args) {
    if (a->kind != ExprKind::whole_array) {
      values.push_back(value_of(*a));
      continue;
    }
    const std::optional<Array> array = array_named(a->name);
    if (!array) {
      fail(message::subscript, a->where, std::string(a->name) + " is not an array here.");
      continue;
    }
    for (const Slot s : array->slots) values.push_back(env(s));
  }
  return values;
}

} // namespace torvale::engine
