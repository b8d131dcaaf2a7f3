#pragma once

#include "optimizer/optimizer.h"

#include <memory>
#include <string>
#include <vector>

namespace torvale::test {

struct LinearRow {
  std::vector<double> coefficients;
  bool equality;
  double right_side;
};

struct ActiveConstraint {
  std::string name; // "x1 lower", "x2 upper", "linear 3"
  double multiplier;
};

// A problem of tests/data/optimization.json.
struct Problem {
  std::string name;
  std::string kind; // unconstrained, bounds, linear
  int n = 0;
  std::vector<double> start;
  std::vector<double> lower, upper; // empty: none
  std::vector<LinearRow> rows;      // a'x = b or a'x >= b, equalities first
  std::vector<int> row_number;      // the row's number in the file, from 1
  double minimum = 0.0;
  std::vector<double> minimizer;
  std::vector<double> local_minima; // other values that a correct method may reach
  std::vector<ActiveConstraint> active;
  double start_value = 0.0;
  std::vector<double> check_point;
  double check_value = 0.0;
  std::vector<double> check_gradient;
  int function = -1; // index into the table of objectives
  std::vector<std::vector<double>> data;

  double value(const double* x) const;
  void gradient(const double* x, double* g) const;
};

// All problems, read once.
const std::vector<Problem>& reference_problems();
const Problem& reference_problem(const std::string& name);

// How a reference problem is run.
struct RunOptions {
  int technique = 0;
  int update = 0;
  int line_search = 0;
  int difference = 0;    // FD
  int updates_scale = 0; // scaling of the start matrix for small problems too
  bool tight = true;     // criteria that do not stop early
  int hessian_scale = 0;
  double digits = 0.0;        // FDIGITS
  int hessian_difference = 0; // FDHESSIAN
};

struct RunResult {
  int code = 0;
  double f = 0.0;
  double gmax = 0.0;
  std::vector<double> x;
  long calls = 0;
  long gradients = 0;
  long iterations = 0;
  double worst_violation = 0.0; // of bounds, over all calls of the objective
  std::vector<double> multipliers;
};

RunResult run_problem(const Problem& problem, const RunOptions& options);

// True when f is the known minimum or a listed local one to `relative`, or to `absolute` when it is zero; or lower than
// a published minimum that is not known to be global.
bool solved(const Problem& problem, double f, double relative, double absolute = 1e-12);

} // namespace torvale::test
