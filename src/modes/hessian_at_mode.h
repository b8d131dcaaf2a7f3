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

// invert_definite: the same of order NR, 1 to 3, for matrices without pivot trouble; T: double, or a vector of them
// with a matrix in each place. Returns in which places it is a matrix of that kind; h and g of others are of no use
// then.
template <int NR, class T> auto invert_definite(const model::RunOptions& options, T* h, T* g, T* pivots)
{
  if constexpr (NR == 1) {
    const T v = h[0];
    pivots[0] = v;
    h[0] = 1.0 / v;
    g[0] *= h[0];
    return (v > pivot_floor) & (v < 1.0 / pivot_floor);
  } else {
    // H = U D U' with the pivots D; row by row U, then its inverse, in the same place.
    constexpr double largest = 1e150;
    const auto at = [](int i, int j) { return i * (i + 1) / 2 + j; };
    T unit[NR * (NR + 1) / 2], own[NR]; // own: inverse pivots
    pivots[0] = h[0];
    own[0] = 1.0 / h[0];
    auto fits = (h[0] > pivot_floor) & (h[0] < largest);
    for (int i = 1; i < NR; ++i) {
      T pivot = h[at(i, i)];
      fits = fits & (pivot > pivot_floor) & (pivot < largest);
      T scaled[NR]; // row i of U D
      for (int j = 0; j < i; ++j) {
        scaled[j] = h[at(i, j)];
        for (int k = 0; k < j; ++k) scaled[j] -= scaled[k] * unit[at(j, k)];
        unit[at(i, j)] = scaled[j] * own[j];
        pivot -= unit[at(i, j)] * scaled[j];
      }
      fits = fits & (pivot > options.singsweep * h[at(i, i)]);
      pivots[i] = pivot;
      own[i] = 1.0 / pivot;
    }
    T inverse[NR * (NR + 1) / 2]; // of U, below its diagonal of ones
    for (int i = 1; i < NR; ++i)
      for (int j = 0; j < i; ++j) {
        T t = -unit[at(i, j)];
        for (int k = j + 1; k < i; ++k) t -= unit[at(i, k)] * inverse[at(k, j)];
        inverse[at(i, j)] = t;
      }
    for (int i = 0; i < NR; ++i)
      for (int j = 0; j <= i; ++j) {
        T t = i == j ? own[i] : inverse[at(i, j)] * own[i];
        for (int k = i + 1; k < NR; ++k) t += inverse[at(k, i)] * (inverse[at(k, j)] * own[k]);
        h[at(i, j)] = t;
      }
    T step[NR];
    for (int i = 0; i < NR; ++i) {
      step[i] = T{};
      for (int k = 0; k < NR; ++k) step[i] += h[i < k ? at(k, i) : at(i, k)] * g[k];
    }
    for (int i = 0; i < NR; ++i) g[i] = step[i];
    return fits;
  }
}

// The same of any order (NR, or nr when NR is 0), for any matrix.
template <int NR>
int InvertHessian(const model::RunOptions& options, int nr, double* h, double* g, double* pivots,
                  model::BlockWork& block)
{
  if constexpr (NR > 0) {
    double inverse[NR * (NR + 1) / 2], step[NR];
    std::copy_n(h, NR * (NR + 1) / 2, inverse);
    std::copy_n(g, NR, step);
    if (invert_definite<NR>(options, inverse, step, pivots)) {
      std::copy_n(inverse, NR * (NR + 1) / 2, h);
      std::copy_n(step, NR, g);
      return 0;
    }
  }
  return invert_by_sweeps(options, nr, h, g, pivots, block);
}

// log det H from the pivots, which are `apart` doubles apart.
inline double log_determinant(int nr, const double* pivots, int apart = 1)
{
  double sum = 0.0;
  for (int i = 0; i < nr; ++i) sum += std::log(std::abs(pivots[i * apart]));
  return sum;
}

} // namespace torvale::modes
