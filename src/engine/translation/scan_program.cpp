// First reading of a program: its names, arrays, subprograms, retained variables and expression sites.

#include "engine/graph/compiler.h"

#include <algorithm>
#include <limits>

namespace torvale::engine {

using namespace syntax;

double constant_of(const Expr& e)
{
  if (e.kind == ExprKind::number) return e.number;
  if (e.kind == ExprKind::unary && e.args.size() == 1) {
    const double v = constant_of(*e.args[0]);
    return e.op == Op::minus ? -v : v;
  }
  return std::numeric_limits<double>::quiet_NaN();
}

namespace {

class Scan {
public:
  explicit Scan(CMPGLOBAL& gcmp) : gcmp_(gcmp) {}

  void block(Block statements)
  {
    for (const Statement* const s : statements) statement(s);
  }

  void expression(const Expr* e)
  {
    if (e == nullptr) return;
    if (e->kind == ExprKind::variable) read(e->name, e->where);
    if (e->kind == ExprKind::element || e->kind == ExprKind::whole_array)
      if (const auto it = gcmp_.arrays.find(e->name); it != gcmp_.arrays.end())
        for (const std::int32_t element : it->second.elements) gcmp_.at(element).used = true;
    if (e->kind == ExprKind::call) return arguments(e->name, e->args);
    for (const Expr* const a : e->args) expression(a);
  }

  void subprograms(Block statements)
  {
    for (const Statement* const s : statements) {
      if (s->kind != StatementKind::subprogram) continue;
      const auto* const def = static_cast<const SubprogramDefinition*>(s);
      if (!gcmp_.subprograms.emplace(def->name, def).second)
        gcmp_.error(message::declaration, s->where,
                    "The subprogram " + std::string(def->name) + " is defined twice; remove one definition.");
    }
  }

private:
  // An array given by its bare name is no variable of that name. A subprogram reads its elements, DIM(b) does not.
  void arguments(std::string_view function, std::span<Expr* const> args)
  {
    const bool reads = gcmp_.subprograms.count(function) > 0;
    for (const Expr* const e : args) {
      const auto array = e->kind == ExprKind::variable ? gcmp_.arrays.find(e->name) : gcmp_.arrays.end();
      if (array == gcmp_.arrays.end())
        expression(e);
      else if (reads)
        for (const std::int32_t element : array->second.elements) gcmp_.at(element).used = true;
    }
    outputs(function, args);
  }

  void read(std::string_view name, Position where)
  {
    CMPSYM& s = gcmp_.named_symbol(name, where);
    s.used = true;
    gcmp_.places[s.index].push_back(where);
  }

  void write(const Expr* target)
  {
    if (target->kind == ExprKind::variable && gcmp_.arrays.count(target->name) == 0) {
      CMPSYM& s = gcmp_.named_symbol(target->name, target->where);
      s.assigned = true;
      gcmp_.written.insert(s.index);
      gcmp_.places[s.index].push_back(target->where);
      return;
    }
    if (const auto it = gcmp_.arrays.find(target->name); it != gcmp_.arrays.end())
      for (const std::int32_t element : it->second.elements) {
        gcmp_.at(element).assigned = true;
        gcmp_.written.insert(element);
      }
    for (const Expr* const a : target->args) expression(a);
  }

  void statement(const Statement* s)
  {
    if (s == nullptr) return;
    switch (s->kind) {
    case StatementKind::assign:
      return assignment(*static_cast<const Assignment*>(s));
    case StatementKind::if_: {
      const auto& x = *static_cast<const IfStatement*>(s);
      expression(x.condition);
      statement(x.then_branch);
      return statement(x.else_branch);
    }
    case StatementKind::do_:
      return loop(*static_cast<const DoStatement*>(s));
    case StatementKind::select: {
      const auto& x = *static_cast<const SelectStatement*>(s);
      expression(x.selector);
      for (const WhenClause& w : x.whens) {
        for (const Expr* const v : w.values) expression(v);
        statement(w.body);
      }
      return statement(x.otherwise);
    }
    case StatementKind::return_:
    case StatementKind::abort:
      return expression(static_cast<const ReturnStatement*>(s)->value);
    case StatementKind::call: {
      const auto& c = *static_cast<const CallStatement*>(s);
      return arguments(c.name, c.args);
    }
    case StatementKind::put:
      for (const PutItem& item : static_cast<const PutStatement*>(s)->items) expression(item.value);
      return;
    case StatementKind::array:
      return array(*static_cast<const ArrayDeclaration*>(s));
    case StatementKind::attributes:
      return attributes(*static_cast<const AttributeDeclaration*>(s));
    case StatementKind::retain:
      return retain(*static_cast<const RetainDeclaration*>(s));
    case StatementKind::site:
      return site(*static_cast<const ExpressionSite*>(s));
    default:
      return; // jumps, stops, FILE, KEEP, subprograms (inlined where they are called), empty
    }
  }

  void assignment(const Assignment& a)
  {
    expression(a.value);
    expression(a.position);
    expression(a.length);
    if (a.form != Assignment::Form::plain) expression(a.target);
    write(a.target);
    if (a.form == Assignment::Form::sum && a.target->kind == ExprKind::variable) {
      CMPSYM& s = *gcmp_.find(a.target->name);
      s.retained = true;
      gcmp_.sums.insert(s.index);
    }
  }

  void loop(const DoStatement& d)
  {
    for (const LoopRange& r : d.ranges)
      for (const Expr* const e : {r.start, r.stop, r.step, r.while_, r.until}) expression(e);
    if (d.index != nullptr) {
      write(d.index);
      expression(d.index);
    }
    expression(d.while_);
    expression(d.until);
    block(d.body);
  }

  // What a subprogram gives back through its arguments.
  void outputs(std::string_view name, std::span<Expr* const> args)
  {
    const auto it = gcmp_.subprograms.find(name);
    if (it == gcmp_.subprograms.end()) return;
    for (std::size_t k = 0; k < args.size() && k < it->second->parameters.size(); ++k) {
      if (!it->second->parameters[k].output) continue;
      if (args[k]->kind == ExprKind::variable || args[k]->kind == ExprKind::element ||
          args[k]->kind == ExprKind::whole_array)
        write(args[k]);
    }
  }

  void array(const ArrayDeclaration& a)
  {
    ArrayInfo info;
    info.declaration = &a;
    std::int64_t count = 1;
    for (std::size_t d = 0; d < a.low.size(); ++d) count *= std::int64_t{a.high[d]} - a.low[d] + 1;
    if (count < 1 || count > 100000) {
      gcmp_.error(message::declaration, a.where,
                  "The array " + std::string(a.name) + " has bounds that give no usable number of elements.");
      return;
    }
    for (std::int64_t k = 0; k < count; ++k) {
      std::string name;
      if (static_cast<std::size_t>(k) < a.elements.size())
        name = a.elements[static_cast<std::size_t>(k)];
      else if (a.temporary)
        name = std::string(a.name) + "[" + std::to_string(k + 1) + "]";
      else
        name = std::string(a.name) + std::to_string(k + 1);
      CMPSYM& s = gcmp_.named_symbol(name, a.where);
      s.array_element = true;
      if (a.character) s.type = 'c';
      if (a.character && a.length > 0) gcmp_.text_length[s.index] = a.length;
      if (a.temporary) s.retained = true;
      if (a.temporary) s.assigned = true;
      if (static_cast<std::size_t>(k) < a.initial.size() && a.initial[static_cast<std::size_t>(k)] != nullptr) {
        gcmp_.initial[s.index] = a.initial[static_cast<std::size_t>(k)];
        s.retained = true;
        s.assigned = true;
      }
      info.elements.push_back(s.index);
    }
    if (!gcmp_.arrays.emplace(std::string(a.name), std::move(info)).second)
      gcmp_.error(message::declaration, a.where, "The array " + std::string(a.name) + " is declared twice.");
  }

  void attributes(const AttributeDeclaration& a)
  {
    if (const std::string fault = a.format.empty() ? std::string() : format_fault(a.format); !fault.empty())
      gcmp_.error(message::declaration, a.where, fault);
    for (const std::string_view name : a.names) {
      if (!a.format.empty()) gcmp_.formats[std::string(name)] = a.format;
      if (!a.has_length) continue;
      CMPSYM& s = gcmp_.named_symbol(name, a.where);
      if (a.character) s.type = 'c';
      if (a.character && a.length > 0) gcmp_.text_length[s.index] = a.length;
    }
  }

  // A first value that is a text gives the variable its type and, when none is declared, its length.
  void first_text(CMPSYM& s, std::string_view text)
  {
    s.type = 'c';
    gcmp_.text_length.try_emplace(s.index, std::max<std::int32_t>(1, static_cast<std::int32_t>(text.size())));
  }

  void retain(const RetainDeclaration& r)
  {
    if (r.names.empty()) retain_all_ = true;
    for (std::size_t k = 0; k < r.names.size(); ++k) {
      const auto array_it = gcmp_.arrays.find(r.names[k]);
      const auto one = [&](CMPSYM& s) {
        s.retained = true;
        if (k < r.initial.size() && r.initial[k] != nullptr) {
          gcmp_.initial[s.index] = r.initial[k];
          s.assigned = true;
          if (r.initial[k]->kind == ExprKind::text) first_text(s, r.initial[k]->name);
        }
      };
      if (array_it != gcmp_.arrays.end())
        for (const std::int32_t element : array_it->second.elements) one(gcmp_.at(element));
      else
        one(gcmp_.named_symbol(r.names[k], r.where));
    }
  }

  void site(const ExpressionSite& s)
  {
    for (const Expr* const e : s.expressions) {
      expression(e);
      CMPSYM& symbol = gcmp_.new_symbol(to_text(*e), 'e', 'n');
      symbol.where = e->where;
      gcmp_.sites.emplace(e, symbol.index);
    }
  }

  CMPGLOBAL& gcmp_;

public:
  bool retain_all_ = false; // RETAIN without names
};

} // namespace

void scan_program(CMPGLOBAL& gcmp, const syntax::Program& program)
{
  Scan scan(gcmp);
  const Block all(program.statements.data(), program.statements.size());
  scan.subprograms(all);
  scan.block(all);
  if (scan.retain_all_)
    for (CMPSYM* const s : gcmp.named)
      if (s->assigned) s->retained = true;
}

void scan_late_expression(CMPGLOBAL& gcmp, const Expr& expression)
{
  Scan(gcmp).expression(&expression);
}

} // namespace torvale::engine
