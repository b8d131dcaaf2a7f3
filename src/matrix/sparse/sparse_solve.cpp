#include <algorithm>

#include "matrix/packed.h"
#include "matrix/sparse/sparse_cholesky.h"

namespace torvale::matrix {

namespace {

// b[i step] of the right-hand side to work in elimination order, and back.
void gather(int n, const int* perm, const double* b, long step, double* work)
{
  for (int k = 0; k < n; ++k) work[k] = b[perm[k] * step];
}

void spread(int n, const int* perm, const double* work, double* b, long step)
{
  for (int k = 0; k < n; ++k) b[perm[k] * step] = work[k];
}

void solve_lower(int n, const int* ju, const double* u, double* x)
{
  const int* const columns = ju + n + 1;
  for (int k = 0; k < n; ++k) {
    const int diagonal = ju[k + 1] - 1;
    double s = x[k];
    for (int t = ju[k]; t < diagonal; ++t) s -= u[t] * x[columns[t]];
    x[k] = u[diagonal] == 0.0 ? 0.0 : s / u[diagonal];
  }
}

void solve_upper(int n, const int* ju, const double* u, double* x)
{
  const int* const columns = ju + n + 1;
  for (int k = n - 1; k >= 0; --k) {
    const int diagonal = ju[k + 1] - 1;
    x[k] = u[diagonal] == 0.0 ? 0.0 : x[k] / u[diagonal];
    for (int t = ju[k]; t < diagonal; ++t) x[columns[t]] -= u[t] * x[k];
  }
}

void multiply_lower(int n, const int* ju, const double* u, double* x)
{
  const int* const columns = ju + n + 1;
  for (int k = n - 1; k >= 0; --k) {
    double s = 0.0;
    for (int t = ju[k]; t < ju[k + 1]; ++t) s += u[t] * x[columns[t]];
    x[k] = s;
  }
}

void multiply_upper(int n, const int* ju, const double* u, double* x)
{
  const int* const columns = ju + n + 1;
  for (int k = 0; k < n; ++k) {
    const int diagonal = ju[k + 1] - 1;
    for (int t = ju[k]; t < diagonal; ++t) x[columns[t]] += u[t] * x[k];
    x[k] *= u[diagonal];
  }
}

using InPlace = void (*)(int, const int*, const double*, double*);

void permuted_first(int job, int n, const int* ju, const double* u, const int* perm, double* b, double* work, InPlace f)
{
  if (job != 0) {
    gather(n, perm, b, 1, work);
    std::copy_n(work, n, b);
  }
  f(n, ju, u, b);
}

void permuted_last(int job, int n, const int* ju, const double* u, const int* perm, double* b, double* work, InPlace f)
{
  f(n, ju, u, b);
  if (job == 0) return;
  std::copy_n(b, n, work);
  spread(n, perm, work, b, 1);
}

} // namespace

void zsllts2(int n, int p, int incb, const int* ju, const double* u, const int* perm, double* b, double* work)
{
  for (int c = 0; c < p; ++c) {
    gather(n, perm, b + c, incb, work);
    solve_lower(n, ju, u, work);
    solve_upper(n, ju, u, work);
    spread(n, perm, work, b + c, incb);
  }
}

void zslltso(int n, const int* ju, const double* u, const int* perm, double* b, double* work)
{
  zsllts2(n, 1, 1, ju, u, perm, b, work);
}

void zslltli(int job, int n, const int* ju, const double* u, const int* perm, double* b, double* work)
{
  permuted_first(job, n, ju, u, perm, b, work, solve_lower);
}

void zslltui(int job, int n, const int* ju, const double* u, const int* perm, double* b, double* work)
{
  permuted_last(job, n, ju, u, perm, b, work, solve_upper);
}

void zslltml(int job, int n, const int* ju, const double* u, const int* perm, double* b, double* work)
{
  permuted_last(job, n, ju, u, perm, b, work, multiply_lower);
}

void zslltmu(int job, int n, const int* ju, const double* u, const int* perm, double* b, double* work)
{
  permuted_first(job, n, ju, u, perm, b, work, multiply_upper);
}

void zslltma(int n, const int* ja, const double* a, const double* x, double* y)
{
  const int* const columns = ja + n + 1;
  std::fill_n(y, n, 0.0);
  for (int i = 0; i < n; ++i)
    for (int t = ja[i]; t < ja[i + 1]; ++t) {
      const int j = columns[t];
      y[i] += a[t] * x[j];
      if (j != i) y[j] += a[t] * x[i];
    }
}

void zslltqf(int n, int p, int incb, const int* ju, const double* u, const int* perm, double* b, double* q,
             double* work)
{
  const long inc = incb;
  for (int c = 0; c < p; ++c) {
    gather(n, perm, b + c, inc, work);
    solve_lower(n, ju, u, work);
    for (long k = 0; k < n; ++k) b[k * inc + c] = work[k];
  }
  for (long i = 0; i < p; ++i)
    for (long j = 0; j <= i; ++j) {
      double sum = 0.0;
      for (long k = 0; k < n; ++k) sum += b[k * inc + i] * b[k * inc + j];
      q[packed_index(i, j)] = sum;
    }
}

void zslltre(int n, const int* ja, const double* a, const int* ju, const double* u, const int* perm, const double* b,
             double* x, double* r, double* work)
{
  // Row i of A is its lower row and, by symmetry, column i below: the sums are carried along as pairs of a
  // leading double in r and its rest in work.
  const int* const columns = ja + n + 1;
  std::copy_n(b, n, r);
  std::fill_n(work, n, 0.0);
  const auto subtract = [&](int i, double value, double factor) {
    const long double sum = static_cast<long double>(r[i]) + work[i] - static_cast<long double>(value) * factor;
    r[i] = static_cast<double>(sum);
    work[i] = static_cast<double>(sum - r[i]);
  };
  for (int i = 0; i < n; ++i)
    for (int t = ja[i]; t < ja[i + 1]; ++t) {
      const int j = columns[t];
      subtract(i, a[t], x[j]);
      if (j != i) subtract(j, a[t], x[i]);
    }
  zslltso(n, ju, u, perm, r, work);
  for (int i = 0; i < n; ++i) x[i] += r[i];
}

} // namespace torvale::matrix
