#include "engine/execution/statement_text.h"

namespace torvale::engine {

using namespace syntax;

namespace {

std::string text_or_empty(const Expr* e)
{
  return e == nullptr ? std::string() : to_text(*e);
}

std::string list(std::span<Expr* const> all)
{
  std::string out;
  for (const Expr* const e : all) out += std::string(out.empty() ? "" : ", ") + text_or_empty(e);
  return out;
}

std::string names(std::span<const std::string_view> all)
{
  std::string out;
  for (const std::string_view n : all) out += std::string(" ") + std::string(n);
  return out;
}

std::string range_text(const LoopRange& r)
{
  std::string out = text_or_empty(r.start);
  if (r.stop != nullptr) out += std::string(" TO ") + to_text(*r.stop);
  if (r.step != nullptr) out += std::string(" BY ") + to_text(*r.step);
  if (r.while_ != nullptr) out += std::string(" WHILE (") + to_text(*r.while_) + ")";
  if (r.until != nullptr) out += std::string(" UNTIL (") + to_text(*r.until) + ")";
  return out;
}

std::string array_text(const ArrayDeclaration& a)
{
  std::string out = std::string("ARRAY ") + std::string(a.name) + "[";
  for (std::size_t d = 0; d < a.low.size(); ++d)
    out += std::string(d > 0 ? ", " : "") + std::to_string(a.low[d]) + ":" + std::to_string(a.high[d]);
  out += "]";
  if (a.character)
    out += std::string(" $") + (a.length > 0 ? std::string(" ") + std::to_string(a.length) : std::string());
  if (a.temporary) out += " _TEMPORARY_";
  out += names(a.elements);
  if (!a.initial.empty()) out += std::string(" (") + list(a.initial) + ")";
  return out;
}

std::string do_text(const DoStatement& d)
{
  std::string out = "DO";
  if (d.index != nullptr) {
    out += std::string(" ") + to_text(*d.index) + " = ";
    for (std::size_t k = 0; k < d.ranges.size(); ++k) out += std::string(k > 0 ? ", " : "") + range_text(d.ranges[k]);
  }
  if (d.while_ != nullptr) out += std::string(" WHILE (") + to_text(*d.while_) + ")";
  if (d.until != nullptr) out += std::string(" UNTIL (") + to_text(*d.until) + ")";
  return out;
}

std::string put_text(const PutStatement& p)
{
  std::string out = "PUT";
  for (const PutItem& item : p.items)
    out += item.value != nullptr ? std::string(" ") + to_text(*item.value)
           : item.text.empty()   ? std::string()
                                 : std::string(" '") + std::string(item.text) + "'";
  return out;
}

std::string subprogram_text(const SubprogramDefinition& d)
{
  std::string out = (d.is_function ? "FUNCTION " : "SUBROUTINE ") + std::string(d.name) + "(";
  for (std::size_t k = 0; k < d.parameters.size(); ++k)
    out += std::string(k > 0 ? ", " : "") + std::string(d.parameters[k].name);
  return out + ")";
}

// The text of a statement without its body.
std::string head(const Statement& s)
{
  switch (s.kind) {
  case StatementKind::assign: {
    const auto& a = static_cast<const Assignment&>(s);
    if (a.form == Assignment::Form::sum) return to_text(*a.target) + " + " + to_text(*a.value);
    if (a.form == Assignment::Form::substring)
      return std::string("SUBSTR(") + to_text(*a.target) + ", " + to_text(*a.position) +
             (a.length != nullptr ? std::string(", ") + to_text(*a.length) : "") + ") = " + to_text(*a.value);
    return to_text(*a.target) + " = " + to_text(*a.value);
  }
  case StatementKind::if_:
    return std::string("IF ") + to_text(*static_cast<const IfStatement&>(s).condition) + " THEN";
  case StatementKind::do_:
    return do_text(static_cast<const DoStatement&>(s));
  case StatementKind::select: {
    const auto& x = static_cast<const SelectStatement&>(s);
    return x.selector != nullptr ? std::string("SELECT (") + to_text(*x.selector) + ")" : std::string("SELECT");
  }
  case StatementKind::go_to:
    return std::string("GOTO ") + std::string(static_cast<const JumpStatement&>(s).target);
  case StatementKind::link:
    return std::string("LINK ") + std::string(static_cast<const JumpStatement&>(s).target);
  case StatementKind::return_:
    return std::string("RETURN") +
           (static_cast<const ReturnStatement&>(s).value != nullptr
                ? std::string(" (") + to_text(*static_cast<const ReturnStatement&>(s).value) + ")"
                : std::string());
  case StatementKind::leave:
    return "LEAVE";
  case StatementKind::continue_:
    return "CONTINUE";
  case StatementKind::stop:
    return "STOP";
  case StatementKind::delete_:
    return "DELETE";
  case StatementKind::abort:
    return "ABORT";
  case StatementKind::call:
    return std::string("CALL ") + std::string(static_cast<const CallStatement&>(s).name) + "(" +
           list(static_cast<const CallStatement&>(s).args) + ")";
  case StatementKind::put:
    return put_text(static_cast<const PutStatement&>(s));
  case StatementKind::file:
    return std::string("FILE ") + std::string(static_cast<const FileStatement&>(s).target);
  case StatementKind::array:
    return array_text(static_cast<const ArrayDeclaration&>(s));
  case StatementKind::attributes:
    return std::string("ATTRIB") + names(static_cast<const AttributeDeclaration&>(s).names);
  case StatementKind::retain:
    return (static_cast<const RetainDeclaration&>(s).is_static ? "STATIC" : "RETAIN") +
           names(static_cast<const RetainDeclaration&>(s).names);
  case StatementKind::keep_drop:
    return (static_cast<const KeepDeclaration&>(s).drop ? "DROP" : "KEEP") +
           names(static_cast<const KeepDeclaration&>(s).names);
  case StatementKind::subprogram:
    return subprogram_text(static_cast<const SubprogramDefinition&>(s));
  case StatementKind::site:
    return std::string("(") + std::string(static_cast<const ExpressionSite&>(s).statement) + " " +
           list(static_cast<const ExpressionSite&>(s).expressions) + ")";
  case StatementKind::empty:
    return "";
  }
  return "";
}

void line(std::string& out, const Statement& s, int depth, const std::string& text)
{
  std::string number = s.where.line > 0 ? std::to_string(s.where.line) : std::string();
  number.insert(0, number.size() < 6 ? 6 - number.size() : 0, ' ');
  out += number + "  " + std::string(static_cast<std::size_t>(2 * depth), ' ');
  if (!s.label.empty()) out += std::string(s.label) + ": ";
  out += text + ";\n";
}

} // namespace

void append_statement(std::string& out, const Statement& s, int depth)
{
  line(out, s, depth, head(s));
  const auto block = [&](Block body) {
    for (const Statement* const inner : body) append_statement(out, *inner, depth + 1);
    line(out, s, depth, "END");
  };
  switch (s.kind) {
  case StatementKind::if_: {
    const auto& x = static_cast<const IfStatement&>(s);
    out.resize(out.size() - 2); // the statement goes on behind THEN
    out += "\n";
    if (x.then_branch != nullptr) append_statement(out, *x.then_branch, depth + 1);
    if (x.else_branch == nullptr) return;
    line(out, s, depth, "ELSE");
    out.resize(out.size() - 2);
    out += "\n";
    return append_statement(out, *x.else_branch, depth + 1);
  }
  case StatementKind::do_:
    return block(static_cast<const DoStatement&>(s).body);
  case StatementKind::select: {
    const auto& x = static_cast<const SelectStatement&>(s);
    for (const WhenClause& w : x.whens) {
      line(out, s, depth + 1, "WHEN (" + list(w.values) + ")");
      if (w.body != nullptr) append_statement(out, *w.body, depth + 2);
    }
    if (x.otherwise != nullptr) {
      line(out, s, depth + 1, "OTHERWISE");
      append_statement(out, *x.otherwise, depth + 2);
    }
    return line(out, s, depth, "END");
  }
  case StatementKind::subprogram:
    return block(static_cast<const SubprogramDefinition&>(s).body);
  default:
    return;
  }
}

} // namespace torvale::engine
