#include "optimizer/updates/updates.h"

#include "optimizer/active_set/active_set.h"

#include "matrix/cholesky.h"
#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

using matrix::packed_row;
using matrix::packed_size;
using matrix::zvdot11;

constexpr double square_root_of_eps = 1.053671212772351e-08;
constexpr double curvature_floor = 1.110223024625157e-15;

// The tests that every update shares: sy = s'y and the quadratic form q (y'Hy or s'Bs).
int refuse(double sy, double q, long m, const double* s, const double* y)
{
  if (!(sy > tiny_threshold) || !(q > tiny_threshold)) return 3;
  if (q <= sy * tiny_threshold) return 2;
  if (sy <= matrix::zvenorm(m, 1, s) * matrix::zvenorm(m, 1, y) * curvature_floor) return 1;
  return 0;
}

void scale_packed(long m, double* a, double factor)
{
  matrix::zvscl11(a, a, packed_size(m), factor);
}

void scale_diagonal(long m, double* ldl, double factor)
{
  for (long i = 0; i < m; ++i) ldl[matrix::packed_diagonal(i)] *= factor;
}

// A + sig v v' on a packed symmetric matrix.
void add_outer(long m, double* a, double sig, const double* v)
{
  for (long i = 0; i < m; ++i) matrix::zvxay11(a + packed_row(i), v, i + 1, sig * v[i]);
}

} // namespace

double safe_product(const double* s, const double* y, long m)
{
  constexpr double floor = 1.491668147e-153;
  double sum = 0.0;
  for (long i = 0; i < m; ++i) {
    const double big = std::max(std::abs(s[i]), std::abs(y[i]));
    if (big < floor || (big <= 1.0 && std::abs((y[i] / floor) * s[i]) < floor)) continue;
    sum += s[i] * y[i];
  }
  return sum;
}

// H + ((q/sy + 1)/sy) s s' - (s w' + w s')/sy,  w = H y, q = y'w (Nocedal and Wright, Numerical Optimization, 2nd
// ed., 6.17).
int bfgsupd(long m, int iscl, const double* s, const double* y, double* h, double* w, double& scale)
{
  multiply_symmetric(m, h, y, w);
  const double sy = safe_product(s, y, m);
  double q = safe_product(y, w, m);
  if (const int rc = refuse(sy, q, m, s, y); rc != 0) return rc;
  if (iscl != 0 && sy > square_root_of_eps * q && q > 1.110223024625157e-14) {
    const double factor = std::clamp(sy / q, 0.001, 1000.0);
    scale_packed(m, h, factor);
    matrix::zvscl11(w, w, m, factor);
    q *= factor;
    scale = 1.0 / factor;
  }
  const double a = (q / sy + 1.0) / sy;
  for (long i = 0; i < m; ++i) {
    double* const row = h + packed_row(i);
    const double p = a * s[i] - w[i] / sy;
    const double r = s[i] / sy;
    for (long j = 0; j <= i; ++j) row[j] += p * s[j] - r * w[j];
  }
  return 0;
}

// H + s s'/sy - w w'/q,  w = H y, q = y'w.
int dfpupd(long m, int iscl, double alfa, const double* s, const double* y, double* h, double* w, double& scale)
{
  multiply_symmetric(m, h, y, w);
  const double sy = safe_product(s, y, m);
  double q = safe_product(y, w, m);
  if (const int rc = refuse(sy, q, m, s, y); rc != 0) return rc;
  if (iscl != 0 && alfa > 1.110223024625157e-14) {
    const double factor = std::clamp(alfa, 0.001, 1000.0);
    scale_packed(m, h, factor);
    matrix::zvscl11(w, w, m, factor);
    q *= factor;
    scale = 1.0 / factor;
  }
  add_outer(m, h, 1.0 / sy, s);
  add_outer(m, h, -1.0 / q, w);
  return 0;
}

// B + y y'/sy - w w'/q,  w = B s, q = s'w. The addition goes first: the other order passes through a singular matrix.
int dubfgsup(long m, int iscl, const double* s, const double* y, double* ldl, double* w, double* z, double& scale)
{
  multiply_ldl(m, ldl, s, w, z);
  const double sy = safe_product(s, y, m);
  double q = safe_product(s, w, m);
  if (const int rc = refuse(sy, q, m, s, y); rc != 0) return rc;
  if (iscl != 0 && sy > square_root_of_eps * q && q > 1.110223024625157e-14) {
    const double factor = std::clamp(sy / q, 0.001, 1000.0);
    scale_diagonal(m, ldl, factor);
    matrix::zvscl11(w, w, m, factor);
    q *= factor;
    scale = factor;
  }
  // t needs a vector of its own beside the one that is destroyed; w is wanted twice, y is the caller's.
  double* const t = z + m;
  std::copy_n(y, m, z);
  ldlupd(m, 1.0 / sy, ldl, z, t);
  std::copy_n(w, m, z);
  if (ldlupd(m, -1.0 / q, ldl, z, t) == m) return 0;
  // Definiteness would be lost to rounding: take the addition back.
  std::copy_n(y, m, z);
  return ldlupd(m, -1.0 / sy, ldl, z, t) == m ? 1 : -1;
}

// B + y y'/sy + v v' - w w'/q,  w = B s, q = s'w, v = sqrt(q) (y/sy - w/q): the DFP formula, dual to BFGS on the
// inverse.
int dudfpup(long m, int iscl, double alfa, const double* s, const double* y, double* ldl, double* w, double* v,
            double* z, double& scale)
{
  multiply_ldl(m, ldl, s, w, z);
  const double sy = safe_product(s, y, m);
  double q = safe_product(s, w, m);
  if (const int rc = refuse(sy, q, m, s, y); rc != 0) return rc;
  if (iscl != 0 && alfa > 1.110223024625157e-14) {
    const double factor = std::clamp(1.0 / alfa, 0.001, 1000.0);
    scale_diagonal(m, ldl, factor);
    matrix::zvscl11(w, w, m, factor);
    q *= factor;
    scale = factor;
  }
  double* const t = z + m;
  const double root = std::sqrt(q);
  const auto form_v = [&] {
    for (long i = 0; i < m; ++i) v[i] = root * (y[i] / sy - w[i] / q);
  };
  std::copy_n(y, m, z);
  ldlupd(m, 1.0 / sy, ldl, z, t);
  form_v();
  ldlupd(m, 1.0, ldl, v, t);
  std::copy_n(w, m, z);
  if (ldlupd(m, -1.0 / q, ldl, z, t) == m) return 0;
  form_v();
  if (ldlupd(m, -1.0, ldl, v, t) != m) return -1;
  std::copy_n(y, m, z);
  return ldlupd(m, -1.0 / sy, ldl, z, t) == m ? 1 : -2;
}

// L + (a y - b L w) w',  w = L's. When the curvature is below a tenth of what B expects, y is damped towards B s
// (Powell, A fast algorithm for nonlinearly constrained optimization calculations, 1978, with 0.1 in place of 0.2).
int uvbfgs(long m, int iscl, const double* s, const double* y, double* l, double* w, double* u, double& scale)
{
  std::fill_n(w, m, 0.0);
  for (long i = 0; i < m; ++i) matrix::zvxay11(w, l + packed_row(i), i + 1, s[i]);
  const double sy = zvdot11(s, y, m);
  double ww = zvdot11(w, w, m);
  if (!(ww > tiny_threshold)) return 3;
  if (iscl != 0 && sy > ww * unit_roundoff && ww > 1.110223024625157e-14) {
    const double factor = std::clamp(std::sqrt(sy / ww), 0.001, 1000.0);
    scale_packed(m, l, factor);
    matrix::zvscl11(w, w, m, factor);
    ww *= factor * factor;
    scale = factor * factor;
  }
  double a, b;
  if (sy < 0.1 * ww) {
    const double t = 0.9 * ww / (ww - sy);
    a = t / (ww * 0.31622776601683794);
    b = ((t - 1.0) / 0.31622776601683794 + 1.0) / ww;
  } else {
    a = 1.0 / (std::sqrt(sy) * std::sqrt(ww));
    b = 1.0 / ww;
  }
  for (long i = 0; i < m; ++i) u[i] = a * y[i] - b * zvdot11(l + packed_row(i), w, i + 1);
  llupdat(m, l, u, w);
  return 0;
}

// L + y (p/sqrt(p'p sy) - w/sy)',  p = L^-1 y, w = L's: the inverse transpose of the BFGS product form on the inverse
// factor.
int uvdfp(long m, int iscl, double alfa, const double* s, const double* y, double* l, double* w, double* p,
          double& scale)
{
  std::fill_n(w, m, 0.0);
  for (long i = 0; i < m; ++i) matrix::zvxay11(w, l + packed_row(i), i + 1, s[i]);
  const double sy = zvdot11(s, y, m);
  if (const int rc = refuse(sy, zvdot11(w, w, m), m, s, y); rc != 0) return rc;
  if (iscl != 0 && alfa > 1.110223024625157e-14) {
    const double factor = std::clamp(1.0 / std::sqrt(alfa), 0.01, 100.0);
    scale_packed(m, l, factor);
    matrix::zvscl11(w, w, m, factor);
    scale = factor * factor;
  }
  std::copy_n(y, m, p);
  matrix::zchol2(static_cast<int>(m), l, p);
  const double pp = zvdot11(p, p, m);
  if (!(pp > tiny_threshold)) return 3;
  const double root = std::sqrt(pp * sy);
  for (long i = 0; i < m; ++i) w[i] = p[i] / root - w[i] / sy;
  llupdat(m, l, y, w);
  return 0;
}

int znlpbfg(MINSTR* str, int job, int iscl, double* xdif, double* gdif, double* hess, double* w1, double* w2, double*)
{
  const long m = free_dimension(*str);
  str->scal = 1.0;
  const int rc = job == 1   ? bfgsupd(m, iscl, xdif, gdif, hess, w1, str->scal)
                 : job == 2 ? dubfgsup(m, iscl, xdif, gdif, hess, w1, w2, str->scal)
                            : uvbfgs(m, iscl, xdif, gdif, hess, w1, w2, str->scal);
  if (rc == 0) ++str->nhup;
  return rc;
}

int znlpdfp(MINSTR* str, int job, int iscl, double* xdif, double* gdif, double* hess, double* w1, double* w2,
            double* w3)
{
  const long m = free_dimension(*str);
  str->scal = 1.0;
  const int rc = job == 1   ? dfpupd(m, iscl, str->alfa, xdif, gdif, hess, w1, str->scal)
                 : job == 2 ? dudfpup(m, iscl, str->alfa, xdif, gdif, hess, w1, w2, w3, str->scal)
                            : uvdfp(m, iscl, str->alfa, xdif, gdif, hess, w1, w2, str->scal);
  if (rc == 0) ++str->nhup;
  return rc;
}

} // namespace torvale::optimizer
