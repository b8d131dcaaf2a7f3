// The symbol table of a model: names, bindings to data, parameters and random effects, queries, diagnostics.

#include "engine/graph/compiler.h"

#include <algorithm>

namespace torvale::engine {

bool NameLess::operator()(std::string_view a, std::string_view b) const
{
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                      [&](char x, char y) { return lower(x) < lower(y); });
}

void CMPGLOBAL::say(Diagnostic::Severity severity, int number, syntax::Position where, std::string text_of_message)
{
  // A statement that is translated more than once (an unrolled loop, an inlined subprogram) speaks once.
  for (const Diagnostic& d : diagnostics)
    if (d.number == number && d.where.source == where.source && d.where.line == where.line &&
        d.where.column == where.column && d.text == text_of_message)
      return;
  if (severity == Diagnostic::Severity::error) ++errors;
  diagnostics.push_back({severity, number, std::move(text_of_message), where});
}

CMPSYM& CMPGLOBAL::new_symbol(std::string name, char kind, char type)
{
  CMPSYM& s = symbols.emplace_back();
  s.name = std::move(name);
  s.index = static_cast<int>(symbols.size()) - 1;
  s.kind = kind;
  s.type = type;
  return s;
}

CMPSYM& CMPGLOBAL::total_symbol(int index)
{
  while (static_cast<int>(totals.size()) <= index) {
    CMPSYM& s = new_symbol("_total" + std::to_string(totals.size()), 'd', 'n');
    s.total = static_cast<int>(totals.size());
    s.assigned = true;
    graph.declare_variation(s.index, GraphBuilder::by_point);
    totals.push_back(s.index);
  }
  return at(totals[static_cast<std::size_t>(index)]);
}

CMPSYM* CMPGLOBAL::find(std::string_view name)
{
  const auto it = by_name.find(name);
  return it == by_name.end() ? nullptr : &at(it->second);
}

CMPSYM& CMPGLOBAL::named_symbol(std::string_view name, syntax::Position where)
{
  if (CMPSYM* const known = find(name)) return *known;
  CMPSYM& s = new_symbol(std::string(name), 'v', ' ');
  s.where = where;
  by_name.emplace(s.name, s.index);
  named.push_back(&s);
  return s;
}

NodeId CMPGLOBAL::node_of(const CMPSYM& symbol)
{
  translate();
  const auto index = static_cast<std::size_t>(symbol.index);
  if (index < value.size() && value[index] != no_node) return value[index];
  if (symbol.kind == 'v') return graph.symbol(symbol.index);
  return graph.missing();
}

std::shared_ptr<CMPGLOBAL> cmpinit(const CMPINIT& init)
{
  return std::make_shared<CMPGLOBAL>(init);
}

int cmperrors(const CMPGLOBAL& gcmp)
{
  return gcmp.errors;
}

std::vector<Diagnostic> cmpdiagnostics(CMPGLOBAL& gcmp)
{
  std::vector<Diagnostic> all;
  all.swap(gcmp.diagnostics);
  return all;
}

int cmpprogram(CMPGLOBAL& gcmp, const syntax::Program& program)
{
  const int before = gcmp.errors;
  gcmp.program = &program;
  scan_program(gcmp, program);
  return gcmp.errors == before ? 0 : 1;
}

CMPSYM* cmpexpr(CMPGLOBAL& gcmp, const syntax::Expr* expression)
{
  if (const auto it = gcmp.sites.find(expression); it != gcmp.sites.end()) return &gcmp.at(it->second);
  CMPSYM& s = gcmp.new_symbol(syntax::to_text(*expression), 'e', 'n');
  s.where = expression->where;
  gcmp.sites.emplace(expression, s.index);
  gcmp.late_expressions.push_back(expression);
  scan_late_expression(gcmp, *expression);
  return &s;
}

CMPSYM* cmpsite(CMPGLOBAL& gcmp, const syntax::Expr* expression)
{
  const auto it = gcmp.sites.find(expression);
  return it == gcmp.sites.end() ? nullptr : &gcmp.at(it->second);
}

namespace {

void bind(CMPGLOBAL& gcmp, CMPSYM& s, int dsvarno, const DataVariable& v)
{
  // A name that the program gives numbers to and the data hold as texts (or the reverse) is the program's own.
  const char type = v.character ? 'c' : 'n';
  if (s.assigned && s.type != ' ' && s.type != type) return;
  s.dsvarno = dsvarno;
  s.type = type;
  s.resolved = true;
  if (v.special_missing) gcmp.graph.declare_special(s.index);
  gcmp.translated = false;
}

} // namespace

int cmprslv(CMPGLOBAL& gcmp, const std::vector<DataVariable>& variables)
{
  gcmp.data_variables = variables;
  for (std::size_t k = 0; k < variables.size(); ++k) {
    CMPSYM* const s = gcmp.find(variables[k].name);
    // Also a variable that the program assigns: its value from the data stands until then, in every run afresh.
    if (s != nullptr && s->parameter < 0 && s->random_effect < 0 && (s->used || !s->assigned))
      bind(gcmp, *s, static_cast<int>(k) + 1, variables[k]);
  }
  return 0;
}

CMPSYM* cmpsyms(CMPGLOBAL& gcmp, std::string_view name)
{
  return gcmp.find(name);
}

CMPSYM* cmpsymd(CMPGLOBAL& gcmp, std::string_view name, char kind, char type)
{
  CMPSYM& s = gcmp.named_symbol(name, {});
  s.kind = kind;
  if (s.type == ' ') s.type = type;
  return &s;
}

CMPSYM* cmpsymg(CMPGLOBAL& gcmp, std::string_view name, int dsvarno, char type)
{
  CMPSYM& s = gcmp.named_symbol(name, {});
  if (s.dsvarno == 0 && dsvarno > 0) {
    DataVariable v;
    v.name = name;
    v.character = type == 'c';
    if (static_cast<std::size_t>(dsvarno) <= gcmp.data_variables.size())
      v = gcmp.data_variables[static_cast<std::size_t>(dsvarno) - 1];
    bind(gcmp, s, dsvarno, v);
  }
  return &s;
}

const std::vector<CMPSYM*>& cmpsymbols(const CMPGLOBAL& gcmp)
{
  return gcmp.named;
}

namespace {

void make_input(CMPGLOBAL& gcmp, CMPSYM& s)
{
  s.dsvarno = 0;
  s.type = 'n';
  s.cls = 'a';
  s.resolved = true;
  gcmp.graph.declare_present(s.index);
  gcmp.translated = false;
}

} // namespace

void cmpparm(CMPGLOBAL& gcmp, CMPSYM* symbol, int parameter_index)
{
  make_input(gcmp, *symbol);
  symbol->status = 20;
  symbol->parameter = parameter_index;
}

void cmpran(CMPGLOBAL& gcmp, CMPSYM* symbol, int random_effect_index)
{
  make_input(gcmp, *symbol);
  symbol->random_effect = random_effect_index;
}

bool cmpcdep(CMPGLOBAL& gcmp, const CMPSYM* symbol, const CMPSYM* on)
{
  return symbol == on || gcmp.dependence.reads(gcmp.node_of(*symbol), on->index);
}

std::vector<CMPSYM*> cmpdeps(CMPGLOBAL& gcmp, const CMPSYM* symbol)
{
  std::vector<CMPSYM*> all;
  for (const std::int32_t index : gcmp.dependence.symbols_behind(gcmp.node_of(*symbol))) all.push_back(&gcmp.at(index));
  return all;
}

void cmpchck(CMPGLOBAL& gcmp, int& undefined, int& unused, int& faults)
{
  gcmp.translate();
  undefined = unused = 0;
  for (const CMPSYM* const s : gcmp.named) {
    if (s->used && !s->assigned && !s->resolved) {
      ++undefined;
      gcmp.error(message::undefined_variable, s->where,
                 "The variable " + s->name +
                     " is used but has no value: it is neither a parameter, nor a random effect, "
                     "nor a variable of the input data set, nor assigned by the program." +
                     (s->array_element
                          ? " It is an element of an array; elements do not become parameters unless PARMS names them."
                          : ""));
    } else if (s->assigned && !s->used && !s->array_element && s->name.substr(0, 1) != "_") {
      ++unused;
      gcmp.note(message::unused_variable, s->where,
                "The variable " + s->name + " is given a value that no statement uses.");
    }
  }
  faults = gcmp.errors - undefined;
}

ProgramData cmppdv(const CMPGLOBAL& gcmp)
{
  ProgramData d;
  for (const CMPSYM* const s : gcmp.named)
    if (s->dsvarno > 0 && s->used) d.variables.push_back(const_cast<CMPSYM*>(s));
  std::sort(d.variables.begin(), d.variables.end(),
            [](const CMPSYM* a, const CMPSYM* b) { return a->dsvarno < b->dsvarno; });
  d.nlag = gcmp.lag_depth;
  return d;
}

int cmpgen(CMPGLOBAL& gcmp)
{
  gcmp.translate();
  gcmp.generated = true;
  return gcmp.errors;
}

std::string cmppnam(const CMPSYM* symbol)
{
  return symbol->name;
}

} // namespace torvale::engine
