#pragma once

#include "optimizer/minstr.h"

#include <vector>

namespace torvale::optimizer {

// The quasi-Newton matrix. Without constraints it is the factor L D L' of B (DUQUAN, DBLDOG) or the inverse H (QUANEW)
// in hess. With constraints hess holds the whole of B, updated with full steps, and hpro what the free space needs: the
// triangular factor of Z'BZ or its inverse, updated along and formed anew when the active set changes. So what has been
// learnt of B outlives a bound that comes or goes.
class SecantMatrix {
public:
  SecantMatrix(MINSTR* record, bool dual_form);

  // The start matrix: r I, or with INHESSIAN the metric of the caller, else the Hessian at x. Returns 0, -11 or -5 (no
  // ridge makes it definite).
  int start();

  // The start matrix r I, whatever INHESSIAN says.
  void start_anew();

  // Forms the part of the free space anew from B. Returns false when it is not definite.
  bool project();

  // sdir := -Z (Z'BZ)^-1 Z'grad.
  void direction();

  // v'Z'BZv for v of the free space. Only for the factored forms.
  double quadratic_form(const double* v);

  // Diagonal element i of B for the scaling of a trust region. Only without constraints, or from the whole of B.
  double diagonal(long i) const;

  // The caller's metric at x in place of the matrix, where that is to follow the run (`metric_follows`) and tells the
  // change of the gradient from xold to x clearly better. Before `update`. Only for the factored forms.
  void follow_metric();

  // Takes in the step from xold to x, which become s and y. Returns as an UpdateRoutine does.
  int update();

  // No update has been made since the start.
  bool is_start() const { return fresh; }

private:
  bool factor(long m);
  void invert_from_cholesky(long m);
  bool metric_of_caller();
  int start_from_hessian();
  int update_whole();
  int update_free(bool scale, double* step, double* change);
  void damp(double* step, double* change);
  void multiply(const double* v, double* r);
  double misses(const double* b, bool factored);

  MINSTR* str;
  long n;
  bool whole; // there are constraints: hess holds all of B
  bool dual;  // factored form
  bool fresh = true;
  int skipped = 0; // updates in succession that were refused
  double* matrix;
  double *s, *y, *w1, *w2, *w3;        // scratch in wrk2: n, n, n, 2n, 2n
  std::vector<double> kept, kept_part; // of follow_metric: hess, and hpro with constraints
};

} // namespace torvale::optimizer
