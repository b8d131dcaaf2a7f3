#include "integration/rules/quadrature_points.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <utility>
#include <vector>

namespace torvale::integration {

namespace {

constexpr double unit_roundoff = 1.110223024625157e-16;
constexpr double root_pi = 1.772453850905516; // integral of exp(-x^2)
constexpr int most_sweeps = 30;

// First negligible subdiagonal at or after l, or n - 1.
int block_end(int n, int l, const double* d, const double* e)
{
  for (int m = l; m < n - 1; ++m)
    if (unit_roundoff * (std::abs(d[m]) + std::abs(d[m + 1])) >= std::abs(e[m])) return m;
  return n - 1;
}

// One implicit QL sweep over rows l..m with the shift of the leading 2 x 2 block.
void ql_sweep(int l, int m, double* d, double* e, double* z)
{
  double g = (d[l + 1] - d[l]) / (2.0 * e[l]);
  double r = std::sqrt(g * g + 1.0);
  g = d[m] - d[l] + e[l] / (g < 0.0 ? g - r : g + r);
  double s = 1.0, c = 1.0, p = 0.0;
  for (int i = m - 1; i >= l; --i) {
    double f = s * e[i];
    const double b = c * e[i];
    if (std::abs(g) <= std::abs(f)) {
      c = g / f;
      r = std::sqrt(c * c + 1.0);
      e[i + 1] = f * r;
      s = 1.0 / r;
      c *= s;
    } else {
      s = f / g;
      r = std::sqrt(s * s + 1.0);
      e[i + 1] = g * r;
      c = 1.0 / r;
      s *= c;
    }
    g = d[i + 1] - p;
    r = (d[i] - g) * s + 2.0 * c * b;
    p = s * r;
    d[i + 1] = g + p;
    g = c * r - b;
    f = z[i + 1];
    z[i + 1] = s * z[i] + c * f;
    z[i] = c * z[i] - s * f;
  }
  d[l] -= p;
  e[l] = g;
  e[m] = 0.0;
}

} // namespace

int imtql2(int n, double* d, double* e, double* z)
{
  int failed = 0;
  e[n - 1] = 0.0;
  for (int l = 0; l < n && failed == 0; ++l) {
    for (int sweeps = 0;; ++sweeps) {
      const int m = block_end(n, l, d, e);
      if (m == l) break;
      if (sweeps == most_sweeps) {
        failed = l;
        break;
      }
      ql_sweep(l, m, d, e, z);
    }
  }
  for (int i = 0; i + 1 < n; ++i) {
    const auto k = std::min_element(d + i, d + n) - d;
    if (k == i) continue;
    std::swap(d[i], d[k]);
    std::swap(z[i], z[k]);
  }
  return failed;
}

int GaussHermite(int n, double* absc, double* herm, double atol, double htol, int& dropped)
{
  dropped = 0;
  if (n == 1) {
    absc[0] = 0.0;
    herm[0] = std::log(root_pi);
    return 0;
  }
  std::vector<double> e(static_cast<std::size_t>(n), 0.0); // Jacobi matrix of the Hermite polynomials: zero diagonal
  for (int k = 1; k < n; ++k) e[static_cast<std::size_t>(k - 1)] = std::sqrt(k / 2.0);
  std::fill_n(absc, n, 0.0);
  std::fill_n(herm, n, 0.0);
  herm[0] = 1.0;
  if (imtql2(n, absc, e.data(), herm) != 0) return 1;
  for (int i = 0; i < n; ++i) {
    if (std::abs(absc[i]) < atol) absc[i] = 0.0;
    const double first = std::abs(herm[i]);
    if (first > htol) {
      herm[i] = 2.0 * std::log(first) + std::log(root_pi);
    } else {
      herm[i] = std::numeric_limits<double>::lowest();
      ++dropped;
    }
  }
  return 0;
}

} // namespace torvale::integration
