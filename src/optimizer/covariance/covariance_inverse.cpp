#include "optimizer/optimizer.h"

#include "matrix/determinant.h"
#include "matrix/eigenvalues.h"
#include "matrix/packed.h"
#include "matrix/sweep.h"
#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace torvale::optimizer {
namespace {

using matrix::packed_diagonal;
using matrix::packed_row;
using matrix::packed_size;

int invert_diagonal(long n, double asin, double msin, double* d, double* det, long* singular)
{
  const double limit = std::max(msin * matrix::zvamx(d, n), asin);
  int zeros = 0;
  for (long i = 0; i < n; ++i) {
    matrix::determinant_count(det, d[i], limit);
    const bool zero = !(std::abs(d[i]) > limit);
    if (singular != nullptr) singular[i] = zero;
    if (zero) {
      ++zeros;
      d[i] = 0.0;
    } else {
      matrix::determinant_multiply(det, d[i]);
      d[i] = 1.0 / d[i];
    }
  }
  return zeros;
}

double element(const double* a, long i, long j)
{
  return std::abs(a[matrix::packed_index(i, j)]);
}

// How far the elements of row i exceed the roots of the diagonals, which semidefinite matrices never do: the logarithms
// of what is beyond a factor of 4, summed over the rows whose diagonal is still trusted (scale > 0).
double excess(long n, const double* a, const double* scale, long i)
{
  double sum = 0.0;
  for (long j = 0; j < n; ++j) {
    if (j == i || !(scale[j] > 0.0)) continue;
    const double ratio = element(a, i, j) / scale[i] / scale[j];
    if (ratio > 4.0) sum += std::log(ratio);
  }
  return sum;
}

// The scale of each row: the root of the diagonal element; parameters may differ by many powers of ten, and singular
// must not mean small. A diagonal that is too small for its row, or not positive, says nothing of it and would spoil
// the others: the worst one after the other loses its say, and its row is brought to the size of the rest.
void scale_matrix(long n, double* a, double* scale)
{
  for (long i = 0; i < n; ++i) {
    const double d = a[packed_diagonal(i)];
    scale[i] = d > root_smallest * root_smallest ? std::sqrt(d) : 0.0;
  }
  for (;;) {
    long worst = -1;
    double most = 0.0;
    for (long i = 0; i < n; ++i) {
      const double sum = scale[i] > 0.0 ? excess(n, a, scale, i) : 0.0;
      if (sum > most) most = sum, worst = i;
    }
    if (worst < 0) break;
    scale[worst] = 0.0;
  }
  for (long i = 0; i < n; ++i) {
    if (scale[i] > 0.0) continue;
    double size = std::sqrt(std::abs(a[packed_diagonal(i)]));
    for (long j = 0; j < n; ++j)
      if (scale[j] > 0.0) size = std::max(size, element(a, i, j) / scale[j]);
    // A power of two costs no digit. Negative until all are done: such rows do not count for one another.
    scale[i] = size > root_smallest ? -std::ldexp(1.0, static_cast<int>(std::lround(std::log2(size)))) : -1.0;
  }
  for (long i = 0; i < n; ++i) scale[i] = std::abs(scale[i]);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j <= i; ++j) a[packed_row(i) + j] /= scale[i] * scale[j];
}

// Sweeps the pivots of the scaled matrix in their order; one that is refused gets another chance when the others are
// done, for a pivot of 0 makes no indefinite matrix singular. What is left of a row whose pivot stays refused says how
// it depends on the swept ones.
int sweep_pivots(long n, double asin, double msin, double vsin, double* a, double* det, double* scale, double* work,
                 std::vector<char>& swept)
{
  scale_matrix(n, a, scale);
  const double limit = std::max({vsin, msin * matrix::zvamx(a, packed_size(n)), asin}); // vsin times 1, the diagonal
  // Negative: of either sign. A limit of -0 would mean positive pivots alone.
  const double either_sign = -std::max(limit, std::numeric_limits<double>::denorm_min());
  swept.assign(static_cast<std::size_t>(n), '0');
  long refused = n;
  for (long before = n + 1; refused > 0 && refused < before;) {
    before = refused;
    for (long k = 0; k < n; ++k) {
      if (swept[static_cast<std::size_t>(k)] == '1') continue;
      const double pivot = a[packed_diagonal(k)];
      if (matrix::qkzsweep(a, static_cast<int>(k), static_cast<int>(n), swept.data(), work, either_sign) != 0) continue;
      --refused;
      matrix::determinant_count(det, pivot, limit);
      matrix::determinant_multiply(det, pivot);
      matrix::determinant_multiply(det, scale[k] * scale[k]);
    }
  }
  for (long k = 0; k < refused; ++k) matrix::determinant_count(det, 0.0, limit);
  return static_cast<int>(refused);
}

} // namespace

int zcovinv(int job, int cfrm, long n, double asin, double msin, double vsin, double* cov, double* det, double* cdia,
            double* work, long* iwk)
{
  matrix::determinant_start(det);
  if (n < 1) return 0;
  long* const singular = job == 1 ? iwk : nullptr;
  if (cfrm == 2) {
    std::copy_n(cov, n, cdia);
    const int zeros = invert_diagonal(n, asin, msin, cov, det, singular);
    if (zeros > 0) matrix::determinant_clear(det);
    return zeros;
  }
  std::vector<char> swept;
  const int zeros = sweep_pivots(n, asin, msin, vsin, cov, det, cdia, work, swept);
  if (zeros > 0) matrix::determinant_clear(det);
  for (long i = 0; i < n; ++i) {
    const bool refused = swept[static_cast<std::size_t>(i)] == '0';
    if (singular != nullptr) singular[i] = refused;
    for (long j = 0; j <= i; ++j)
      if (refused || swept[static_cast<std::size_t>(j)] == '0')
        cov[packed_row(i) + j] = 0.0;
      else
        cov[packed_row(i) + j] /= cdia[i] * cdia[j];
  }
  return zeros;
}

int zcovgiv(long n, double asin, double csin, double* cov, double* det, double* eval, double* work)
{
  matrix::determinant_start(det);
  if (n < 1) return 0;
  double* const v = work;
  double* const off = work + n * n;
  double* const scale = off + n;
  scale_matrix(n, cov, scale);
  matrix::zmmovsr(cov, v, static_cast<int>(n));
  matrix::ztred2(static_cast<int>(n), v, eval, off);
  if (matrix::ztql2(static_cast<int>(n), v, eval, off, 1) != 0) return -1;
  const double limit = std::max(asin, csin * matrix::zvamx(eval, n));
  int zeros = 0;
  std::fill_n(cov, packed_size(n), 0.0);
  for (long k = 0; k < n; ++k) {
    matrix::determinant_count(det, eval[k], limit);
    if (!(std::abs(eval[k]) > limit)) {
      ++zeros;
      continue;
    }
    matrix::determinant_multiply(det, eval[k]);
    for (long i = 0; i < n; ++i) {
      const double vi = v[i * n + k] / eval[k];
      for (long j = 0; j <= i; ++j) cov[packed_row(i) + j] += vi * v[j * n + k];
    }
  }
  for (long i = 0; i < n; ++i) {
    matrix::determinant_multiply(det, scale[i] * scale[i]);
    for (long j = 0; j <= i; ++j) cov[packed_row(i) + j] /= scale[i] * scale[j];
  }
  if (zeros > 0) matrix::determinant_clear(det);
  return zeros;
}

int zcovlid(MINSTR* str, double asin, double msin, double vsin, long n, double* cov, double* work, long* iwk)
{
  double det[5];
  matrix::determinant_start(det);
  std::vector<char> swept;
  double* const scale = work;
  double* const row = work + n;
  const int zeros = sweep_pivots(n, asin, msin, vsin, cov, det, scale, row, swept);
  const COVSTR* const request = str->covstr;
  for (long i = 0; i < n; ++i) {
    iwk[i] = swept[static_cast<std::size_t>(i)] == '0';
    if (iwk[i] == 0 || request == nullptr || request->dependency == nullptr) continue;
    for (long j = 0; j < n; ++j)
      row[j] = swept[static_cast<std::size_t>(j)] == '1' ? cov[matrix::packed_index(i, j)] * scale[i] / scale[j] : 0.0;
    request->dependency(str, {i, row});
  }
  return zeros;
}

} // namespace torvale::optimizer
