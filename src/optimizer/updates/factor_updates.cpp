#include "optimizer/updates/updates.h"

#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {

using matrix::packed_row;
using matrix::zvdot11;

// Row by row, because packed rows are contiguous: row r needs p_j and beta_j of the rows above only.
//     p_r = (L^-1 z)_r,  d+ = d t+ / t,  beta = p / (d t+),  t+ = t + p^2 / d,  t_0 = 1 / sig
int ldlupd(long n, double sig, double* ldl, double* z, double* t)
{
  if (n < 1 || sig == 0.0) return static_cast<int>(n);
  double* const beta = t;
  if (sig < 0.0) {
    // A negative change: the final t decides whether the result stays definite, before anything is touched.
    double last = 1.0 / sig;
    double size = std::abs(last);
    for (long r = 0; r < n; ++r) {
      const double* const row = ldl + packed_row(r);
      beta[r] = z[r] - zvdot11(row, beta, r);
      last += beta[r] * beta[r] / row[r];
      size = std::max(size, std::abs(last));
    }
    if (!(last < -4.0 * static_cast<double>(n) * unit_roundoff * size)) return static_cast<int>(n - 1);
    // t from the end back, which loses less than from the front: t_r = t_{r+1} - p_r^2 / d_r.
    double after = last;
    for (long r = n - 1; r >= 0; --r) {
      const double p = beta[r];
      const double d = ldl[matrix::packed_diagonal(r)];
      const double before = std::min(after - p * p / d, -smallest_normal);
      z[r] = p;
      ldl[matrix::packed_diagonal(r)] = d * (after / before);
      beta[r] = p / (d * after);
      after = before;
    }
    // Row r of L: with q the vector z as columns 0..j have left it, L_rj += beta_j q. Here q_r = p_r + sum over j of
    // L_rj p_j.
    for (long r = 1; r < n; ++r) {
      double* const row = ldl + packed_row(r);
      double q = z[r] + zvdot11(row, z, r);
      for (long j = 0; j < r; ++j) {
        q -= z[j] * row[j];
        row[j] += beta[j] * q;
      }
    }
    return static_cast<int>(n);
  }
  double now = 1.0 / sig;
  for (long r = 0; r < n; ++r) {
    double* const row = ldl + packed_row(r);
    double q = z[r];
    for (long j = 0; j < r; ++j) {
      q -= z[j] * row[j];
      row[j] += beta[j] * q;
    }
    z[r] = q;
    const double d = row[r];
    const double next = now + q * q / d;
    row[r] = d * (next / now);
    beta[r] = q / (d * next);
    now = next;
  }
  return static_cast<int>(n);
}

void llupdat(long n, double* l, const double* u, double* w)
{
  if (n < 1) return;
  // First sweep: rotations of neighbouring columns, from the last pair up, turn w into |w| e_0 and put one element
  // above each diagonal: L(j-1, j), kept in w[j].
  double norm = w[n - 1];
  for (long j = n - 1; j >= 1; --j) {
    const double r = std::hypot(w[j - 1], norm);
    const double c = r == 0.0 ? 1.0 : w[j - 1] / r;
    const double s = r == 0.0 ? 0.0 : norm / r;
    double* const top = l + packed_row(j - 1);
    w[j] = -s * top[j - 1];
    top[j - 1] *= c;
    for (long i = j; i < n; ++i) {
      double* const row = l + packed_row(i);
      const double a = row[j - 1], b = row[j];
      row[j - 1] = c * a + s * b;
      row[j] = c * b - s * a;
    }
    norm = r;
  }
  for (long i = 0; i < n; ++i) l[packed_row(i)] += norm * u[i];
  // Second sweep: the elements above the diagonals go back to zero.
  for (long j = 0; j + 1 < n; ++j) {
    double* const diagonal = l + packed_row(j) + j;
    const double r = std::hypot(*diagonal, w[j + 1]);
    if (r == 0.0) continue;
    const double c = *diagonal / r, s = w[j + 1] / r;
    *diagonal = r;
    for (long i = j + 1; i < n; ++i) {
      double* const row = l + packed_row(i);
      const double a = row[j], b = row[j + 1];
      row[j] = c * a + s * b;
      row[j + 1] = c * b - s * a;
    }
  }
}

bool factor_ldl(long n, double* a, double tol)
{
  for (long r = 0; r < n; ++r) {
    double* const row = a + packed_row(r);
    // row holds a(r, 0..r); with e_j = L_rj d_j: e_j = a_rj - sum over k < j of e_k L_jk.
    for (long j = 1; j < r; ++j) row[j] -= zvdot11(row, a + packed_row(j), j);
    double d = row[r];
    for (long j = 0; j < r; ++j) {
      const double e = row[j];
      row[j] = e / a[matrix::packed_diagonal(j)];
      d -= e * row[j];
    }
    row[r] = d;
    if (!(d > tol)) return false;
  }
  return true;
}

void solve_ldl(long n, const double* ldl, double* b)
{
  for (long r = 1; r < n; ++r) b[r] -= zvdot11(ldl + packed_row(r), b, r);
  for (long r = 0; r < n; ++r) b[r] /= ldl[matrix::packed_diagonal(r)];
  for (long r = n - 1; r >= 1; --r) matrix::zvxay11(b, ldl + packed_row(r), r, -b[r]);
}

void multiply_ldl(long n, const double* ldl, const double* v, double* r, double* work)
{
  // work = L'v, row by row; then r = L (D work).
  std::fill_n(work, n, 0.0);
  for (long i = 0; i < n; ++i) {
    matrix::zvxay11(work, ldl + packed_row(i), i, v[i]);
    work[i] += v[i];
  }
  for (long i = 0; i < n; ++i) work[i] *= ldl[matrix::packed_diagonal(i)];
  for (long i = 0; i < n; ++i) r[i] = zvdot11(ldl + packed_row(i), work, i) + work[i];
}

void multiply_symmetric(long n, const double* a, const double* v, double* r)
{
  std::fill_n(r, n, 0.0);
  for (long i = 0; i < n; ++i) {
    const double* const row = a + packed_row(i);
    r[i] += zvdot11(row, v, i + 1);
    matrix::zvxay11(r, row, i, v[i]);
  }
}

} // namespace torvale::optimizer
