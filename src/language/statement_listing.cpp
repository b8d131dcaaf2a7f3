#include "language/statement_listing.h"

#include "host/values/missing.h"
#include "host/values/text.h"
#include "language/grammar.h"

#include <algorithm>

namespace torvale::language {

using namespace syntax;

namespace {

std::string number_text(double x)
{
  if (!host::wzmis(x)) return host::shortest(x);
  const char letter = host::missing_letter(x);
  return letter == '.' ? "." : std::string(".") + letter;
}

std::string item_text(const StItem& i)
{
  std::string text;
  switch (i.kind) {
  case StItem::Kind::number:
    text = number_text(i.number);
    break;
  case StItem::Kind::range:
    text = number_text(i.number) + " TO " + number_text(i.to) + " BY " + number_text(i.by);
    break;
  case StItem::Kind::expression:
    text = to_text(*i.expr);
    break;
  case StItem::Kind::text:
    text = "'" + i.text + "'";
    break;
  case StItem::Kind::data_set:
    text = (i.quoted ? "'" + i.text + "'" : i.text) + (i.options.empty() ? "" : "(" + i.options + ")");
    break;
  default:
    text = i.text;
    break;
  }
  if (i.descending) text += " DESCENDING";
  if (i.group >= 0) text = std::to_string(i.group) + ":" + text;
  return text;
}

// Rows of the option table belong to a statement by its name; PARMS has four.
bool belongs(const OptionRow& row, std::string_view statement)
{
  return row.statement == statement || (row.statement == "PARMS" && statement.substr(0, 3) == "PAR");
}

std::string plain(std::string_view spelling)
{
  std::string s(spelling);
  if (s.size() > 1 && s.back() == '$') s.pop_back();
  return s;
}

std::string slot_option(std::string_view statement, int slot)
{
  for (const OptionRow& row : option_rows()) {
    if (!belongs(row, statement)) continue;
    for (const OptionValue& v : row.values)
      if (v.slot == slot) return plain(row.words[0]);
    for (const OptionValue& v : row.bracket)
      if (v.slot == slot) return plain(row.words[0]) + "[ ]";
  }
  struct Fixed {
    std::string_view statement;
    int slot;
    std::string_view name;
  };
  static constexpr Fixed fixed[] = {{"TORVALE", 0, "BY"},      {"TORVALE", 80, "ID"},       {"MODEL", 1, "dependent"},
                                    {"RANDOM", 1, "effects"},  {"RANDOM", 5, "SUBJECT"},    {"BOUNDS", 2, "operators"},
                                    {"BOUND", 2, "operators"}, {"REPLICATE", 1, "variable"}};
  for (const Fixed& f : fixed)
    if (f.statement == statement && f.slot == slot) return std::string(f.name);
  if (slot == 1) return "names and values";
  if (slot == 2) return "expressions";
  return statement == "MODEL" || statement == "RANDOM" ? "distribution" : "label";
}

std::string flag_option(std::string_view statement, int flag)
{
  // The option that sets this flag alone comes before one that sets several.
  for (const bool single : {true, false})
    for (const OptionRow& row : option_rows())
      if (belongs(row, statement) && (row.flags.size() == 1) == single &&
          std::count(row.flags.begin(), row.flags.end(), flag) > 0)
        return plain(row.words[0]);
  return {};
}

class ProgramWriter {
public:
  std::string out;
  void statement(const Statement& s, int indent)
  {
    out.append(static_cast<std::size_t>(2 * indent), ' ');
    if (!s.label.empty()) out += std::string(s.label) + ": ";
    switch (s.kind) {
    case StatementKind::assign:
      assignment(static_cast<const Assignment&>(s));
      break;
    case StatementKind::if_:
      if_statement(static_cast<const IfStatement&>(s), indent);
      break;
    case StatementKind::do_:
      do_statement(static_cast<const DoStatement&>(s), indent);
      break;
    case StatementKind::select:
      select(static_cast<const SelectStatement&>(s), indent);
      break;
    case StatementKind::go_to:
      line("goto " + std::string(static_cast<const JumpStatement&>(s).target));
      break;
    case StatementKind::link:
      line("link " + std::string(static_cast<const JumpStatement&>(s).target));
      break;
    case StatementKind::return_:
      returning("return", static_cast<const ReturnStatement&>(s));
      break;
    case StatementKind::abort:
      returning("abort", static_cast<const ReturnStatement&>(s));
      break;
    case StatementKind::leave:
      line("leave");
      break;
    case StatementKind::continue_:
      line("continue");
      break;
    case StatementKind::stop:
      line("stop");
      break;
    case StatementKind::delete_:
      line("delete");
      break;
    case StatementKind::call:
      line("call " + std::string(static_cast<const CallStatement&>(s).name) + "(" +
           expressions(static_cast<const CallStatement&>(s).args) + ")");
      break;
    case StatementKind::put:
      put(static_cast<const PutStatement&>(s));
      break;
    case StatementKind::file:
      file(static_cast<const FileStatement&>(s));
      break;
    case StatementKind::array:
      array(static_cast<const ArrayDeclaration&>(s));
      break;
    case StatementKind::attributes:
      attributes(static_cast<const AttributeDeclaration&>(s));
      break;
    case StatementKind::retain:
      retain(static_cast<const RetainDeclaration&>(s));
      break;
    case StatementKind::keep_drop:
      line(std::string(static_cast<const KeepDeclaration&>(s).drop ? "drop" : "keep") +
           names(static_cast<const KeepDeclaration&>(s).names));
      break;
    case StatementKind::subprogram:
      subprogram(static_cast<const SubprogramDefinition&>(s), indent);
      break;
    case StatementKind::site:
      line("* " + std::string(static_cast<const ExpressionSite&>(s).statement) + ": " +
           expressions(static_cast<const ExpressionSite&>(s).expressions));
      break;
    case StatementKind::empty:
      line("");
      break;
    }
  }

private:
  void line(const std::string& text) { out += text + ";\n"; }
  static std::string expressions(std::span<Expr* const> list)
  {
    std::string text;
    for (const Expr* e : list) text += (text.empty() ? "" : ", ") + to_text(*e);
    return text;
  }
  static std::string names(std::span<const std::string_view> list)
  {
    std::string text;
    for (std::string_view n : list) text += " " + std::string(n);
    return text;
  }
  static std::string text(std::string_view s)
  {
    Expr e;
    e.kind = ExprKind::text;
    e.name = s;
    return to_text(e);
  }
  void block(Block body, int indent)
  {
    for (const Statement* s : body) statement(*s, indent + 1);
  }
  void end(int indent) { line(std::string(static_cast<std::size_t>(2 * indent), ' ') + "end"); }

  void assignment(const Assignment& s)
  {
    const std::string target = to_text(*s.target);
    if (s.form == Assignment::Form::substring)
      return line("substr(" + target + ", " + to_text(*s.position) + (s.length ? ", " + to_text(*s.length) : "") +
                  ") = " + to_text(*s.value));
    line(target + (s.form == Assignment::Form::sum ? " + " : " = ") + to_text(*s.value));
  }
  void if_statement(const IfStatement& s, int indent)
  {
    out += "if " + to_text(*s.condition) + " then\n";
    statement(*s.then_branch, indent + 1);
    if (!s.else_branch) return;
    out.append(static_cast<std::size_t>(2 * indent), ' ');
    out += "else\n";
    statement(*s.else_branch, indent + 1);
  }
  static std::string condition(const Expr* while_, const Expr* until)
  {
    return while_ ? " while (" + to_text(*while_) + ")" : until ? " until (" + to_text(*until) + ")" : "";
  }
  void do_statement(const DoStatement& s, int indent)
  {
    std::string head = "do" + condition(s.while_, s.until);
    if (s.index) head += " " + to_text(*s.index) + " =";
    for (std::size_t i = 0; i < s.ranges.size(); ++i) {
      const LoopRange& r = s.ranges[i];
      head += (i > 0 ? ", " : " ") + to_text(*r.start) + (r.stop ? " to " + to_text(*r.stop) : "") +
              (r.step ? " by " + to_text(*r.step) : "") + condition(r.while_, r.until);
    }
    line(head);
    block(s.body, indent);
    end(indent);
  }
  void select(const SelectStatement& s, int indent)
  {
    line(s.selector ? "select (" + to_text(*s.selector) + ")" : "select");
    const std::string blanks(static_cast<std::size_t>(2 * indent + 2), ' ');
    for (const WhenClause& w : s.whens) {
      out += blanks + "when (" + expressions(w.values) + ")\n";
      statement(*w.body, indent + 2);
    }
    if (s.otherwise) {
      out += blanks + "otherwise\n";
      statement(*s.otherwise, indent + 2);
    }
    end(indent);
  }
  void returning(const char* word, const ReturnStatement& s)
  {
    line(word + (s.value ? " (" + to_text(*s.value) + ")" : std::string()));
  }
  void put(const PutStatement& s)
  {
    std::string t = "put";
    for (const PutItem& i : s.items) {
      t += " ";
      const std::string format = i.format.empty() ? "" : " " + std::string(i.format);
      switch (i.kind) {
      case PutItem::Kind::text:
        t += text(i.text);
        break;
      case PutItem::Kind::value:
        t += to_text(*i.value) + format;
        break;
      case PutItem::Kind::named_value:
        t += to_text(*i.value) + "=" + format;
        break;
      case PutItem::Kind::column:
        t += "@(" + to_text(*i.value) + ")";
        break;
      case PutItem::Kind::advance:
        t += "+(" + to_text(*i.value) + ")";
        break;
      case PutItem::Kind::next_line:
        t += "/";
        break;
      case PutItem::Kind::next_page:
        t += "_page_";
        break;
      case PutItem::Kind::all:
        t += "_all_";
        break;
      case PutItem::Kind::pdv:
        t += "_pdv_";
        break;
      case PutItem::Kind::hold:
        t += "@";
        break;
      }
    }
    line(t);
  }
  void file(const FileStatement& s) { line("file " + (s.is_name ? text(s.target) : std::string(s.target))); }
  void array(const ArrayDeclaration& s)
  {
    std::string t = "array " + std::string(s.name) + "[";
    for (std::size_t d = 0; d < s.low.size(); ++d)
      t += (d > 0 ? ", " : "") + std::to_string(s.low[d]) + ":" + std::to_string(s.high[d]);
    t += "]";
    if (s.character) t += s.length > 0 ? " $ " + std::to_string(s.length) : " $";
    t += s.temporary ? " _temporary_" : names(s.elements);
    if (!s.initial.empty()) {
      t += " (";
      for (std::size_t i = 0; i < s.initial.size(); ++i) t += (i > 0 ? " " : "") + constant(*s.initial[i]);
      t += ")";
    }
    line(t);
  }
  static std::string constant(const Expr& e) { return e.kind == ExprKind::number ? number_text(e.number) : to_text(e); }
  void attributes(const AttributeDeclaration& s)
  {
    std::string t = "attrib" + names(s.names);
    if (s.has_length) t += std::string(" length=") + (s.character ? "$" : "") + std::to_string(s.length);
    if (s.has_label) t += " label=" + text(s.text_label);
    if (!s.format.empty()) t += " format=" + std::string(s.format);
    line(t);
  }
  void retain(const RetainDeclaration& s)
  {
    std::string t = s.is_static ? "static" : "retain";
    for (std::size_t i = 0; i < s.names.size(); ++i)
      t += " " + std::string(s.names[i]) + (s.initial[i] ? " " + constant(*s.initial[i]) : "");
    line(t);
  }
  void subprogram(const SubprogramDefinition& s, int indent)
  {
    std::string t = std::string(s.is_function ? "function " : "subroutine ") + std::string(s.name) + "(", outputs;
    for (std::size_t i = 0; i < s.parameters.size(); ++i) {
      const Parameter& p = s.parameters[i];
      t += (i > 0 ? ", " : "") + std::string(p.name) + (p.character ? " $" : "") + (p.array ? "[*]" : "");
      if (p.output) outputs += (outputs.empty() ? "" : ", ") + std::string(p.name);
    }
    line(t + ")" + (s.character_result ? " $" : ""));
    if (!outputs.empty()) line("  outargs " + outputs);
    block(s.body, indent);
    line("endsub");
  }
};

} // namespace

std::vector<ListedStatement> list_statements(const PROCSTR& proc)
{
  std::vector<ListedStatement> out;
  for (const STMT& s : proc.statements) {
    ListedStatement listed;
    listed.name = s.name;
    listed.where = s.where;
    for (int n = 0; n <= s.nfld; ++n) {
      const STLIST& c = s.slot(n);
      if (!c.given()) continue;
      ListedSlot slot{n, slot_option(s.name, n), c.type, c.mode, c.number, {}};
      for (const StItem& i : c.list) slot.items.push_back(item_text(i));
      listed.slots.push_back(std::move(slot));
    }
    for (int f = 0; f < 256; ++f)
      if (s.flag(f)) listed.flags.push_back({f, flag_option(s.name, f)});
    out.push_back(std::move(listed));
  }
  return out;
}

std::string statement_listing(const SourceMap& sources, const PROCSTR& proc)
{
  std::string out;
  for (const ListedStatement& s : list_statements(proc)) {
    out += s.name + " (" + sources.describe(s.where) + ")\n";
    for (const ListedSlot& slot : s.slots) {
      out += "  slot " + std::to_string(slot.slot) + " " + slot.option + ":";
      if (slot.type == 'n') out += " " + number_text(slot.number);
      for (const std::string& i : slot.items) out += " " + i;
      if (slot.mode != 0) out += " NOTSORTED";
      out += "\n";
    }
    for (const ListedFlag& f : s.flags) out += "  flag " + std::to_string(f.flag) + " " + f.option + "\n";
  }
  return out;
}

std::string program_listing(const Program& program)
{
  ProgramWriter writer;
  for (const Statement* s : program.statements) writer.statement(*s, 0);
  return writer.out;
}

} // namespace torvale::language
