#include <algorithm>
#include <cmath>

#include "matrix/orthogonal.h"
#include "matrix/sparse/sparse_cholesky.h"

namespace torvale::matrix {

namespace {

// x x' has no element outside the structure if the column of x's first element couples it with all others: the
// structures of later columns on its path hold what is left of them.
bool structure_holds(int n, const int* jusl, const double* x)
{
  const int first = static_cast<int>(std::find_if(x, x + n, [](double v) { return v != 0.0; }) - x);
  const int* const list = jusl + n + 1;
  int m = first < n ? jusl[first] : 0;
  for (int i = first + 1; i < n; ++i) {
    if (x[i] == 0.0) continue;
    while (m < jusl[first + 1] && list[2 * m + 1] < i) ++m;
    if (m == jusl[first + 1] || list[2 * m + 1] != i) return false;
  }
  return true;
}

void no_rotations(int n, double* dcds)
{
  for (int j = 0; j < n; ++j) {
    dcds[2 * j] = 1.0;
    dcds[2 * j + 1] = 0.0;
  }
}

} // namespace

// A rotation of column j with x brings x[j] into the diagonal; what x becomes further down is carried on.
int zslltra(int n, const int* ju, const int* jusl, double* u, double* x, double* dcds)
{
  if (!structure_holds(n, jusl, x)) return structure_fault;
  const int* const list = jusl + n + 1;
  no_rotations(n, dcds);
  for (int j = 0; j < n; ++j) {
    if (x[j] == 0.0) continue;
    double c = 1.0;
    double s = 0.0;
    (void)zgivcon(u + ju[j + 1] - 1, x + j, &c, &s); // the compact form is not wanted
    for (int m = jusl[j]; m < jusl[j + 1]; ++m) {
      double& l = u[list[2 * m]];
      double& xi = x[list[2 * m + 1]];
      const double old = l;
      l = c * old + s * xi;
      xi = c * xi - s * old;
    }
    dcds[2 * j] = c;
    dcds[2 * j + 1] = s;
  }
  return 0;
}

// With L p = x and q^2 = 1 - p'p, rotations from the last column up turn (p, q) into (0, 1); applied to the
// rows of (L, 0) they leave (L~, x) with L~ L~' = L L' - x x' (LINPACK's DCHDD).
int zslltrd(int n, const int* ju, const int* jusl, double* u, double* x, double* dcds)
{
  if (!structure_holds(n, jusl, x)) return structure_fault;
  const int* const columns = ju + n + 1;
  double rest = 1.0;
  for (int k = 0; k < n; ++k) {
    const int diagonal = ju[k + 1] - 1;
    for (int t = ju[k]; t < diagonal; ++t) x[k] -= u[t] * x[columns[t]];
    if (x[k] == 0.0) continue;
    if (u[diagonal] == 0.0) return 1;
    x[k] /= u[diagonal];
    rest -= x[k] * x[k];
  }
  if (!(rest > 0.0)) return 1;

  double q = std::sqrt(rest);
  for (int j = n - 1; j >= 0; --j) {
    const double length = std::hypot(q, x[j]);
    dcds[2 * j] = q / length;
    dcds[2 * j + 1] = x[j] / length;
    q = length;
  }
  for (int k = 0; k < n; ++k) {
    double carried = 0.0;
    for (int t = ju[k + 1] - 1; t >= ju[k]; --t) {
      const double c = dcds[2 * columns[t]];
      const double s = dcds[2 * columns[t] + 1];
      const double l = u[t];
      u[t] = c * l - s * carried;
      carried = c * carried + s * l;
    }
  }
  return 0;
}

} // namespace torvale::matrix
