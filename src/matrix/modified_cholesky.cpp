#include "matrix/modified_cholesky.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "matrix/constants.h"
#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

namespace torvale::matrix {

namespace {

// The matrix in work and what travels with its rows.
struct Factorization {
  long n;
  double* a;
  double* emat; // may be null
  double* gvec; // lower Gerschgorin bounds of the remaining rows, once phase one has ended
  int* ipiv;
  double delta; // largest addition so far; additions never fall from column to column

  double& at(long i, long j) { return a[packed_row(i) + j]; }
  void record(long j) const
  {
    if (emat != nullptr) emat[j] = delta;
  }
};

// Exchanges positions p < q: rows, columns and the parts of L already made.
void exchange(Factorization& f, long p, long q)
{
  if (p == q) return;
  exchange_within_leading_block(f.a, p, q);
  for (long i = q + 1; i < f.n; ++i) std::swap(f.at(i, p), f.at(i, q));
  std::swap(f.ipiv[p], f.ipiv[q]);
  std::swap(f.gvec[p], f.gvec[q]);
}

// Column j of L and the update of the rows behind it.
void eliminate(Factorization& f, long j)
{
  const double root = std::sqrt(f.at(j, j));
  f.at(j, j) = root;
  for (long i = j + 1; i < f.n; ++i) {
    f.at(i, j) /= root;
    const double lij = f.at(i, j);
    for (long m = j + 1; m <= i; ++m) f.at(i, m) -= lij * f.at(m, j);
  }
}

// Plain Cholesky with diagonal pivoting as long as every remaining diagonal stays at taugamma or
// above. Returns the first column not eliminated, n when all are.
long phase_one(Factorization& f, double taugamma)
{
  for (long i = 0; i < f.n; ++i)
    if (!(f.at(i, i) >= 0.0)) return 0;
  for (long j = 0; j < f.n - 1; ++j) {
    long largest = j;
    for (long i = j + 1; i < f.n; ++i)
      if (f.at(i, i) > f.at(largest, largest)) largest = i;
    exchange(f, j, largest);
    const double pivot = f.at(j, j);
    if (!(pivot > 0.0)) return j;
    for (long i = j + 1; i < f.n; ++i)
      if (!(f.at(i, i) - f.at(i, j) * (f.at(i, j) / pivot) >= taugamma)) return j;
    eliminate(f, j);
  }
  f.at(f.n - 1, f.n - 1) = std::sqrt(f.at(f.n - 1, f.n - 1));
  return f.n;
}

// Lower bounds of the eigenvalues of the trailing matrix from column j.
void gersch(Factorization& f, long j)
{
  for (long i = j; i < f.n; ++i) {
    double radius = 0.0;
    for (long k = j; k < f.n; ++k)
      if (k != i) radius += std::fabs(f.a[packed_index(i, k)]);
    f.gvec[i] = f.at(i, i) - radius;
  }
}

// Column j of phase two: the row of the largest lower bound is pivot, raised so that its own circle
// lies right of zero; the bounds of the others follow without a new sum (published as the update of
// the negated bounds).
void phase_two_column(Factorization& f, long j, double taugamma)
{
  const long best = std::max_element(f.gvec + j, f.gvec + f.n) - f.gvec;
  exchange(f, j, best);
  double sum = 0.0;
  for (long i = j + 1; i < f.n; ++i) sum += std::fabs(f.at(i, j));
  const double least = std::max(sum, taugamma);
  f.delta = std::max(f.delta, least - f.at(j, j));
  f.record(j);
  // The maximum guards a sum that rounds to less, to 0 even, when a(j,j) and delta cancel.
  f.at(j, j) = std::max(f.at(j, j) + f.delta, least);
  if (f.at(j, j) != sum)
    for (long i = j + 1; i < f.n; ++i) f.gvec[i] += std::fabs(f.at(i, j)) * (1.0 - sum / f.at(j, j));
  eliminate(f, j);
}

// The last 2x2 block is shifted by its smaller eigenvalue, exactly known.
void last_block(Factorization& f, double tau2, double gamma)
{
  const long j = f.n - 2;
  double& p = f.at(j, j);
  double& q = f.at(j + 1, j + 1);
  double& r = f.at(j + 1, j);
  const double spread = std::hypot(2.0 * r, p - q);
  const double lo = (p + q - spread) / 2.0;
  const double hi = (p + q + spread) / 2.0;
  const double t = std::max((hi - lo) / (1.0 - tau2), gamma);
  f.delta = std::max(f.delta, t * tau2 - lo);
  if (f.delta > 0.0) {
    p += f.delta;
    q += f.delta;
    f.record(j);
    f.record(j + 1);
  }
  p = std::sqrt(std::max(0.0, p));
  r = p <= dmin ? 0.0 : r / p;
  q = std::sqrt(std::max(0.0, q - r * r));
}

// Order 1: the element itself is its eigenvalue.
double single_element(double* amat, double tau2, double* emat)
{
  const double a = *amat;
  const double delta = a == 0.0 ? tau2 : std::max(0.0, std::fabs(a) * tau2 - a);
  *amat = std::sqrt(a + delta);
  if (emat != nullptr) *emat = delta;
  return delta;
}

} // namespace

double zmchol(int n, int* ipiv, double tau1, double tau2, double* amat, double* emat, double* gvec)
{
  if (n < 1) return 0.0;
  const double cube_root_eps = std::exp(std::log(eps) / 3.0);
  if (!(tau1 > 0.0)) tau1 = cube_root_eps;
  if (!(tau2 > 0.0)) tau2 = cube_root_eps;
  for (int i = 0; i < n; ++i) ipiv[i] = i;
  std::fill_n(gvec, n, 0.0);
  if (emat != nullptr) std::fill_n(emat, n, 0.0);
  if (n == 1) return single_element(amat, tau2, emat);

  Factorization f = {n, amat, emat, gvec, ipiv, 0.0};
  double gamma = 0.0;
  for (long i = 0; i < n; ++i) gamma = std::max(gamma, std::fabs(f.at(i, i)));
  if (gamma <= dmin) {
    const double largest = zvamx(amat, packed_size(n));
    if (largest <= dmin) {
      // Zero to working accuracy: E = dmin I, whose factor is rootmin I.
      std::fill_n(amat, packed_size(n), 0.0);
      for (long i = 0; i < n; ++i) f.at(i, i) = rootmin;
      if (emat != nullptr) std::fill_n(emat, n, dmin);
      return dmin;
    }
    gamma = largest; // a zero diagonal sets no scale
  }
  const double taugamma = std::max(dmin, gamma * tau1);

  long j = phase_one(f, taugamma);
  if (j == n) return 0.0;
  gersch(f, j);
  for (; j < n - 2; ++j) phase_two_column(f, j, taugamma);
  last_block(f, tau2, gamma);
  return f.delta;
}

} // namespace torvale::matrix
