#pragma once

#include <utility>

// Storage. Indices start at zero; matrices are plain arrays of doubles without a descriptor.
//
//   dense     row-major, rows contiguous; the leading dimension is the number of columns unless a
//             stride says otherwise
//   packed    lower triangle by rows: element (i, j), j <= i, at i(i+1)/2 + j
//
//                 0                     a(0,0)
//                 1  2                  a(1,0) a(1,1)
//                 3  4  5               a(2,0) a(2,1) a(2,2)
//                 6  7  8  9            a(3,0) a(3,1) a(3,2) a(3,3)
//
//             A symmetric matrix reads (i, j) with j > i as (j, i); a triangular one has zeros there.
//             A factor replaces its matrix in the same layout.
//
// Row walk of a packed symmetric matrix (letter s in kernel names): row j is contiguous up to the
// diagonal; beyond it the step from element i-1 to element i is i places.
// Column walk of a packed triangle (letters t, l): from the diagonal (j, j) the next element
// (i, j) is i places further.
namespace torvale::matrix {

// Index of the first element of row i, which is also the number of elements of order i.
constexpr long packed_row(long i)
{
  return i * (i + 1) / 2;
}

// Number of elements of a packed matrix of order n; 0 for n below 1.
constexpr long packed_size(long n)
{
  return n < 1 ? 0 : packed_row(n);
}

// Index of the diagonal element of row i.
constexpr long packed_diagonal(long i)
{
  return i * (i + 3) / 2;
}

// Index of element (i, j) of a symmetric matrix, in either order.
constexpr long packed_index(long i, long j)
{
  return i < j ? packed_row(j) + i : packed_row(i) + j;
}

// zmxun: unpack an index. The pair (i, j) that stands at packed index ij; (0, 0) for ij below 1.
void zmxun(int ij, int* toI, int* toJ);

// zmmovsr: move symmetric to rectangular. rec (n x n dense) := the full matrix of packed sym.
void zmmovsr(const double* sym, double* rec, int n);

// zmmovrs: move rectangular to symmetric. Rows nlo..nhi (both included) of the lower triangle of
// rec, dense of width n, go to their places in packed sym.
void zmmovrs(const double* rec, double* sym, int nlo, int nhi, int n);

// Exchanges rows and columns p < q of the leading (q+1) x (q+1) block of a packed symmetric matrix.
inline void exchange_within_leading_block(double* a, long p, long q)
{
  double* const row_p = a + packed_row(p);
  double* const row_q = a + packed_row(q);
  for (long i = 0; i < p; ++i) std::swap(row_p[i], row_q[i]);
  std::swap(row_p[p], row_q[q]);
  for (long i = p + 1; i < q; ++i) std::swap(a[packed_row(i) + p], row_q[i]);
}

} // namespace torvale::matrix
