#pragma once
// Inverse, Newton step and log determinant from the Hessian of a subject's joint log density, with a repair of a matrix
// that is not positive definite.

#include "host/values/missing.h"
#include "model/run_record.h"

#include <algorithm>
#include <cmath>

namespace torvale::modes {

// A pivot counts when it is above `singsweep` times the diagonal element it came from; below this floor the tolerance
// is absolute.
inline constexpr double pivot_floor = 1.491668147e-154;

// Smallest pivot of the tridiagonal form that counts as positive definite, relative to the largest diagonal:
// sqrt(2^-53).
inline constexpr double definite_bound = 1.053671212772351e-08;

// ridgmat: makes a packed symmetric matrix positive definite by a ridge on its diagonal (ridg ridge, mat matrix). Trial
// ridges are e, 5e, 21e, ... with e = eps times the largest diagonal element; the first that passes the tridiagonal
// test is applied with a factor 1.05. work: nr (nr + 1) / 2 + 3 nr doubles. Returns the ridge added, 0 when none was
// needed, or the missing value when the tridiagonal reduction would overflow (mat is then unchanged).
double ridgmat(double* mat, int n, double eps, double* work);

// chodect2: Cholesky recursion of a tridiagonal matrix (diagonal d, off-diagonal e[1..]) with pivots above bound; 0
// when it is positive definite, else 1. (cho Cholesky, dec decomposition, t tridiagonal.)
int chodect2(int n, const double* d, const double* e, double bound);

// InvertHessian: inverse and Newton step.
//   h      in/out  packed Hessian of order nr; on return its inverse
//   g      in/out  gradient; on return the Newton step H^-1 g
//   pivots out     nr: their product is det H; a pivot of a repaired matrix that still fails counts as 1
//   block  scratch hessumat, hessumat0, dfr, work1, work2, work3
// Returns 0; 1 when a repair failed (h and g are then unchanged).
int invert_by_sweeps(const model::RunOptions& options, int nr, double* h, double* g, double* pivots,
                     model::BlockWork& block);

// The same; orders 1 and 2 without pivot trouble in closed form. NR 0: the order is nr.
template <int NR>
int InvertHessian(const model::RunOptions& options, int nr, double* h, double* g, double* pivots,
                  model::BlockWork& block)
{
  if constexpr (NR == 1) {
    const double v = h[0];
    if (v > pivot_floor && v < 1.0 / pivot_floor) {
      pivots[0] = v;
      h[0] = 1.0 / v;
      g[0] *= h[0];
      return 0;
    }
  }
  if constexpr (NR == 2) {
    const double a = h[0], b = h[1], c = h[2];
    const double ratio = b / a, pivot = c - ratio * b;
    if (a > pivot_floor && c > pivot_floor && pivot > options.singsweep * c && a < 1e150 && c < 1e150) {
      pivots[0] = a;
      pivots[1] = pivot;
      const double i22 = 1.0 / pivot, i21 = -ratio * i22, i11 = 1.0 / a - ratio * i21;
      h[0] = i11;
      h[1] = i21;
      h[2] = i22;
      const double g0 = g[0], g1 = g[1];
      g[0] = i11 * g0 + i21 * g1;
      g[1] = i21 * g0 + i22 * g1;
      return 0;
    }
  }
  return invert_by_sweeps(options, nr, h, g, pivots, block);
}

// log det H from the pivots.
inline double log_determinant(int nr, const double* pivots)
{
  double sum = 0.0;
  for (int i = 0; i < nr; ++i) sum += std::log(std::abs(pivots[i]));
  return sum;
}

} // namespace torvale::modes
