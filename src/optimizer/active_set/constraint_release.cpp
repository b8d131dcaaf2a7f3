#include "optimizer/active_set/active_set.h"

#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

using matrix::packed_row;

bool is_inequality(const MINSTR& str, long c)
{
  return c < str.nvar ? str.iabc[c] == 1 || str.iabc[c] == -1 : c - str.nvar >= str.neqc;
}

// The threshold that a multiplier must pass downwards before its constraint is let go. Multipliers are not scaled: they
// are compared with gmax, the largest element of the projected gradient.
double drop_threshold(const MINSTR& str)
{
  if (!is_missing(str.deat) && str.deat > 0.0) return str.deat;
  double tau = free_dimension(str) == 0 ? unit_roundoff : 0.001 * str.gmax;
  tau = std::max(tau, 0.1 * str.agtl);
  return std::min(tau, 0.001);
}

bool wrong_sign(const MINSTR& str, long c, double threshold)
{
  return is_inequality(str, c) && str.lagm[c] < -threshold;
}

// The held constraint with the most negative multiplier, or the first one with a negative multiplier when `first` is
// set (Bland's rule, which cannot cycle); -1 when none passes the threshold.
long worst_constraint(const MINSTR& str, double threshold, bool first)
{
  long worst = -1;
  const long constraints = str.nvar + str.ncon;
  for (long c = 0; c < constraints; ++c) {
    if (!held(str, c) || !wrong_sign(str, c, threshold)) continue;
    if (worst < 0 || str.lagm[c] < str.lagm[worst]) worst = c;
    if (first) break;
  }
  return worst;
}

// Steepest descent in the free space, -Z Z'grad.
void projected_descent(MINSTR* str, double* d)
{
  znlpgmx(str);
  znlpvex(*str, str->gpro, d);
  for (long i = 0; i < str->nvar; ++i) d[i] = -d[i];
}

void note(MINSTR* str, long c, long sign)
{
  str->chac += sign;
  str->idac = str->idac == 0 ? sign * (c + 1) : 2147483647;
}

// Bounds alone: every parameter can leave its bound without regard to the others. The largest multiplier always goes,
// with it all that are wrong by ten times the threshold: one at a time costs an iteration each.
int drop_bounds(MINSTR* str)
{
  znlpglm(str);
  const double tau = drop_threshold(*str);
  const long worst = worst_constraint(*str, tau, false);
  if (worst < 0) return 0;
  int dropped = 0;
  for (long i = 0; i < str->nvar; ++i) {
    if (str->iabc[i] == 0 || (i != worst && !wrong_sign(*str, i, 10.0 * tau))) continue;
    release(str, i);
    note(str, i, -1);
    ++dropped;
  }
  return dropped;
}

// With linear rows one constraint goes at a time. When others that touch x block the way that opens, they are held in
// its place and the multipliers are looked at again: the pivots of a degenerate vertex. After n of them the first
// candidate is taken instead of the worst, so that the exchange ends.
int drop_rows(MINSTR* str)
{
  const long n = str->nvar;
  const long before = str->nabc + str->nalc;
  const long entry_change = str->chac, entry_index = str->idac;
  double* const d = str->awrk + 2 * n;
  for (long pivots = 0; pivots < 4 * (n + str->ncon); ++pivots) {
    znlpglm(str);
    const long c = worst_constraint(*str, drop_threshold(*str), pivots > n);
    if (c < 0) break;
    release(str, c);
    note(str, c, -1);
    str->nldc = str->nlbc = 0; // a row that depended on the released one is free to be held again
    projected_descent(str, d);
    bool blocked = false;
    while (free_dimension(*str) > 0 && znlpact(str, d) > 0) {
      blocked = true;
      projected_descent(str, d);
    }
    if (!blocked) break;
  }
  znlpgmx(str);
  const long dropped = before - (str->nabc + str->nalc);
  if (dropped == 0) {
    // What was exchanged at one point is no change that a convergence test should wait for.
    str->chac = entry_change;
    str->idac = entry_index;
  }
  return static_cast<int>(std::max(dropped, 0L));
}

} // namespace

void znlpglm(MINSTR* str)
{
  const long n = str->nvar;
  std::fill_n(str->lagm, n + str->ncon, 0.0);
  if (str->opro == 0) {
    for (long i = 0; i < n; ++i)
      if (str->iabc[i] != 0) str->lagm[i] = str->iabc[i] == -1 ? -str->grad[i] : str->grad[i];
    return;
  }
  // N lambda = g in the least squares sense: R lambda = Q1'g with R = L', from the last row back.
  const long k = str->nabc + str->nalc;
  double* const w = str->awrk + n;
  factor_coordinates(*str, str->grad, w);
  for (long j = k - 1; j >= 0; --j) {
    const double* const row = str->llcn + packed_row(j);
    w[j] /= row[j];
    matrix::zvxay11(w, row, j, -w[j]);
    str->lagm[str->iact[j]] = w[j];
  }
}

int znlpdac(MINSTR* str)
{
  if (str->nabc + str->nalc == 0) return 0;
  const int dropped = str->opro == 0 ? drop_bounds(str) : drop_rows(str);
  znlpgmx(str);
  return dropped;
}

} // namespace torvale::optimizer
