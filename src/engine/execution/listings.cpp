// Listings for people: statements, code of the programs, dependencies, derivatives, cross-reference.

#include "engine/execution/formula_text.h"
#include "engine/execution/statement_text.h"
#include "engine/stages/program.h"
#include "host/values/text.h"

#include <algorithm>

namespace torvale::engine {

namespace {

constexpr std::size_t line_width = 100; // of derivatives

std::string padded(std::string s, std::size_t width)
{
  if (s.size() < width) s.append(width - s.size(), ' ');
  return s;
}

std::string what(const CMPSYM& s)
{
  if (s.parameter >= 0) return "parameter";
  if (s.random_effect >= 0) return "random effect";
  if (s.dsvarno > 0) return s.assigned ? "data, assigned" : "data";
  if (s.assigned) return s.retained ? "retained" : "assigned";
  return "undefined";
}

std::string input_text(const CMPGLOBAL& gcmp, const Program& program, const Input& in)
{
  using From = Input::From;
  const std::string k = std::to_string(in.index);
  switch (in.from) {
  case From::parameter_value:
    return std::string("parameter ") + k;
  case From::random_effect:
    return std::string("random effect ") + k;
  case From::total:
    return std::string("sum over records ") + k;
  case From::column: {
    const Column& c = program.columns[static_cast<std::size_t>(in.index)];
    return c.result < 0 ? gcmp.at(gcmp.graph.node(c.node).index).name
                        : std::string("data result ") + std::to_string(c.result);
  }
  case From::distinct:
    return std::string("result ") + k + " of the values";
  case From::observation:
    return std::string("observation result ") + k;
  case From::point:
    return std::string("point result ") + k;
  case From::state:
    return std::string("kept value ") + k;
  case From::row_number:
    return "record number";
  case From::missing:
    return "missing";
  }
  return "";
}

// d(_ll)/d(b); of a derivative, whose name is that of its object and what it is by: d2(_ll)/d(b)d(c).
std::string derivative_name(const CMPSYM& object, const CMPSYM& variable)
{
  std::string name = object.name, by;
  int order = 1;
  if (object.kind == 'd')
    for (std::size_t at = 0; (at = name.find('/', at)) != std::string::npos; ++order) {
      const std::size_t end = std::min(name.find('/', at + 1), name.size());
      by += "d(" + name.substr(at + 1, end - at - 1) + ")";
      name.erase(at, end - at);
    }
  return "d" + (order > 1 ? std::to_string(order) : "") + "(" + name + ")/" + by + "d(" + variable.name + ")";
}

void append_stage(std::string& out, const CMPGLOBAL& gcmp, const Program& program, Stage stage)
{
  static constexpr const char* names[] = {"parameter stage: once per parameter vector",
                                          "data stage: once per data set",
                                          "values stage: once per value of a variable and parameter vector",
                                          "observation stage: once per observation and parameter vector",
                                          "point stage: once per point",
                                          "lane stage: per observation and point"};
  const StageCode& code = program.code(stage);
  if (code.empty()) return;
  out += std::string("  ") + std::string(names[static_cast<std::size_t>(stage)]) + " (" +
         std::to_string(code.operations) + " operations, " + std::to_string(code.registers) + " registers)\n";
  for (const Fixed& f : code.fixed)
    out += std::string("    r") + std::to_string(f.reg) + " = " +
           (f.constant ? text_from_number(f.value, {}) : std::string("parameter result ") + std::to_string(f.index)) +
           "\n";
  for (const Step& s : code.steps) {
    std::string line = "    ";
    const auto reg = [](std::int32_t r) { return std::string("r") + std::to_string(r); };
    switch (s.kind) {
    case Step::Kind::load:
      line += reg(s.out) + " = " + input_text(gcmp, program, code.inputs[static_cast<std::size_t>(s.index)]);
      break;
    case Step::Kind::keep:
      line += std::string("result ") + std::to_string(s.index) + " = " + reg(s.in[0]);
      break;
    case Step::Kind::loop_begin:
      line += std::string("while any ") + reg(s.in[0]);
      break;
    case Step::Kind::loop_end:
      line += "end of pass";
      break;
    case Step::Kind::element: {
      const std::vector<std::int32_t>& all = code.elements[static_cast<std::size_t>(s.index)];
      line += reg(s.out) + " = of " + std::to_string(all.size() - 2) + " elements number " + reg(all[0]);
      break;
    }
    case Step::Kind::text:
      line += reg(s.out) + " = text test " + std::to_string(s.index);
      break;
    case Step::Kind::output:
      line += std::string("output ") + std::to_string(s.index) + " = " + reg(s.in[0]);
      break;
    case Step::Kind::kernel:
      line += reg(s.out) + " = " + std::string(kernel_info(s.kernel).name) + "(";
      for (int k = 0; k < s.operands; ++k)
        line += std::string(k > 0 ? ", " : "") + reg(s.in[static_cast<std::size_t>(k)]);
      line += ")";
      break;
    }
    const int source_line = s.node >= 0 ? gcmp.graph.position(s.node).line : 0;
    if (s.kind == Step::Kind::kernel && source_line > 0)
      line = padded(line, 48) + "  line " + std::to_string(source_line);
    out += line + "\n";
  }
}

} // namespace

std::string cmppprg(const CMPGLOBAL& gcmp)
{
  std::string out;
  if (gcmp.program != nullptr)
    for (const syntax::Statement* const s : gcmp.program->statements) append_statement(out, *s, 0);
  return out;
}

std::string cmppsts(const CMPGLOBAL& gcmp)
{
  std::string out;
  for (const auto& p : gcmp.programs) {
    out += std::string("Program ") + std::to_string(p->number + 1) + ": " + std::to_string(p->outputs) + " outputs, " +
           std::to_string(p->nodes) + " nodes\n";
    for (int s = 0; s < stages; ++s) append_stage(out, gcmp, *p, static_cast<Stage>(s));
  }
  return out;
}

std::string cmppdep(const CMPGLOBAL& gcmp)
{
  std::string out;
  Dependence dependence = gcmp.dependence;
  for (const CMPSYM* const s : gcmp.named) {
    const auto at = static_cast<std::size_t>(s->index);
    if (!s->assigned || at >= gcmp.value.size() || gcmp.value[at] == no_node) continue;
    std::string line = padded(s->name, 24) + "  depends on";
    const std::vector<std::int32_t> behind = dependence.symbols_behind(gcmp.value[at]);
    for (const std::int32_t k : behind) line += std::string(" ") + gcmp.at(k).name;
    out += line + (behind.empty() ? " nothing\n" : "\n");
  }
  return out;
}

std::string cmppder(const CMPGLOBAL& gcmp, const CMPDER& der)
{
  std::vector<NodeId> roots;
  for (const CMPSYM* const s : der.der.s) roots.push_back(gcmp.value[static_cast<std::size_t>(s->index)]);
  FormulaText formula(gcmp);
  std::string out = formula.share(roots);
  for (std::size_t k = 0; k < roots.size(); ++k) {
    const CMPSYM& object = *der.obj.s[static_cast<std::size_t>(der.objindex[k])];
    const CMPSYM& variable = *der.wrt.s[static_cast<std::size_t>(der.wrtindex[k])];
    for (const std::string& line :
         host::wrapped(derivative_name(object, variable) + " = " + formula(roots[k]), line_width, 6))
      out += line + "\n";
  }
  return out;
}

std::string cmpxref(const CMPGLOBAL& gcmp)
{
  std::string out;
  std::vector<const CMPSYM*> sorted(gcmp.named.begin(), gcmp.named.end());
  std::sort(sorted.begin(), sorted.end(),
            [](const CMPSYM* a, const CMPSYM* b) { return NameLess()(a->name, b->name); });
  for (const CMPSYM* const s : sorted) {
    std::string line =
        padded(s->name, 24) + "  " + padded(s->type == 'c' ? "text" : "number", 8) + padded(what(*s), 16) + "lines";
    if (const auto it = gcmp.places.find(s->index); it != gcmp.places.end()) {
      int last = -1;
      for (const syntax::Position& p : it->second) {
        if (p.line != last) line += std::string(" ") + std::to_string(p.line);
        last = p.line;
      }
    }
    out += line + "\n";
  }
  return out;
}

} // namespace torvale::engine
