#include <cmath>
#include <utility>

#include "matrix/packed.h"
#include "matrix/udu.h"
#include "matrix/vector_kernels.h"

namespace torvale::matrix {

namespace {

// One right-hand side at stride inc.
struct Column {
  double* b;
  long inc;

  double& operator[](long i) const { return b[i * inc]; }
  void exchange(long i, long j) const
  {
    if (i != j) std::swap(b[i * inc], b[j * inc]);
  }
  // b[0..k-1] += alpha u[0..k-1]
  void add(const double* u, long k, double alpha) const { zvxayj1(b, inc, u, k, alpha); }
  // u[0..k-1] . b[0..k-1]
  double dot(const double* u, long k) const { return zvdotj1(b, inc, u, k); }
};

// Solves the 2x2 system of rows k-1, k, scaled by the off-diagonal element.
void solve_block(const double* row, const double* before, long k, Column b)
{
  const double cross = row[k - 1];
  const double ak = row[k] / cross;
  const double akm1 = before[k - 1] / cross;
  const double bk = b[k] / cross;
  const double bkm1 = b[k - 1] / cross;
  const double denom = ak * akm1 - 1.0;
  b[k] = (akm1 * bk - bkm1) / denom;
  b[k - 1] = (ak * bkm1 - bk) / denom;
}

// A^-1 b = U'^-1 D^-1 U^-1 b, restricted to the pivots that use_one (of a 1x1 pivot) and use_two
// (all 2x2 blocks) let through; the others apply only their exchange.
template <class UseOne>
void solve_column(long n, const double* a, const std::int64_t* h, Column b, UseOne use_one, bool use_two)
{
  for (long k = n - 1; k >= 0;) {
    const double* const row = a + packed_row(k);
    if (h[k] >= 0) {
      b.exchange(k, h[k]);
      if (use_one(row[k])) {
        b.add(row, k, b[k]);
        b[k] /= row[k];
      }
      k -= 1;
    } else {
      b.exchange(k - 1, -1 - h[k]);
      if (use_two) {
        const double* const before = a + packed_row(k - 1);
        b.add(row, k - 1, b[k]);
        b.add(before, k - 1, b[k - 1]);
        solve_block(row, before, k, b);
      }
      k -= 2;
    }
  }
  for (long k = 0; k < n;) {
    const double* const row = a + packed_row(k);
    if (h[k] >= 0) {
      if (use_one(row[k])) b[k] += b.dot(row, k);
      b.exchange(k, h[k]);
      k += 1;
    } else {
      if (use_two) {
        b[k] += b.dot(row, k);
        b[k + 1] += b.dot(a + packed_row(k + 1), k);
      }
      b.exchange(k, -1 - h[k]);
      k += 2;
    }
  }
}

// One column of the inverse pass: with the leading k x k block of a already inverted, column :=
// inverse block * u, and the result is what its diagonal element gains, u' inverse u.
double invert_column(const double* a, long k, double* column, double* w)
{
  for (long j = 0; j < k; ++j) w[j] = column[j];
  for (long j = 0; j < k; ++j) {
    const double* const row = a + packed_row(j);
    column[j] = zvdot11(row, w, j + 1);
    zvxay11(column, row, j, w[j]);
  }
  return zvdot11(w, column, k);
}

} // namespace

void zudusol(int n, int p, int incb, const double* a, double* b, const std::int64_t* h)
{
  for (long c = 0; c < p; ++c)
    solve_column(
        n, a, h, {b + c, incb}, [](double) { return true; }, true);
}

void zuduso2(int n, int p, int incb, double sing, const double* a, double* b, const std::int64_t* h)
{
  for (long c = 0; c < p; ++c)
    solve_column(
        n, a, h, {b + c, incb}, [sing](double pivot) { return pivot > sing; }, false);
}

void zuduinv(int n, double* a, const std::int64_t* h, double* w)
{
  for (long k = 0; k < n;) {
    double* const row = a + packed_row(k);
    long exchanged = h[k];
    if (h[k] >= 0) {
      row[k] = 1.0 / row[k];
      row[k] += invert_column(a, k, row, w);
      if (exchanged != k) exchange_within_leading_block(a, exchanged, k);
      k += 1;
    } else {
      exchanged = -1 - h[k];
      double* const next = a + packed_row(k + 1);
      const double t = std::fabs(next[k]);
      const double ak = row[k] / t;
      const double akp1 = next[k + 1] / t;
      const double akkp1 = next[k] / t;
      const double d = t * (ak * akp1 - 1.0);
      row[k] = akp1 / d;
      next[k + 1] = ak / d;
      next[k] = -akkp1 / d;
      next[k + 1] += invert_column(a, k, next, w);
      next[k] += zvdot11(row, next, k);
      row[k] += invert_column(a, k, row, w);
      if (exchanged != k) {
        exchange_within_leading_block(a, exchanged, k);
        std::swap(next[exchanged], next[k]);
      }
      k += 2;
    }
  }
}

} // namespace torvale::matrix
