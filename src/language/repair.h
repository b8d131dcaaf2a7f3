#pragma once
// Repair of a syntax error: the cheapest deletion or insertion after which the parse goes on. Tried out on copies of
// the parse states; no action runs.

#include "language/lr_machine.h"
#include "language/scanner.h"

#include <optional>
#include <string>
#include <vector>

namespace torvale::language {

struct RepairPlan {
  int cost = 0;
  int deleted = 0;           // tokens left out, from the wrong one on
  std::vector<int> inserted; // terminals put in their place
  std::string replacement;   // of a misspelled word: the keyword meant
};

class Repair {
public:
  Repair(const PARSECONTROL& control, Scanner& scanner) : control_(control), scanner_(scanner) {}

  // The cheapest repair at the wrong token, which begins at `begin`; nothing when none stays under the limit.
  std::optional<RepairPlan> find(const LrMachine& parse, const Cursor& begin, const Token& wrong);
  // The words that could stand at this place, for people: at most `most`, hidden spellings left out.
  // Some keyword that can stand here; 0 when none can.
  int first_keyword(const LrMachine& parse) const;
  std::vector<std::string> expected(const LrMachine& parse, std::size_t most = 8) const;
  // Where an operator, or an operand, can stand: so that messages need not name one of the many.
  bool takes_operator(const LrMachine& parse) const;
  bool takes_operand(const LrMachine& parse) const;
  // Where an option's word can stand, and no name.
  bool takes_options(const LrMachine& parse) const;
  // The keyword nearest to a misspelled word among those that could stand here; 0 none.
  int nearest_keyword(const LrMachine& parse, std::string_view word) const;
  // The keyword that a statement's first word was meant to be, with what follows it at `next`; 0 none.
  int meant_statement(const LrMachine& parse, const Cursor& next, std::string_view word);
  // How people read a terminal.
  std::string shown(int terminal) const;

private:
  void consider(const LrMachine& parse, const Cursor& from, RepairPlan plan);
  // Tokens that go through from here, at most `enough`; reaching the statement's end counts as enough.
  int tokens_that_follow(LrMachine parse, Cursor cursor, int enough);

  const PARSECONTROL& control_;
  Scanner& scanner_;
  std::optional<RepairPlan> best_;
  int best_rank_ = 0;
};

// Number of insertions, deletions, replacements and swaps of neighbours that turn a into b, at most `limit` + 1.
int edit_distance(std::string_view a, std::string_view b, int limit);

} // namespace torvale::language
