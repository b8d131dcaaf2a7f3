#include "matrix/udu.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "matrix/constants.h"
#include "matrix/determinant.h"
#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

namespace torvale::matrix {

namespace {

// The tolerance of a row: one number for all, or one for each row, permuted with the rows.
struct Tolerance {
  double common;
  double* by_row;

  double operator()(long i) const { return by_row == nullptr ? common : by_row[i]; }
  void exchange(long i, long j) const
  {
    if (by_row != nullptr) std::swap(by_row[i], by_row[j]);
  }
};

// One pivot decision for column k.
struct Pivot {
  int size;      // 1 or 2
  long exchange; // the row that takes the pivot's place: k, or k-1 for size 2, when none
};

// (1 + sqrt 17) / 8 balances the growth of one 2x2 step against that of two 1x1 steps.
constexpr double growth_balance = 0.6403882032022076;

// First index of the largest |row[i]|, i < k; k must be positive.
long largest_element(const double* row, long k)
{
  long at = 0;
  for (long i = 1; i < k; ++i)
    if (std::fabs(row[i]) > std::fabs(row[at])) at = i;
  return at;
}

// The Bunch-Kaufman test on column k > 0, whose largest element above the diagonal stands in row imax.
Pivot choose_pivot(const double* a, long k, long imax)
{
  const double* const row = a + packed_row(k);
  const double absakk = std::fabs(row[k]);
  const double colmax = std::fabs(row[imax]);
  if (absakk >= growth_balance * colmax) return {1, k};

  const double* const row_imax = a + packed_row(imax);
  double rowmax = zvamx(row_imax, imax);
  for (long j = imax + 1; j <= k; ++j) rowmax = std::max(rowmax, std::fabs(a[packed_row(j) + imax]));
  if (std::fabs(row_imax[imax]) >= growth_balance * rowmax) return {1, imax};
  if (growth_balance * colmax * (colmax / rowmax) <= absakk) return {1, k};
  return {2, imax};
}

// Eliminates column k by the pivot (k, k): A := A - u u' / d above it, u / -d kept in the column.
void eliminate_one(double* a, long k)
{
  double* const column = a + packed_row(k);
  for (long j = k - 1; j >= 0; --j) {
    const double m = -column[j] / column[k];
    zvxay11(a + packed_row(j), column, j + 1, m);
    column[j] = m;
  }
}

// Eliminates columns k-1 and k by their 2x2 block. Everything is scaled by the off-diagonal element,
// which dominates such a block.
void eliminate_two(double* a, long k)
{
  double* const column = a + packed_row(k);
  double* const before = a + packed_row(k - 1);
  const double cross = column[k - 1];
  const double ak = column[k] / cross;
  const double akm1 = before[k - 1] / cross;
  const double denom = 1.0 - ak * akm1;
  for (long j = k - 2; j >= 0; --j) {
    const double bk = column[j] / cross;
    const double bkm1 = before[j] / cross;
    const double m = (akm1 * bk - bkm1) / denom;
    const double mm1 = (ak * bkm1 - bk) / denom;
    double* const to = a + packed_row(j);
    zvxay11(to, column, j + 1, m);
    zvxay11(to, before, j + 1, mm1);
    column[j] = m;
    before[j] = mm1;
  }
}

// Fills the record from the factor. A 2x2 block is indefinite: its first row stands for the
// determinant over |cross|, its second for |cross|.
void fill_record(long n, Tolerance sing, const double* a, const std::int64_t* h, int nullity, double* det)
{
  determinant_start(det);
  for (long i = 0; i < n; ++i) {
    double d = a[packed_diagonal(i)];
    if (h[i] < 0) {
      const double t = std::fabs(a[packed_row(i + 1) + i]);
      const double first = t <= dmin ? 0.0 : (d / t) * a[packed_diagonal(i + 1)] - t;
      determinant_multiply(det, first);
      determinant_count(det, first, sing(i));
      ++i;
      d = t;
    }
    determinant_multiply(det, d);
    determinant_count(det, d, sing(i));
  }
  if (nullity != 0) determinant_clear(det);
}

int decompose(long n, Tolerance sing, double* det, double* a, std::int64_t* h)
{
  int nullity = 0;
  long k = n - 1;
  while (k > 0) {
    double* const row = a + packed_row(k);
    const long imax = largest_element(row, k);
    // A negligible column is always one step: with a 2x2 step its neighbour would be lost too.
    if (std::max(std::fabs(row[k]), std::fabs(row[imax])) <= sing(k)) {
      h[k] = k;
      ++nullity;
      --k;
      continue;
    }
    const Pivot pivot = choose_pivot(a, k, imax);
    if (pivot.size == 1) {
      if (pivot.exchange != k) {
        exchange_within_leading_block(a, pivot.exchange, k);
        sing.exchange(pivot.exchange, k);
      }
      eliminate_one(a, k);
      h[k] = pivot.exchange;
      k -= 1;
    } else {
      if (pivot.exchange != k - 1) {
        exchange_within_leading_block(a, pivot.exchange, k - 1);
        std::swap(row[pivot.exchange], row[k - 1]);
        sing.exchange(pivot.exchange, k - 1);
      }
      eliminate_two(a, k);
      h[k] = h[k - 1] = -1 - pivot.exchange;
      k -= 2;
    }
  }
  if (k == 0) {
    h[0] = 0;
    if (std::fabs(a[0]) <= sing(0)) ++nullity;
  }
  if (det != nullptr) fill_record(n, sing, a, h, nullity, det);
  return nullity;
}

} // namespace

int zududec(int n, double sing, double* dtin, double* a, std::int64_t* h)
{
  return decompose(n, {sing, nullptr}, dtin, a, h);
}

int zudude2(int n, double* vsin, double* dtin, double* a, std::int64_t* h)
{
  return decompose(n, {0.0, vsin}, dtin, a, h);
}

} // namespace torvale::matrix
