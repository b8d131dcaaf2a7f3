#include "matrix/cholesky.h"

#include <cmath>

#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

namespace torvale::matrix {

namespace {

// Bordered form: row k of L solves L(0..k-1) r = a(k, 0..k-1), and the pivot is a(k, k) - r.r.
// Golub and Van Loan, Matrix Computations, 4th ed., section 4.2. Rows are contiguous in packed
// storage, and the caller may have its rows one at a time.
inline double solved_element(double s, double diagonal)
{
  return diagonal == 0.0 ? 0.0 : s / diagonal;
}

inline int close_row(double& pivot, double tol)
{
  if (!(pivot > tol)) {
    pivot = 0.0;
    return 1;
  }
  pivot = std::sqrt(pivot);
  return 0;
}

// Row k of a small factor, unrolled: at the orders of random effects the branches of short loops cost more
// than the arithmetic (measured at order 8: half the time).
template <long k> int short_row(double* base, double tol)
{
  double* const row = base + packed_row(k);
  double r[k + 1];
  double pivot = row[k];
#pragma GCC unroll 8
  for (long i = 0; i < k; ++i) {
    const double* const li = base + packed_row(i);
    double s = row[i];
#pragma GCC unroll 8
    for (long j = 0; j < i; ++j) s -= li[j] * r[j];
    r[i] = solved_element(s, li[i]);
    pivot -= r[i] * r[i];
  }
  for (long i = 0; i < k; ++i) row[i] = r[i];
  row[k] = pivot;
  return close_row(row[k], tol);
}

constexpr int (*short_rows[])(double*, double) = {short_row<0>, short_row<1>, short_row<2>, short_row<3>,
                                                  short_row<4>, short_row<5>, short_row<6>, short_row<7>};

} // namespace

int zchol(int k, double* base, double tol)
{
  if (k < 8) return short_rows[k](base, tol);
  double* const row = base + packed_row(k);
  const double* li = base; // row i of L
  for (long i = 0; i < k; li += ++i) row[i] = solved_element(row[i] - zvdot11(row, li, i), li[i]);
  row[k] -= zvdot11(row, row, k);
  return close_row(row[k], tol);
}

void zchol2(int k, const double* base, double* vec)
{
  const double* li = base;
  for (long i = 0; i < k; li += ++i) {
    vec[i] = solved_element(vec[i] - zvdot11(li, vec, i), li[i]);
  }
}

void zbaksub(int k, const double* m, double* v)
{
  for (long i = k - 1; i >= 0; --i) {
    const double* const li = m + packed_row(i);
    v[i] = solved_element(v[i], li[i]);
    zvxay11(v, li, i, -v[i]);
  }
}

// Gauss-Jordan on a triangle: step k replaces column k of the identity by column k of the inverse.
int zinvlo(double* a, int n, double* work, double singular)
{
  for (long k = 0; k < n; ++k) {
    double* const row = a + packed_row(k);
    const double diagonal = row[k];
    if (!(std::fabs(diagonal) > singular)) return 1;
    // work[0..k-1]: old row k.
    for (long j = 0; j < k; ++j) work[j] = row[j];
    for (long i = k + 1; i < n; ++i) {
      double* const ai = a + packed_row(i);
      ai[k] /= diagonal;
      zvxay11(ai, work, k, -ai[k]);
    }
    zvscl11(row, row, k, -1.0 / diagonal);
    row[k] = 1.0 / diagonal;
  }
  return 0;
}

} // namespace torvale::matrix
