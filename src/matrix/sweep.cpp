#include "matrix/sweep.h"

#include <cmath>

#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

namespace torvale::matrix {

// With p = 1 / x(k,k) and o_j = x(j,k):
//     x(k,k) := p
//     x(j,k) := o_j p, with a minus when j is swept
//     x(i,j) -= o_i o_j p, but += when both i and j differ from k in being swept
// This is the symmetric sweep (Goodnight, A tutorial on the SWEEP operator, 1979) with the cross
// elements held as coefficients of the unswept by the swept, which is what makes it its own inverse.
int qkzsweep(double* x, int k, int n, char* df, double* w, double sing)
{
  double* const row = x + packed_row(k);
  const double pivot = row[k];
  const bool accepted = sing >= 0.0 ? pivot > sing : std::fabs(pivot) > -sing;
  if (!accepted) return 1;
  const double p = 1.0 / pivot;

  // Save the old row in w, leave the new one.
  double* element = row;
  for (long j = 0; j < n; ++j) {
    if (j > k)
      element += j; // the row walk bends at the diagonal
    else
      element = row + j;
    w[j] = *element;
    *element *= df[j] == '1' ? -p : p;
  }
  row[k] = p;
  w[k] = 0.0; // so that column k stays as it is

  // Rows of the same state as k lose o_i o_j p throughout; then, with o_j turned for the others,
  // the rows of the other state do.
  double* xi = x;
  for (long i = 0; i < n; xi += ++i)
    if (df[i] == df[k] && i != k) zvxay11(xi, w, i + 1, -(w[i] * p));
  for (long j = 0; j < n; ++j)
    if (df[j] != df[k]) w[j] = -w[j];
  xi = x;
  for (long i = 0; i < n; xi += ++i)
    if (df[i] != df[k]) zvxay11(xi, w, i + 1, w[i] * p);

  df[k] = df[k] == '1' ? '0' : '1';
  return 0;
}

int zsweep(double sing, double* a, int k, int dim, char* df, double* work)
{
  return qkzsweep(a, k, dim, df, work, sing);
}

} // namespace torvale::matrix
