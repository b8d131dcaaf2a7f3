#include "syntax/tree.h"

#include "host/values/missing.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

namespace torvale::syntax {

namespace {

char upper(char c)
{
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

std::string number_text(double x)
{
  if (host::wzmis(x) || std::isnan(x)) {
    const char letter = host::missing_letter(host::canonical_missing(x));
    return letter == '.' ? "." : std::string(".") + letter;
  }
  if (std::isinf(x)) return x > 0 ? "1e999" : "(-1e999)"; // read back as infinite
  char buffer[40];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, x).ptr; // shortest text of the same double
  std::string text(buffer, end);
  return std::signbit(x) ? "(" + text + ")" : text;
}

std::string quoted(std::string_view s)
{
  std::string out = "'";
  for (char c : s) {
    out += c;
    if (c == '\'') out += c;
  }
  return out + "'";
}

// A name as it must be typed: a name literal when it is not an ordinary name.
std::string name_text(std::string_view s)
{
  const auto name_char = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
  };
  // Dotted names (first.id) stand as they are.
  bool ordinary = !s.empty() && !(s[0] >= '0' && s[0] <= '9') && s[0] != '.' && s.back() != '.';
  for (char c : s) ordinary = ordinary && (name_char(c) || c == '.');
  if (ordinary && !same_name(s, "NOT") && !same_name(s, "IF")) return std::string(s);
  return quoted(s) + "n";
}

std::string_view op_text(Op op, bool truncated)
{
  switch (op) {
  case Op::plus:
  case Op::add:
    return "+";
  case Op::minus:
  case Op::subtract:
    return "-";
  case Op::not_:
    return "not ";
  case Op::multiply:
    return "*";
  case Op::divide:
    return "/";
  case Op::power:
    return "**";
  case Op::minimum:
    return "><";
  case Op::maximum:
    return "<>";
  case Op::concatenate:
    return "||";
  case Op::less:
    return truncated ? " <: " : " < ";
  case Op::less_equal:
    return truncated ? " <=: " : " <= ";
  case Op::greater:
    return truncated ? " >: " : " > ";
  case Op::greater_equal:
    return truncated ? " >=: " : " >= ";
  case Op::equal:
    return truncated ? " =: " : " = ";
  case Op::not_equal:
    return truncated ? " ^=: " : " ^= ";
  case Op::and_:
    return " and ";
  case Op::or_:
    return " or ";
  case Op::in:
    return " in ";
  case Op::not_in:
    return " notin ";
  case Op::none:
    break;
  }
  return "?";
}

void write(const Expr& e, std::string& out);

// A part of a compound expression: bracketed unless it is one unit.
void write_part(const Expr& e, std::string& out)
{
  const bool unit = e.kind == ExprKind::number || e.kind == ExprKind::text || e.kind == ExprKind::variable ||
                    e.kind == ExprKind::element || e.kind == ExprKind::call;
  if (!unit) out += '(';
  write(e, out);
  if (!unit) out += ')';
}

void write_arguments(const Expr& e, std::string& out)
{
  for (std::size_t i = 0; i < e.args.size(); ++i) {
    if (i > 0) out += ", ";
    if (e.args[i]->kind == ExprKind::whole_array) out += "of ";
    write(*e.args[i], out);
  }
}

void write(const Expr& e, std::string& out)
{
  switch (e.kind) {
  case ExprKind::number:
    out += number_text(e.number);
    break;
  case ExprKind::text:
    out += quoted(e.name);
    break;
  case ExprKind::variable:
    out += name_text(e.name);
    break;
  case ExprKind::element:
    out += name_text(e.name) + "[";
    write_arguments(e, out);
    out += ']';
    break;
  case ExprKind::whole_array:
    out += name_text(e.name) + "[*]";
    break;
  case ExprKind::unary:
    out += op_text(e.op, false);
    write_part(*e.args[0], out);
    break;
  case ExprKind::binary:
    write_part(*e.args[0], out);
    out += op_text(e.op, e.truncated);
    write_part(*e.args[1], out);
    break;
  case ExprKind::chain:
    for (std::size_t i = 0; i < e.args.size(); ++i) {
      if (i > 0) out += op_text(e.ops[i - 1], e.truncated);
      write_part(*e.args[i], out);
    }
    break;
  case ExprKind::conditional:
    out += "if ";
    write_part(*e.args[0], out);
    out += " then ";
    write_part(*e.args[1], out);
    out += " else ";
    write_part(*e.args[2], out);
    break;
  case ExprKind::call:
    out += std::string(e.name) + "(";
    write_arguments(e, out);
    out += ')';
    break;
  case ExprKind::in_list:
    write_part(*e.args[0], out);
    out += op_text(e.op, false);
    out += '(';
    for (std::size_t i = 1; i + 1 < e.args.size(); i += 2) {
      if (i > 1) out += ", ";
      // Signs of a list stand bare: its items are constants, not expressions.
      const auto constant = [&out](const Expr& c) {
        if (c.kind == ExprKind::number && std::signbit(c.number) && !std::isnan(c.number)) {
          const std::string text = number_text(c.number);
          out += text.substr(1, text.size() - 2);
        } else {
          write(c, out);
        }
      };
      constant(*e.args[i]);
      if (e.args[i + 1]) {
        out += ':';
        constant(*e.args[i + 1]);
      }
    }
    out += ')';
    break;
  }
}

} // namespace

bool same_name(std::string_view a, std::string_view b)
{
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return upper(x) == upper(y); });
}

std::string_view Arena::text(std::string_view s)
{
  if (s.empty()) return {};
  auto* copy = static_cast<char*>(pool_.allocate(s.size(), 1));
  std::memcpy(copy, s.data(), s.size());
  return {copy, s.size()};
}

std::string to_text(const Expr& e)
{
  std::string out;
  write(e, out);
  return out;
}

} // namespace torvale::syntax
