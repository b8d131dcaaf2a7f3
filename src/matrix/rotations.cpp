#include <algorithm>
#include <cmath>
#include <utility>

#include "matrix/constants.h"
#include "matrix/orthogonal.h"
#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

namespace torvale::matrix {

double zgivcon(double* pa, double* pb, double* pc, double* ps)
{
  const double a = *pa;
  const double b = *pb;
  *pb = 0.0;
  if (b == 0.0) {
    *pc = 1.0;
    *ps = 0.0;
    return 0.0;
  }
  if (a == 0.0) {
    *pa = b;
    *pc = 0.0;
    *ps = 1.0;
    return 1.0;
  }
  const bool a_larger = std::fabs(a) > std::fabs(b);
  const double scale = std::fabs(a) + std::fabs(b);
  const double as = a / scale;
  const double bs = b / scale;
  const double r = std::copysign(scale * std::sqrt(as * as + bs * bs), a_larger ? a : b);
  const double c = a / r;
  const double s = b / r;
  *pa = r;
  *pc = c;
  *ps = s;
  if (a_larger) return s;
  return std::fabs(c) > 1000.0 * dmin ? 1.0 / c : 1.0;
}

int zgivapl(int n, int inx, int iny, double c, double s, double* x, double* y)
{
  if (s == 0.0) return 1;
  if (c == 0.0) { // an exchange with a sign: 0 times an infinity must not reach the result
    for (long i = 0; i < n; ++i) {
      double& xi = x[i * inx];
      double& yi = y[i * iny];
      const double old = xi;
      xi = s * yi;
      yi = -s * old;
    }
    return 0;
  }
  zvrotg(x, inx, y, iny, n, c, s);
  return 0;
}

// Neighbouring columns j, j+1 change places; the one element that then stands below the diagonal is
// turned into the row above it. Repeated from k1 to k2 - 1 this carries column k1 to k2 without
// scratch space.
int ztriprm(int job, int n, int nz, int incz, int k1, int k2, double* r, double* z, double* dcds)
{
  if (k1 < 0 || k2 <= k1 || k2 >= n) return 12;
  for (long j = k1; j < k2; ++j) {
    double* const left = r + packed_row(j);
    double* const right = r + packed_row(j + 1);
    for (long i = 0; i <= j; ++i) std::swap(left[i], right[i]);
    double below = right[j + 1];
    double c = 0.0;
    double s = 0.0;
    (void)zgivcon(left + j, &below, &c, &s); // the compact form is not wanted
    // The moved column ends at the diagonal of its old place: a zero stands below.
    right[j + 1] = -s * right[j];
    right[j] *= c;
    for (long k = j + 2; k < n; ++k) {
      double* const column = r + packed_row(k);
      zgivapl(1, 1, 1, c, s, column + j, column + j + 1);
    }
    if (job == 1) zgivapl(nz, 1, 1, c, s, z + j * incz, z + (j + 1) * incz);
    if (job == 2) zgivapl(nz, incz, incz, c, s, z + j, z + j + 1);
    if (dcds != nullptr) {
      dcds[2 * (j - k1)] = c;
      dcds[2 * (j - k1) + 1] = s;
    }
  }
  return 0;
}

int ztrapp3(int job, int n, const double* a, double* b)
{
  int skipped = 0;
  for (long step = 1; step < n; ++step) {
    const long k = job == 0 ? n - step : step;
    const double* const row = a + packed_row(k);
    const double d = row[k];
    if (!(std::fabs(d) >= rootmin)) {
      ++skipped;
      continue;
    }
    const double t = zvdot11(row, b, k);
    zvxay11(b, row, k, -(t / d / d));
  }
  return skipped;
}

int zhh1(double* abase, double* ubase, double* pk, int k, int inc, int nvar)
{
  *pk = 0.0;
  const long rows = nvar - k;
  if (rows < 1) return 1;
  const long stride = inc;
  double* const a = abase + k * stride + k;
  double* const u = ubase + k * stride + k;
  const double m = zvamxj(a, stride, rows);
  if (m == 0.0) return 1;
  for (long i = 0; i < rows; ++i) {
    u[i] = a[i * stride] / m;
    a[i * stride] = 0.0;
  }
  const double sigma = std::copysign(std::sqrt(zvdot11(u, u, rows)), u[0]);
  u[0] += sigma;
  *pk = sigma * u[0];
  a[0] = -sigma * m;
  return 0;
}

int zhh2(double pk, double* abase, const double* ubase, int k, int inc, int nvar)
{
  if (pk == 0.0) return 1;
  const long stride = inc;
  double* const a = abase + k * stride;
  const double* const u = ubase + k * stride + k;
  zvxayj1(a, stride, u, nvar - k, -zvdotj1(a, stride, u, nvar - k) / pk);
  return 0;
}

} // namespace torvale::matrix
