// Writes the tables as C++: torvale_actions.h (the routine numbers) and torvale_tables.cpp (PARSECONTROL and options).
#include "language/generator/grammar.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iostream>
#include <iterator>

namespace torvale::generator {

namespace {

constexpr int never = 127; // the cost of what is not inserted or deleted

int delete_cost(const std::string& name, bool is_class)
{
  static const char* const precious[] = {"NAMEX", "QS",   "INT",  "NBR",      "COMPOUND",
                                         "FMT",   "DATE", "TIME", "DATETIME", "MISSING"};
  if (is_class) return std::count(std::begin(precious), std::end(precious), name) > 0 ? 50 : 10;
  return name == "$$$" ? never : 10;
}

int insert_cost(const std::string& name, bool is_class)
{
  static const std::map<std::string, int> costs = {{"NAMEX", 1},     {"QS", 2},      {"INT", 2},   {"NBR", 4},
                                                   {"COMPOUND", 5},  {"FMT", 3},     {"DATE", 50}, {"TIME", 50},
                                                   {"DATETIME", 50}, {"MISSING", 50}};
  if (is_class) {
    const auto found = costs.find(name);
    return found == costs.end() ? 10 : found->second;
  }
  return name == "$$$" ? never : 10;
}

// The cheapest insertion of every symbol: its cost and the terminals.
struct Insertions {
  std::vector<int> cost;
  std::vector<std::vector<int>> text;
};

Insertions cheapest_insertions(const Grammar& g)
{
  constexpr int unknown = 1 << 20;
  Insertions best{std::vector<int>(g.names.size(), unknown), std::vector<std::vector<int>>(g.names.size())};
  for (int t = 1; t <= g.terminals; ++t) {
    best.cost[static_cast<std::size_t>(t)] = insert_cost(g.names[static_cast<std::size_t>(t)], t <= g.classes);
    best.text[static_cast<std::size_t>(t)] = {t};
  }
  for (bool changed = true; changed;) {
    changed = false;
    for (const Production& p : g.productions) {
      int cost = 0;
      for (int s : p.right) cost += best.cost[static_cast<std::size_t>(s)];
      if (cost >= best.cost[static_cast<std::size_t>(p.left)]) continue;
      std::vector<int> text;
      for (int s : p.right) {
        const auto& part = best.text[static_cast<std::size_t>(s)];
        text.insert(text.end(), part.begin(), part.end());
      }
      best.cost[static_cast<std::size_t>(p.left)] = cost;
      best.text[static_cast<std::size_t>(p.left)] = std::move(text);
      changed = true;
    }
  }
  return best;
}

class Writer {
public:
  explicit Writer(const std::string& path) : out_(path) {}
  template <class Items> void array(const char* type, const std::string& name, const Items& items)
  {
    out_ << "constexpr " << type << " " << name << "[] = {";
    int n = 0;
    for (const auto& i : items) out_ << (n++ % 20 == 0 ? "\n  " : " ") << i << ",";
    if (items.empty()) out_ << "0";
    out_ << "\n};\n";
  }
  std::ofstream out_;
};

std::string quoted(const std::string& text)
{
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

std::string value_text(const OptionValue& v, const std::string& words)
{
  return "{ValueKind::" + v.kind + ", " + std::to_string(v.slot) + ", " + (v.has_low ? "true" : "false") + ", " +
         (v.has_high ? "true" : "false") + ", " + std::to_string(v.low) + ", " + std::to_string(v.high) + ", " + words +
         "}";
}

void write_options(std::ofstream& out, const Grammar& g)
{
  std::string rows;
  const auto values = [&](const std::vector<OptionValue>& list, const std::string& name) -> std::string {
    if (list.empty()) return "{}";
    std::string text;
    for (std::size_t k = 0; k < list.size(); ++k) {
      std::string words = "{}";
      if (!list[k].words.empty()) {
        words = name + "_words_" + std::to_string(k);
        out << "constexpr OptionWord " << words << "[] = {";
        for (const auto& [spelling, code] : list[k].words) out << "{" << quoted(spelling) << ", " << code << "}, ";
        out << "};\n";
      }
      text += value_text(list[k], words) + ", ";
    }
    out << "constexpr OptionValue " << name << "[] = {" << text << "};\n";
    return name;
  };
  const auto numbers = [&](const std::vector<int>& list, const std::string& name) -> std::string {
    if (list.empty()) return "{}";
    out << "constexpr std::int16_t " << name << "[] = {";
    for (int n : list) out << n << ", ";
    out << "};\n";
    return name;
  };
  for (std::size_t i = 0; i < g.options.size(); ++i) {
    const OptionRow& row = g.options[i];
    const std::string name = "option_" + std::to_string(i);
    out << "constexpr std::string_view " << name << "_spellings[] = {";
    for (const auto& w : row.words) out << quoted(w) << ", ";
    out << "};\n";
    const std::string value_list = values(row.values, name + "_values"),
                      bracket = values(row.bracket, name + "_bracket");
    const std::string traces = numbers(row.traces, name + "_traces"), flags = numbers(row.flags, name + "_flags");
    rows += "  {" + quoted(row.statement) + ", " + name + "_spellings, " + (row.optional ? "true" : "false") + ", " +
            value_list + ", " + bracket + ", " + traces + ", " + flags + ", " + quoted(row.initial) + ", " +
            quoted(row.meaning) + "},\n";
  }
  out << "constexpr OptionRow all_options[] = {\n" << rows << "};\n";
}

} // namespace

namespace {

// Unchanged text leaves the file alone, so that nothing is compiled anew.
void write_if_different(const std::string& path, const std::string& text)
{
  std::ifstream before(path);
  if (before && std::string(std::istreambuf_iterator<char>(before), {}) == text) return;
  std::ofstream(path) << text;
}

// The name of an option in the sources: its first spelling that users may type in full.
std::string option_name(const OptionRow& row)
{
  const auto typed =
      std::find_if(row.words.begin(), row.words.end(), [](const std::string& w) { return w.back() != '$'; });
  std::string name;
  for (const char c : typed != row.words.end() ? *typed : row.words[0])
    if (c != '$') name += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return name;
}

using Names = std::map<int, std::string>; // by number

void add_option(const OptionRow& row, Names& slots, Names& flags)
{
  const std::string name = option_name(row);
  for (std::size_t k = 0; k < row.values.size(); ++k)
    slots.emplace(row.values[k].slot, k == 0 ? name : name + "_number");
  if (!row.bracket.empty()) slots.emplace(row.bracket[0].slot, name + "_count");
  if (row.flags.size() == 1) flags.emplace(row.flags[0], name); // several: they have options of their own
}

std::string enumeration(const std::string& name, const char* concept_name, const Names& names)
{
  if (names.empty()) return {};
  std::string out = "enum class " + name + " : int {\n";
  for (const auto& [number, word] : names) out += "  " + word + " = " + std::to_string(number) + ",\n";
  return out + "};\ntemplate <> inline constexpr bool " + concept_name + "<" + name + "> = true;\n";
}

// The cost of inserting each symbol; the strings of nonterminals, with their offsets.
struct InsertionTables {
  std::vector<int> cost, offset, text;
};

InsertionTables insertion_tables(const Grammar& g)
{
  InsertionTables out;
  const Insertions best = cheapest_insertions(g);
  for (int s = 1; s <= g.symbols(); ++s) {
    out.cost.push_back(std::min(best.cost[static_cast<std::size_t>(s)], never));
    if (g.terminal(s)) continue;
    out.offset.push_back(static_cast<int>(out.text.size()));
    // A nonterminal that costs more than any repair may has no string.
    const auto& text = best.text[static_cast<std::size_t>(s)];
    if (out.cost.back() >= never) {
      out.text.push_back(0);
      continue;
    }
    out.text.push_back(static_cast<int>(text.size()));
    out.text.insert(out.text.end(), text.begin(), text.end());
  }
  return out;
}

} // namespace

void write_statement_names(const Grammar& g, const std::string& path)
{
  std::map<std::string, std::pair<Names, Names>> statements;
  for (const Slot& s : g.slots) statements[s.statement].first.emplace(s.number, s.name);
  for (const OptionRow& row : g.options) {
    auto& [slots, flags] = statements[row.statement];
    add_option(row, slots, flags);
  }
  std::string out = "#pragma once\n// Made from torvale.grammar: the slots and flags of each statement by name.\n"
                    "#include \"syntax/records.h\"\n\nnamespace torvale::syntax {\n";
  for (const auto& [statement, names] : statements) {
    std::string prefix = statement;
    for (char& c : prefix) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    out += enumeration(prefix + "_slot", "names_slot", names.first);
    out += enumeration(prefix + "_flag", "names_flag", names.second);
  }
  write_if_different(path, out + "}\n");
}

// Routine numbers: those that the grammar fixes; the others count from 100 in order of appearance.
void write_actions(Grammar& g, const std::string& path)
{
  std::string fixed;
  for (const auto& [name, number] : g.routine_numbers)
    fixed += (fixed.empty() ? "action == Action::" : " || action == Action::") + name;
  int next = 100;
  for (const SemanticAction& a : g.actions)
    if (!g.routine_numbers.count(a.routine)) g.routine_numbers[a.routine] = next++;
  std::string list, names;
  for (const auto& [name, number] : g.routine_numbers) {
    list += "  " + name + " = " + std::to_string(number) + ",\n";
    names += " X(" + name + ")";
  }
  write_if_different(path, "#pragma once\n// Made from torvale.grammar: the semantic actions.\n"
                           "namespace torvale::language {\nenum class Action : int {\n" +
                               list +
                               "};\n// Those that the procedure carries out.\n"
                               "constexpr bool for_procedure(Action action)\n{\n  return " +
                               fixed +
                               ";\n}\n}\n"
                               "// All of them, for tables.\n#define TORVALE_ACTIONS(X)" +
                               names + "\n");
}

void write_tables(const Grammar& g, const Tables& tables, const std::string& path)
{
  Writer w(path);
  w.out_ << "// Made from torvale.grammar.\n#include \"language/grammar.h\"\n\nnamespace torvale::language "
            "{\nnamespace {\n";
  std::vector<int> prdlst, prdndx, lhs, prslst, prsndx, actmap, argndx, argtbl, symndx, symmap, del;
  const int first_nonterminal = g.terminals + 1;
  for (const Production& p : g.productions) {
    prdndx.push_back(static_cast<int>(prdlst.size()));
    prdlst.push_back(static_cast<int>(p.right.size()) + (p.action >= 0 ? 1 : 0));
    if (p.action >= 0) prdlst.push_back(-(p.action + 1));
    prdlst.insert(prdlst.end(), p.right.rbegin(), p.right.rend());
    lhs.push_back(p.left - first_nonterminal);
  }
  for (const auto& row : tables.rows) {
    prsndx.push_back(static_cast<int>(prslst.size()));
    for (const auto& [symbol, entry] : row) {
      prslst.push_back(symbol);
      prslst.push_back(entry);
    }
  }
  prsndx.push_back(static_cast<int>(prslst.size()));
  for (const SemanticAction& a : g.actions) {
    actmap.push_back(g.routine_numbers.at(a.routine));
    argndx.push_back(a.arguments.empty() ? -1 : static_cast<int>(argtbl.size()));
    if (a.arguments.empty()) continue;
    argtbl.push_back(static_cast<int>(a.arguments.size()));
    argtbl.insert(argtbl.end(), a.arguments.begin(), a.arguments.end());
  }
  std::string spellings;
  for (int t = 1; t <= g.terminals; ++t) {
    const std::string& name = g.names[static_cast<std::size_t>(t)];
    symndx.push_back(static_cast<int>(spellings.size()));
    symmap.push_back(t);
    spellings += static_cast<char>(name.size());
    spellings += name;
    del.push_back(delete_cost(name, t <= g.classes));
  }
  const auto [ins, insndx, instbl] = insertion_tables(g);
  w.array("std::int16_t", "prdlst", prdlst);
  w.array("std::int16_t", "prdndx", prdndx);
  w.array("std::int16_t", "lhstbl", lhs);
  w.array("std::int16_t", "prslst", prslst);
  w.array("std::int32_t", "prsndx", prsndx);
  w.array("std::int16_t", "actmap", actmap);
  w.array("std::int16_t", "argndx", argndx);
  w.array("std::int16_t", "argtbl", argtbl);
  std::vector<int> bytes(spellings.begin(), spellings.end());
  w.array("char", "symtbl", bytes);
  w.array("std::int16_t", "symndx", symndx);
  w.array("std::int16_t", "symmap", symmap);
  w.array("std::uint8_t", "delcost", del);
  w.array("std::uint8_t", "inscost", ins);
  w.array("std::int16_t", "insndx", insndx);
  w.array("std::int16_t", "instbl", instbl);
  std::vector<std::string> names;
  for (int s = first_nonterminal; s <= g.symbols(); ++s) names.push_back(quoted(g.names[static_cast<std::size_t>(s)]));
  w.array("std::string_view", "nonterminals", names);
  write_options(w.out_, g);
  w.out_ << "} // namespace\n\nPARSECONTROL tvlg()\n{\n  return {1, " << first_nonterminal << ", " << g.terminals
         << ", " << prslst.size()
         << ", prdlst, prdndx, lhstbl, prslst, prsndx, actmap, argndx, argtbl, symtbl, symndx, symmap,\n          "
            "delcost, inscost, insndx, instbl, "
         << never << ", 63, " << instbl.size() << ", nullptr, nullptr, false, " << g.productions.size() << ", "
         << tables.rows.size() << ", " << g.classes
         << "};\n}\n\nstd::span<const OptionRow> option_rows() { return all_options; }\n"
         << "std::string_view nonterminal_name(int index) { return nonterminals[index]; }\n\n} // namespace "
            "torvale::language\n";
}

} // namespace torvale::generator
