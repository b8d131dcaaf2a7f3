#include "matrix/orthogonal.h"
#include "matrix/packed.h"

namespace torvale::matrix {

namespace {

// One right-hand side, solved in place.
struct RightHandSide {
  double* x;
  long inc;
  double& operator[](long i) const { return x[i * inc]; }
};

// Substitution with the triangle whose element (i, j) is at(i, j), upper or lower; diagonal replaces
// its diagonal when not null. Returns the number of zero diagonals.
template <class Element> int substitute(long n, bool upper, Element at, const double* diagonal, RightHandSide x)
{
  int zeros = 0;
  for (long step = 0; step < n; ++step) {
    const long i = upper ? n - 1 - step : step;
    const long first = upper ? i + 1 : 0;
    const long end = upper ? n : i;
    double s = x[i];
    for (long j = first; j < end; ++j) s -= at(i, j) * x[j];
    const double d = diagonal != nullptr ? diagonal[i] : at(i, i);
    zeros += d == 0.0 ? 1 : 0;
    x[i] = d == 0.0 ? 0.0 : s / d;
  }
  return zeros;
}

// The eight forms: four storages, as they are (odd) or transposed (even).
int substitute_form(int form, long n, long inc, const double* u, const double* diagonal, RightHandSide x)
{
  const auto dense = [u, inc](long i, long j) { return u[i * inc + j]; };
  const auto dense_t = [u, inc](long i, long j) { return u[j * inc + i]; };
  const auto by_rows = [u, n](long i, long j) { return u[i * (2 * n - i - 1) / 2 + j]; };
  const auto by_rows_t = [u, n](long i, long j) { return u[j * (2 * n - j - 1) / 2 + i]; };
  const auto by_columns = [u](long i, long j) { return u[packed_row(j) + i]; };
  const auto by_columns_t = [u](long i, long j) { return u[packed_row(i) + j]; };
  switch (form) {
  case 1:
    return substitute(n, true, dense, diagonal, x);
  case 2:
    return substitute(n, false, dense_t, diagonal, x);
  case 3:
    return substitute(n, false, dense, diagonal, x);
  case 4:
    return substitute(n, true, dense_t, diagonal, x);
  case 5:
    return substitute(n, true, by_rows, diagonal, x);
  case 6:
    return substitute(n, false, by_rows_t, diagonal, x);
  case 7:
    return substitute(n, true, by_columns, diagonal, x);
  default:
    return substitute(n, false, by_columns_t, diagonal, x);
  }
}

} // namespace

int zqrsol(int job, int n, int p, int incu, int incb, int incx, const int* ipiv, const double* u, const double* b,
           double* x, const double* alfa, double* h)
{
  const bool rows = job > 10; // the right-hand sides are rows
  const int form = rows ? job - 10 : job;
  if (form < 1 || form > 8) return -1;
  if (n < 1 || p < 1) return 0;
  const bool transposed = form % 2 == 0;
  const long contiguous = rows ? n : p;
  const long inc_b = incb == 0 ? contiguous : incb;
  const long inc_x = incx == 0 ? contiguous : incx;
  const long step_b = rows ? 1 : inc_b;

  int zeros = 0;
  for (long c = 0; c < p; ++c) {
    const double* const from = b + (rows ? c * inc_b : c);
    const RightHandSide to = {x + (rows ? c * inc_x : c), rows ? 1 : inc_x};
    if (ipiv != nullptr && transposed) {
      for (long i = 0; i < n; ++i) h[i] = from[ipiv[i] * step_b];
      for (long i = 0; i < n; ++i) to[i] = h[i];
    } else if (from != to.x) {
      for (long i = 0; i < n; ++i) to[i] = from[i * step_b];
    }
    zeros += substitute_form(form, n, incu == 0 ? n : incu, u, alfa, to);
    if (ipiv != nullptr && !transposed) {
      for (long i = 0; i < n; ++i) h[i] = to[i];
      for (long i = 0; i < n; ++i) to[ipiv[i]] = h[i];
    }
  }
  return zeros / p;
}

} // namespace torvale::matrix
