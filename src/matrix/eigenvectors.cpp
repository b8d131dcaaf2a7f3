#include <algorithm>
#include <cmath>
#include <utility>

#include "matrix/constants.h"
#include "matrix/eigenvalues.h"
#include "matrix/vector_kernels.h"

namespace torvale::matrix {

namespace {

// The routines below go down columns, and a dense matrix is stored by rows: they work on the transpose, so that what
// they go down is contiguous.
void transpose(long n, double* z)
{
  constexpr long tile = 16; // both tiles stay in the first-level cache
  for (long rows = 0; rows < n; rows += tile)
    for (long columns = 0; columns <= rows; columns += tile)
      for (long i = rows; i < std::min(rows + tile, n); ++i)
        for (long j = columns; j < std::min(columns + tile, i); ++j) std::swap(z[i * n + j], z[j * n + i]);
}

// Householder step i of the reduction: column i of z (rows 0..i-1) becomes (0, ..., 0, e[i]). d and e are n-vectors in
// work: on entry d holds the column, on return d is the reflection's vector, d[i] half its squared norm.
void reduce_column(long n, double* z, double* d, double* e, long i)
{
  const double scale = zvasumj(d, 1, i);
  if (scale == 0.0) {
    e[i] = d[i - 1];
    for (long j = 0; j < i; ++j) {
      d[j] = z[j * n + i - 1];
      z[j * n + i] = z[i * n + j] = 0.0;
    }
    d[i] = 0.0;
    return;
  }
  for (long k = 0; k < i; ++k) d[k] /= scale;
  double h = zvdot11(d, d, i);
  const double f = d[i - 1];
  const double g = -std::copysign(std::sqrt(h), f);
  e[i] = scale * g;
  h -= f * g;
  d[i - 1] = f - g;

  // e := A u / h - (u'A u / 2 h^2) u; then A -= u e' + e u'. Element (k, j) of the lower triangle of A is z[j n + k].
  std::fill_n(e, i, 0.0);
  for (long j = 0; j < i; ++j) {
    double* const column = z + j * n;
    z[i * n + j] = d[j];
    const double uj = d[j];
    e[j] += column[j] * uj + zvdot11(column + j + 1, d + j + 1, i - j - 1);
    zvxay11(e + j + 1, column + j + 1, i - j - 1, uj);
  }
  for (long j = 0; j < i; ++j) e[j] /= h;
  const double half = zvdot11(e, d, i) / (h + h);
  zvxay11(e, d, i, -half);
  for (long j = 0; j < i; ++j) {
    double* const column = z + j * n;
    const double uj = d[j], qj = e[j];
    for (long k = j; k < i; ++k) column[k] -= uj * e[k] + qj * d[k];
    d[j] = column[i - 1];
    column[i] = 0.0;
  }
  d[i] = h;
}

} // namespace

void ztred2(int n, double* z, double* d, double* e)
{
  if (n < 1) return;
  const long order = n;
  const long last = order - 1;
  transpose(order, z); // the lower triangle is given: it is what the columns hold now
  for (long k = 0; k < order; ++k) d[k] = z[k * order + last];
  for (long i = last; i > 0; --i) reduce_column(order, z, d, e, i);

  // Multiplies the reflections together; row i + 1 of the transpose holds vector i.
  for (long i = 0; i < last; ++i) {
    double* const reflection = z + (i + 1) * order;
    z[i * order + last] = z[i * order + i];
    z[i * order + i] = 1.0;
    const double h = d[i + 1];
    if (h != 0.0) {
      for (long k = 0; k <= i; ++k) d[k] = reflection[k] / h;
      for (long j = 0; j <= i; ++j) {
        double* const column = z + j * order;
        zvxay11(column, d, i + 1, -zvdot11(reflection, column, i + 1));
      }
    }
    std::fill_n(reflection, i + 1, 0.0);
  }
  for (long j = 0; j < order; ++j) {
    d[j] = z[j * order + last];
    z[j * order + last] = 0.0;
  }
  z[last * order + last] = 1.0;
  e[0] = 0.0;
  transpose(order, z);
}

namespace {

// (a, b) := (c a + s b, c b - s a), elementwise.
void rotate(long n, double* __restrict a, double* __restrict b, double c, double s)
{
  for (long k = 0; k < n; ++k) {
    const double u = a[k], v = b[k];
    a[k] = c * u + s * v;
    b[k] = c * v - s * u;
  }
}

// The iteration; row j of z becomes the eigenvector of d[j].
int iterate(int n, double* z, double* d, double* e, int evbit)
{
  constexpr int most_sweeps = 50;
  for (int i = 1; i < n; ++i) e[i - 1] = e[i];
  if (n > 0) e[n - 1] = 0.0;

  double shift = 0.0;
  double scale = 0.0; // running maximum of |d| + |e|
  for (int l = 0; l < n; ++l) {
    scale = std::max(scale, std::fabs(d[l]) + std::fabs(e[l]));
    int m = l;
    while (m < n - 1 && !(std::fabs(e[m]) <= eps * scale)) ++m;
    for (int sweep = 0; m > l; ++sweep) {
      if (sweep == most_sweeps) return -1 - l;
      // Shift by the eigenvalue of the leading 2x2 that is nearer to d[l].
      const double g = d[l];
      const double p0 = (d[l + 1] - g) / (2.0 * e[l]);
      const double r0 = std::copysign(std::hypot(p0, 1.0), p0);
      d[l] = e[l] / (p0 + r0);
      d[l + 1] = e[l] * (p0 + r0);
      const double h0 = g - d[l];
      for (int i = l + 2; i < n; ++i) d[i] -= h0;
      shift += h0;

      double p = d[m];
      double c = 1.0;
      double c2 = 1.0;
      double c3 = 1.0;
      const double el1 = e[l + 1];
      double s = 0.0;
      double s2 = 0.0;
      for (int i = m - 1; i >= l; --i) {
        c3 = c2;
        c2 = c;
        s2 = s;
        const double ce = c * e[i];
        const double h = c * p;
        const double r = std::hypot(p, e[i]);
        e[i + 1] = s * r;
        s = e[i] / r;
        c = p / r;
        p = c * d[i] - s * ce;
        d[i + 1] = h + s * (c * ce + s * d[i]);
        if (evbit != 0) rotate(n, z + (i + 1L) * n, z + static_cast<long>(i) * n, c, s);
      }
      // e[l] over the old d[l+1] is 1 / (p0 + r0), which cannot overflow.
      p = -s * s2 * c3 * el1 / (p0 + r0);
      e[l] = s * p;
      d[l] = c * p;
      if (std::fabs(e[l]) <= eps * scale) break;
    }
    d[l] += shift;
    e[l] = 0.0;
  }

  for (int i = 0; i < n - 1; ++i) {
    const int top = static_cast<int>(std::max_element(d + i, d + n) - d);
    if (top == i) continue;
    std::swap(d[i], d[top]);
    if (evbit != 0) std::swap_ranges(z + static_cast<long>(i) * n, z + (i + 1L) * n, z + static_cast<long>(top) * n);
  }
  return 0;
}

} // namespace

int ztql2(int n, double* z, double* d, double* e, int evbit)
{
  if (evbit != 0) transpose(n, z);
  const int rc = iterate(n, z, d, e, evbit);
  if (evbit != 0) transpose(n, z);
  return rc;
}

} // namespace torvale::matrix
