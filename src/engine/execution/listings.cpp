// Listings for people: statements, code of the programs, dependencies, derivatives, cross-reference.

#include "engine/execution/statement_text.h"
#include "engine/stages/program.h"

#include <algorithm>

namespace torvale::engine {

namespace {

constexpr std::size_t longest_expression = 2000; // characters of a formula that are still worth reading

std::string padded(std::string s, std::size_t width)
{
  if (s.size() < width) s.append(width - s.size(), ' ');
  return s;
}

// A node as a formula; cut when it grows beyond what a person reads.
class Formula {
public:
  explicit Formula(const CMPGLOBAL& gcmp) : gcmp_(gcmp) {}

  std::string operator()(NodeId id)
  {
    out_.clear();
    write(id, 0);
    return out_.size() > longest_expression ? out_.substr(0, longest_expression) + " ..." : out_;
  }

private:
  // Strength of the operator around: 0 none, 1 sum, 2 product, 3 power or sign.
  void write(NodeId id, int around)
  {
    if (out_.size() > longest_expression) return;
    const Node& n = gcmp_.graph.node(id);
    switch (n.kind) {
    case NodeKind::constant:
      out_ += text_from_number(n.value, {});
      return;
    case NodeKind::symbol:
      out_ += gcmp_.at(n.index).name;
      return;
    case NodeKind::row:
      out_ += "record";
      return;
    case NodeKind::carry:
      out_ += std::string("kept") + std::to_string(n.index);
      return;
    case NodeKind::result:
      out_ += std::string("loop") + std::to_string(n.index);
      return;
    case NodeKind::text:
      out_ += std::string("text") + std::to_string(n.index);
      return;
    case NodeKind::kernel:
      break;
    }
    const auto infix = [&](const char* op, int strength) {
      const bool brackets = around > strength;
      if (brackets) out_ += "(";
      write(n.operand[0], strength);
      out_ += op;
      write(n.operand[1], strength + 1);
      if (brackets) out_ += ")";
    };
    switch (n.kernel) {
    case Kernel::add:
      return infix(" + ", 1);
    case Kernel::subtract:
      return infix(" - ", 1);
    case Kernel::multiply:
      return infix("*", 2);
    case Kernel::divide:
    case Kernel::divide_unchecked:
      return infix("/", 2);
    case Kernel::power:
      return infix("**", 3);
    case Kernel::less:
    case Kernel::less_known:
      return infix(" < ", 0);
    case Kernel::less_equal:
    case Kernel::less_equal_known:
      return infix(" <= ", 0);
    case Kernel::equal:
    case Kernel::equal_known:
      return infix(" = ", 0);
    case Kernel::not_equal:
    case Kernel::not_equal_known:
      return infix(" ^= ", 0);
    case Kernel::negate:
      out_ += "-";
      return write(n.operand[0], 3);
    case Kernel::square:
    case Kernel::cube:
      write(n.operand[0], 4);
      out_ += n.kernel == Kernel::square ? "**2" : "**3";
      return;
    default:
      break;
    }
    out_ += kernel_info(n.kernel).name;
    out_ += "(";
    for (int k = 0; k < n.operands; ++k) {
      if (k > 0) out_ += ", ";
      write(n.operand[static_cast<std::size_t>(k)], 0);
    }
    out_ += ")";
  }

  const CMPGLOBAL& gcmp_;
  std::string out_;
};

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
  case From::column: {
    const Column& c = program.columns[static_cast<std::size_t>(in.index)];
    return c.result < 0 ? gcmp.at(gcmp.graph.node(c.node).index).name
                        : std::string("data result ") + std::to_string(c.result);
  }
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

void append_stage(std::string& out, const CMPGLOBAL& gcmp, const Program& program, Stage stage)
{
  static constexpr const char* names[] = {"parameter stage: once per parameter vector", "data stage: once per data set",
                                          "observation stage: once per observation and parameter vector",
                                          "point stage: once per point", "lane stage: per observation and point"};
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
  std::string out;
  Formula formula(gcmp);
  for (int k = 0; k < der.der.n(); ++k) {
    const auto at = static_cast<std::size_t>(k);
    const CMPSYM& object = *der.obj.s[static_cast<std::size_t>(der.objindex[at])];
    const CMPSYM& variable = *der.wrt.s[static_cast<std::size_t>(der.wrtindex[at])];
    out += std::string("d(") + object.name + ")/d(" + variable.name +
           ") = " + formula(gcmp.value[static_cast<std::size_t>(der.der.s[at]->index)]) + "\n";
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
