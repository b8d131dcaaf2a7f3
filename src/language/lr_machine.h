#pragma once
// The states of a parse: interprets the tables of PARSECONTROL. Copies are cheap, so that a repair can be tried out on
// one.

#include "language/grammar.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace torvale::language {

class LrMachine {
public:
  explicit LrMachine(const PARSECONTROL& control) : control_(&control)
  {
    // The goal is the end mark followed by the top nonterminal: the mark is shifted before the first token.
    states_ = {0};
    states_.push_back(static_cast<std::int16_t>(*entry(0, control.maxterminal)));
  }

  int top() const { return states_.back(); }
  std::size_t depth() const { return states_.size(); }
  // The entry of a state for a symbol; nothing when there is none.
  std::optional<int> entry(int state, int symbol) const;
  // The one production of a state that reduces whatever comes next; nothing when the state looks at a token.
  std::optional<int> forced_reduction() const { return forced(states_.back()); }
  // Would this terminal be shifted, after whatever reductions? Exact: follows the reductions on this stack.
  bool accepts(int terminal) const;
  // True when the goal has been reached: nothing more to read.
  bool accepted() const { return accepted_; }

  int length(int production) const;    // symbols on the right-hand side
  int action(int production) const;    // its action from 1, or 0
  int left_side(int production) const; // symbol number
  void shift(int terminal) { states_.push_back(static_cast<std::int16_t>(*entry(top(), terminal))); }
  void reduce(int production);
  void mark_accepted() { accepted_ = true; }
  // Reduces and shifts without semantic actions, as far as needed. False when the terminal cannot be shifted.
  bool consume(int terminal);
  // Runs reductions that need no token, without semantic actions.
  void settle();
  // Takes back the last shift; nothing may have been reduced since.
  void unshift() { states_.pop_back(); }
  // Drops states until `keep` are left, then goes on with a nonterminal.
  void cut(std::size_t keep, int nonterminal);
  // The deepest stack size whose top state can go on with the nonterminal; 0 when none.
  std::size_t find_goto(int nonterminal) const;

private:
  std::optional<int> forced(int state) const
  {
    const std::int16_t* row = control_->prslst + control_->prsndx[state];
    if (row[0] != 0) return {};
    return -row[1];
  }
  const PARSECONTROL* control_;
  std::vector<std::int16_t> states_;
  mutable std::vector<std::int16_t> extra_; // of accepts, kept to save allocations
  bool accepted_ = false;
};

} // namespace torvale::language
