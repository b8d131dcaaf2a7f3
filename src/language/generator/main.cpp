// make_grammar_tables GRAMMAR ACTIONS.h NAMES.h TABLES.cpp HIGHLIGHTING.json: the build step that turns the grammar
// into the parser's tables, the names of slots and flags, and a grammar for editors. Every conflict that the grammar
// does not settle is an error.
#include "language/generator/grammar.h"

#include <iostream>

int main(int argc, char** argv)
{
  using namespace torvale::generator;
  if (argc != 6) {
    std::cerr << "usage: make_grammar_tables GRAMMAR ACTIONS.h NAMES.h TABLES.cpp HIGHLIGHTING.json\n";
    return 2;
  }
  Grammar grammar = read_grammar(argv[1]);
  const Tables tables = make_tables(grammar);
  if (!tables.conflicts.empty()) {
    for (const auto& c : tables.conflicts) std::cerr << c << "\n";
    std::cerr << tables.conflicts.size() << " conflicts\n";
    return 1;
  }
  // Entries are 16 bits wide.
  if (tables.rows.size() > 32767 || grammar.productions.size() > 32767) return 1;
  write_actions(grammar, argv[2]);
  write_statement_names(grammar, argv[3]);
  write_tables(grammar, tables, argv[4]);
  write_highlighting(grammar, argv[5]);
  return 0;
}
