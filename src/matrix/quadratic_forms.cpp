#include "matrix/quadratic_forms.h"

#include <algorithm>

#include "matrix/packed.h"
#include "matrix/packed_kernels.h"
#include "matrix/vector_kernels.h"

namespace torvale::matrix {

void zqform(const double* sym, int n, const double* rec, int p, double* prod, double* work, int acc)
{
  if (n < 1 || p < 1) return;
  if (p == 1) {
    const double q = zmxq1(rec, sym, n, 1);
    prod[0] = acc != 0 ? prod[0] + q : q;
    return;
  }
  for (long i = 0; i < p; ++i) {
    symmetric_times_vector(sym, rec + i * n, work, n);
    rows_times_vector(rec, work, prod + packed_row(i), i + 1, n, acc != 0);
  }
}

double zmxq1(const double* x, const double* a, int n, int m)
{
  // Sum over rows of x_i (2 sum_{j<i} a(i,j) x_j + a(i,i) x_i).
  double sum = 0.0;
  for (long i = 0; i < n; ++i) {
    const double* const ai = a + packed_row(i);
    const double xi = x[i * m];
    sum += xi * (2.0 * zvdotj1(x, m, ai, i) + ai[i] * xi);
  }
  return sum;
}

double zmxq2(const double* x, const double* a, int n, int m)
{
  double sum = 0.0;
  for (long i = 0; i < n; ++i) sum += x[i * m] * zvdotj1(x, m, a + i * n, n);
  return sum;
}

double zmxtq(const double* r, const double* s, int n, int m)
{
  double sum = 0.0;
  for (long i = 0; i < n; ++i) {
    const double* const si = s + packed_row(i);
    const double* const ri = r + i * m;
    double below = 0.0;
    for (long j = 0; j < i; ++j) below += si[j] * zvdot11(ri, r + j * m, m);
    sum += 2.0 * below + si[i] * zvdot11(ri, ri, m);
  }
  return sum;
}

double zmxbi(const double* x, const double* y, const double* a, int n)
{
  double sum = 0.0;
  for (long i = 0; i < n; ++i)
    if (x[i] != 0.0) sum += x[i] * zvdots1(a + packed_row(i), i, y, n);
  return sum;
}

void zmxrsr(const double* r, const double* s, double* result, int m, int n, double add)
{
  if (m < 1 || n < 1) return;
  // No work array is given, so S r_j is formed a stretch of rows at a time.
  constexpr long stretch = 64;
  double sr[stretch];
  if (add == 0.0) std::fill_n(result, packed_size(m), 0.0);
  for (long first = 0; first < n; first += stretch) {
    const long count = std::min<long>(stretch, n - first);
    for (long j = 0; j < m; ++j) {
      for (long k = 0; k < count; ++k) {
        const long row = first + k;
        sr[k] = zvdots1(s + packed_row(row), row, r + j * n, n);
      }
      for (long i = j; i < m; ++i) {
        const double* const ri = r + i * n + first;
        double& to = result[packed_row(i) + j];
        if (add == 0.0) {
          to += zvdot11(ri, sr, count);
          continue;
        }
        double sum = 0.0;
        for (long k = 0; k < count; ++k)
          if (ri[k] != 0.0) sum += ri[k] * sr[k];
        to += add * sum;
      }
    }
  }
}

void zmxrts(const double* r, const double* s, double* result, int m, int n, double* work, double add)
{
  if (m < 1 || n < 1) return;
  for (long i = 0; i < n; ++i) {
    for (long k = 0; k < m; ++k) work[k] = zvdotsj(s + packed_row(k), k, r + i, n, m);
    double* const row = result + packed_row(i);
    if (add == 0.0) {
      std::fill_n(row, i + 1, 0.0);
      for (long k = 0; k < m; ++k) zvxay11(row, r + k * n, i + 1, work[k]);
      continue;
    }
    for (long k = 0; k < m; ++k) {
      const double* const rk = r + k * n;
      const double t = add * work[k];
      for (long j = 0; j <= i; ++j)
        if (rk[j] != 0.0) row[j] += t * rk[j];
    }
  }
}

} // namespace torvale::matrix
