#include "matrix/cholesky.h"

#include <cmath>

#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

namespace torvale::matrix {

// Bordered form: row k of L solves L(0..k-1) r = a(k, 0..k-1), and the pivot is a(k, k) - r.r.
// Golub and Van Loan, Matrix Computations, 4th ed., section 4.2. Rows are contiguous in packed
// storage, and the caller may have its rows one at a time.
int zchol(int k, double* base, double tol)
{
  double* const row = base + packed_row(k);
  const double* li = base; // row i of L
  for (long i = 0; i < k; li += ++i) {
    const double s = row[i] - zvdot11(row, li, i);
    row[i] = li[i] == 0.0 ? 0.0 : s / li[i];
  }
  const double pivot = row[k] - zvdot11(row, row, k);
  if (!(pivot > tol)) {
    row[k] = 0.0;
    return 1;
  }
  row[k] = std::sqrt(pivot);
  return 0;
}

void zchol2(int k, const double* base, double* vec)
{
  const double* li = base;
  for (long i = 0; i < k; li += ++i) {
    const double s = vec[i] - zvdot11(li, vec, i);
    vec[i] = li[i] == 0.0 ? 0.0 : s / li[i];
  }
}

void zbaksub(int k, const double* m, double* v)
{
  for (long i = k - 1; i >= 0; --i) {
    const double* const li = m + packed_row(i);
    v[i] = li[i] == 0.0 ? 0.0 : v[i] / li[i];
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
