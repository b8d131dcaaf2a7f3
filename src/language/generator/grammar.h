#pragma once
// The grammar as the generator holds it: symbols, productions, actions and option rows, read from the grammar file.

#include <map>
#include <string>
#include <vector>

namespace torvale::generator {

// One (routine, arguments) pair; productions share equal ones.
struct SemanticAction {
  std::string routine;
  std::vector<int> arguments;
  bool operator==(const SemanticAction&) const = default;
};

struct Production {
  int left = 0;           // nonterminal symbol
  std::vector<int> right; // symbols in order
  int action = -1;        // index into Grammar::actions, -1 none
  int line = 0;           // of the grammar file
};

// A value that an option takes; see the grammar file.
struct OptionValue {
  std::string kind; // number, count, number_or_missing, count_or_missing, integer, input, output, name, word, keep
  bool has_low = false, has_high = false;
  int low = 0, high = 0;
  int slot = 0;
  std::vector<std::pair<std::string, int>> words; // of word and keep: spelling and code
};

struct OptionRow {
  std::string nonterminal;          // option nonterminal of the table
  std::string statement;            // statement that the table belongs to
  std::vector<std::string> words;   // spellings, with the $ mark
  bool optional = false;            // "= value" may be left out
  std::vector<OptionValue> values;  // alternatives; empty for a flag
  std::vector<OptionValue> bracket; // zero or one
  std::vector<int> traces;          // trace classes
  std::vector<int> flags;
  std::string initial, meaning; // what holds without the option; what it does
};

// A slot that a statement fills itself.
struct Slot {
  std::string statement, name;
  int number = 0;
};

struct Grammar {
  // Symbols: 1..classes are token classes, then keywords in ASCII order, the end mark $$$ last; then nonterminals.
  std::vector<std::string> names; // by symbol number; [0] unused
  int classes = 0;
  int terminals = 0;                   // symbol number of $$$
  int goal = 0;                        // the nonterminal named by %goal
  std::vector<Production> productions; // [0] is the augmented one
  std::vector<SemanticAction> actions;
  std::map<std::string, int> routine_numbers;
  std::vector<char> prefer_shift; // by symbol
  std::vector<OptionRow> options;
  std::vector<Slot> slots; // of the statements themselves: %slots

  int symbols() const { return static_cast<int>(names.size()) - 1; }
  bool terminal(int s) const { return s <= terminals; }
};

// Reads a grammar; on a mistake prints it with its line and ends the program with code 1.
Grammar read_grammar(const std::string& path);

// LALR(1) tables. Per state the (symbol, entry) pairs in order of symbols: entry s > 0 goes to state s (shift or goto),
// entry -p reduces production p. A state that can only reduce one production has the single pair (0, -p): the parser
// reduces there without looking at the next token.
struct Tables {
  std::vector<std::vector<std::pair<int, int>>> rows;
  std::vector<std::string> conflicts; // those that no %prefer_shift covers
};
Tables make_tables(const Grammar& grammar);

// Gives the remaining actions their numbers and writes them as an enumeration.
void write_actions(Grammar& grammar, const std::string& path);
// Writes one enumeration per statement for its slots and one for its flags.
void write_statement_names(const Grammar& grammar, const std::string& path);
// Writes a highlighting grammar for editors.
void write_highlighting(const Grammar& grammar, const std::string& path);
// Writes PARSECONTROL's tables and the option rows.
void write_tables(const Grammar& grammar, const Tables& tables, const std::string& path);

} // namespace torvale::generator
