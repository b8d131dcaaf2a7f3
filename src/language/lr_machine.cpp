#include "language/lr_machine.h"

namespace torvale::language {

std::optional<int> LrMachine::entry(int state, int symbol) const
{
  const std::int16_t* pair = control_->prslst + control_->prsndx[state]; // symbol and entry, symbols ascending
  int pairs = (control_->prsndx[state + 1] - control_->prsndx[state]) / 2;
  if (pairs == 0) return {};
  while (pairs > 1) {
    const int half = pairs / 2;
    if (pair[2 * half] <= symbol) pair += 2 * half;
    pairs -= half;
  }
  if (pair[0] != symbol) return {};
  return pair[1];
}

int LrMachine::length(int production) const
{
  const std::int16_t* p = control_->prdlst + control_->prdndx[production];
  return p[0] - (p[0] > 0 && p[1] < 0 ? 1 : 0);
}

int LrMachine::action(int production) const
{
  const std::int16_t* p = control_->prdlst + control_->prdndx[production];
  return p[0] > 0 && p[1] < 0 ? -p[1] : 0;
}

int LrMachine::left_side(int production) const
{
  return control_->goaltoken + control_->lhstbl[production];
}

bool LrMachine::accepts(int terminal) const
{
  // A virtual stack: the lowest `base` real states, then `extra`.
  std::size_t base = states_.size();
  std::vector<std::int16_t>& extra = extra_;
  extra.clear();
  for (;;) {
    const int state = extra.empty() ? states_[base - 1] : extra.back();
    int production = 0;
    if (const auto only = forced(state)) {
      production = *only;
    } else {
      const auto next = entry(state, terminal);
      if (!next) return false;
      if (*next > 0) return true;
      production = -*next;
    }
    if (production == 0) return false; // the goal: no token follows
    for (int n = length(production); n > 0; --n) {
      if (extra.empty())
        --base;
      else
        extra.pop_back();
    }
    const int below = extra.empty() ? states_[base - 1] : extra.back();
    extra.push_back(static_cast<std::int16_t>(*entry(below, left_side(production))));
  }
}

void LrMachine::reduce(int production)
{
  if (production == 0) {
    accepted_ = true;
    return;
  }
  states_.resize(states_.size() - static_cast<std::size_t>(length(production)));
  states_.push_back(static_cast<std::int16_t>(*entry(top(), left_side(production))));
}

bool LrMachine::consume(int terminal)
{
  if (!accepts(terminal)) return false;
  for (;;) {
    if (const auto only = forced_reduction()) {
      reduce(*only);
      continue;
    }
    const int next = *entry(top(), terminal);
    if (next > 0) break;
    reduce(-next);
  }
  shift(terminal);
  settle();
  return true;
}

void LrMachine::settle()
{
  while (!accepted_)
    if (const auto only = forced_reduction())
      reduce(*only);
    else
      return;
}

void LrMachine::cut(std::size_t keep, int nonterminal)
{
  states_.resize(keep);
  states_.push_back(static_cast<std::int16_t>(*entry(top(), nonterminal)));
}

std::size_t LrMachine::find_goto(int nonterminal) const
{
  for (std::size_t keep = states_.size(); keep > 0; --keep)
    if (entry(states_[keep - 1], nonterminal)) return keep;
  return 0;
}

} // namespace torvale::language
