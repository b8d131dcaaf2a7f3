#pragma once
// From what happened in a step to the exit code of the command line.

namespace torvale::run {

// Exit codes, worst first: internal 1, command line 2, program 3, data 4, no valid start 7, no convergence 5, no
// covariance 6.
enum ExitCode : int {
  exit_clean = 0,
  exit_internal = 1,
  exit_command_line = 2,
  exit_program = 3,
  exit_data = 4,
  exit_not_converged = 5,
  exit_no_covariance = 6,
  exit_no_start = 7,
  exit_interrupted = 130,
};

// The one of two exit codes that a run with both reports: the first of 1, 2, 3, 4, 7, 5, 6, 0 that occurs.
int worse_exit(int a, int b);

} // namespace torvale::run
