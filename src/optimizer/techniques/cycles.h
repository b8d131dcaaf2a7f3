#pragma once

#include "optimizer/active_set/active_set.h"
#include "optimizer/techniques/technique.h"

namespace torvale::optimizer {

// What an iteration returns to have its technique start anew from the present point; beyond all termination codes.
inline constexpr int restart_cycle = 1000;

// run_cycles: the frame of every technique that starts anew now and then: cycles from a start section to a result.
//
//   technique.start(first)  what it needs at x (a matrix, a model, a direction); 0 or a termination code
//   technique.iteration()   0 to go on, restart_cycle, or a code
//
// A cycle that restarts without having accepted a step would take the same steps again: that is "no progress". A code
// of 100, from the optimality check or because the active set left no direction, begins a cycle in any case, but not
// for ever: constraints that are held and released by turns, without a step, are no progress either.
template <class Technique> int run_cycles(MINSTR* str, Technique& technique)
{
  if (const int rc = begin_technique(str, true); rc != 0) return rc;
  const long most_idle = 2 * (str->nvar + str->ncon) + 2;
  long idle = 0; // cycles in a row that took no step
  for (bool first = true, reported = false;; first = false) {
    begin_cycle(str);
    znlpgmx(str);
    if (constrained(*str)) znlpdac(str);
    const double iterations = str->nitr;
    int code = technique.start(first);
    const bool all_held = free_dimension(*str) == 0;
    if (code == 0 && (!reported || all_held)) {
      reported = true;
      code = test_termination(str, all_held ? 1 : 10);
    }
    while (code == 0) code = technique.iteration();
    if (code == restart_cycle && str->nitr > iterations) continue;
    if (code != code_reenter) code = end_technique(str, code == restart_cycle ? code_no_progress : code);
    if (code != code_reenter) return code;
    idle = str->nitr > iterations ? 0 : idle + 1;
    if (idle > most_idle) {
      code = end_technique(str, code_no_progress);
      return code == code_reenter ? static_cast<int>(code_no_progress) : code;
    }
  }
}

} // namespace torvale::optimizer
