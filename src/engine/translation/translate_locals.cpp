// Declarations inside subprograms: their own arrays, lengths, and the variables that they keep from call to call.

#include "engine/translation/translate.h"

#include "engine/functions/names.h"
#include "host/values/missing.h"

#include <algorithm>

namespace torvale::engine {

using namespace syntax;

void Translator::declare(const Statement* s)
{
  if (scopes_.empty()) return; // of the program itself: read by the scan
  if (s->kind == StatementKind::array) return local_array(*static_cast<const ArrayDeclaration*>(s));
  if (s->kind == StatementKind::attributes) return local_attributes(*static_cast<const AttributeDeclaration*>(s));
  if (s->kind != StatementKind::retain) return;
  const auto& r = *static_cast<const RetainDeclaration*>(s);
  Scope& scope = scopes_.back();
  if (r.names.empty()) scope.keeps_all = true;
  for (std::size_t k = 0; k < r.names.size(); ++k) {
    const Value first = k < r.initial.size() && r.initial[k] != nullptr ? constant_value(*r.initial[k]) : Value{};
    const auto array = scope.arrays.find(r.names[k]);
    if (array == scope.arrays.end()) {
      keep_local(r.names[k], first);
      continue;
    }
    for (Slot& element : array->second.slots) {
      const std::string name = info(element).name;
      keep_local(name, first != Value{} ? first : env(element));
      element = scope.locals.find(name)->second;
    }
  }
}

Value Translator::constant_value(const Expr& e)
{
  if (e.kind == ExprKind::text) return {no_node, text_.constant(e.name)};
  return {graph_.constant(host::canonical_missing(constant_of(e))), no_text};
}

// The subprogram's variable of that name, made when new.
Slot Translator::local(std::string_view name)
{
  Scope& scope = scopes_.back();
  if (const auto it = scope.locals.find(name); it != scope.locals.end()) return it->second;
  if (scope.keeps_all) {
    keep_local(name, {});
    return scope.locals.find(name)->second;
  }
  const Slot slot = new_slot(std::string(name), {graph_.missing(), no_text}, false);
  scope.locals.emplace(std::string(name), slot);
  return slot;
}

// One variable for all calls of the subprogram: it begins with `first` (or missing) at a subject's first record, and
// then keeps what the last call left in it.
void Translator::keep_local(std::string_view name, Value first)
{
  Scope& scope = scopes_.back();
  for (const Parameter& p : scope.definition->parameters)
    if (same_name(p.name, name)) {
      fail(message::declaration, scope.definition->where,
           "The argument " + std::string(name) + " of " + std::string(scope.definition->name) +
               " has a new value in every call; STATIC and RETAIN are for other variables.");
      return;
    }
  const auto [at, added] = kept_locals_.try_emplace({scope.definition, upper(name)}, -1);
  if (added) {
    const auto learned = gcmp_.kept_text_length.find({scope.definition, std::string(name)});
    const auto declared = scope.locals.find(name);
    std::int32_t length = learned != gcmp_.kept_text_length.end() ? learned->second : 0;
    if (declared != scope.locals.end() && info(declared->second).type == 'c') length = info(declared->second).length;
    if (first == Value{}) first = length > 0 ? Value{no_node, text_.constant("")} : Value{graph_.missing(), no_text};
    if (first.is_text())
      first.text = text_.fit(first.text, length > 0 ? length : std::max(text_.length(first.text), std::int32_t{1}));
    at->second = kept_slot(std::string(name), first);
    info(at->second).owner = scope.definition;
  }
  scope.locals.insert_or_assign(std::string(name), at->second);
}

// Elements begin with their initial values at every call, unless STATIC or _TEMPORARY_ keeps them.
void Translator::local_array(const ArrayDeclaration& a)
{
  std::int64_t count = 1;
  for (std::size_t d = 0; d < a.low.size(); ++d) count *= std::int64_t{a.high[d]} - a.low[d] + 1;
  Array array;
  array.declaration = &a;
  for (std::int64_t k = 0; k < count; ++k) {
    const auto at = static_cast<std::size_t>(k);
    const std::string number = std::to_string(k + 1);
    const std::string name = at < a.elements.size() ? std::string(a.elements[at])
                             : a.temporary          ? std::string(a.name) + "[" + number + "]"
                                                    : std::string(a.name) + number;
    const bool given = at < a.initial.size() && a.initial[at] != nullptr;
    Value first = given ? constant_value(*a.initial[at]) : Value{};
    if (a.character) {
      const std::int32_t length = a.length > 0 ? a.length : 8;
      first = {no_node, text_.fit(first.is_text() ? first.text : text_.constant(""), length)};
    }
    if (a.temporary) {
      keep_local(name, first);
    } else {
      const bool parameter = scopes_.back().locals.count(name) > 0;
      const Slot s = local(name);
      if (a.character && info(s).type == ' ') {
        info(s).type = 'c';
        info(s).length = text_.length(first.text);
      }
      if (given || (a.character && !parameter)) set(s, first);
      info(s).written = true;
    }
    array.slots.push_back(scopes_.back().locals.find(name)->second);
  }
  scopes_.back().arrays.insert_or_assign(std::string(a.name), std::move(array));
}

void Translator::local_attributes(const AttributeDeclaration& a)
{
  if (!a.has_length || !a.character) return;
  for (const std::string_view name : a.names) {
    const Slot s = local(name);
    SlotInfo& i = info(s);
    i.type = 'c';
    if (a.length > 0) i.length = a.length;
    const Value before = env(s);
    set(s, Value{no_node, text_.fit(before.is_text() ? before.text : text_.constant(""), std::max(i.length, 1))});
  }
}

} // namespace torvale::engine
