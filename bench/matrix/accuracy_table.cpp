// Prints the table of worst errors in docs/numerics/matrix.md: every factorization on the reference matrices, whose
// results are exact. Errors are in units of the unit roundoff, relative to what is named in the last column.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "matrix/cholesky.h"
#include "matrix/determinant.h"
#include "matrix/eigenvalues.h"
#include "matrix/modified_cholesky.h"
#include "matrix/orthogonal.h"
#include "matrix/sweep.h"
#include "matrix/udu.h"
#include "tests/matrix/dense.h"
#include "tests/matrix/reference.h"

namespace {

using namespace torvale::matrix;
using namespace torvale::matrix::test;

struct Worst {
  double error = 0.0;
  int cases = 0;
  std::string name = "-";

  void take(double e, const std::string& from)
  {
    ++cases;
    if (!(e > error)) return;
    error = e;
    name = from;
  }
  void print(const char* what, const char* relative_to) const
  {
    std::printf("| %s | %d | %.2g | %s | %s |\n", what, cases, error / eps, name.c_str(), relative_to);
  }
};

double largest_of(const std::vector<double>& v)
{
  double m = 0.0;
  for (const double x : v) m = std::max(m, std::fabs(x));
  return m;
}

double worst_difference(const std::vector<double>& a, const std::vector<double>& b)
{
  double m = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i) m = std::max(m, std::fabs(a[i] - b[i]));
  return m;
}

void symmetric_rows()
{
  Worst determinant, inverse, solve, cholesky, sweep, eigenvalue, residual;
  for (const SymmetricCase& c : symmetric_cases()) {
    const auto n = static_cast<std::size_t>(c.n);
    const double spread = std::max(std::fabs(c.eigenvalues.front()), std::fabs(c.eigenvalues.back()));
    // Diagonal scaling does not hurt these methods: a condition that comes from it alone does not count.
    const double condition = c.condition > 1e100 ? 1.0 : c.condition;

    std::vector<double> a = c.packed;
    std::vector<double> val(n);
    std::vector<double> work(5 * n);
    zeigval(c.n, a.data(), val.data(), -c.n, work.data());
    if (spread > 0.0) eigenvalue.take(worst_difference(val, c.eigenvalues) / spread, c.name);

    a = c.packed;
    std::vector<int> ipiv(n);
    std::vector<double> emat(n);
    std::vector<double> gvec(n);
    const double delta = zmchol(c.n, ipiv.data(), 0.0, 0.0, a.data(), emat.data(), gvec.data());
    const Dense l = from_lower(a, c.n);
    Dense product = l * transpose(l);
    for (int i = 0; i < c.n; ++i) {
      product(i, i) -= emat[static_cast<std::size_t>(i)];
      for (int j = 0; j < c.n; ++j)
        product(i, j) -= c.packed[static_cast<std::size_t>(
            packed_index(ipiv[static_cast<std::size_t>(i)], ipiv[static_cast<std::size_t>(j)]))];
    }
    if (c.largest > 0.0) residual.take(largest(product) / (c.largest + delta), c.name);

    if (c.zero > 0) continue;
    std::vector<std::int64_t> h(n);
    double det[5];
    a = c.packed;
    zududec(c.n, 0.0, det, a.data(), h.data());
    const double ratio = det[det_mantissa] / c.det_mantissa * std::pow(10.0, det[det_exponent] - c.det_exponent);
    determinant.take(std::fabs(ratio - 1.0) / condition, c.name);
    std::vector<double> x = c.right_hand_side;
    zudusol(c.n, 1, 1, a.data(), x.data(), h.data());
    solve.take(worst_difference(x, c.solution) / (condition * largest_of(c.solution)), c.name);
    zuduinv(c.n, a.data(), h.data(), work.data());
    inverse.take(worst_difference(a, c.inverse) / (condition * largest_of(c.inverse)), c.name);

    if (!c.positive_definite) continue;
    a = c.packed;
    for (int k = 0; k < c.n; ++k) zchol(k, a.data(), 0.0);
    cholesky.take(worst_difference(a, c.cholesky) / (condition * largest_of(c.cholesky)), c.name);
    a = c.packed;
    std::vector<char> df(n, '0');
    for (int k = 0; k < c.n; ++k) qkzsweep(a.data(), k, c.n, df.data(), work.data(), 0.0);
    sweep.take(worst_difference(a, c.inverse) / (condition * largest_of(c.inverse)), c.name);
  }
  determinant.print("`zududec`: determinant", "itself, condition");
  inverse.print("`zuduinv`: inverse", "its largest element, condition");
  solve.print("`zudusol`: solution", "its largest element, condition");
  cholesky.print("`zchol`: factor", "its largest element, condition");
  sweep.print("`qkzsweep`: inverse", "its largest element, condition");
  residual.print("`zmchol`: P (A + E) P' - L L'", "largest element of A + E");
  eigenvalue.print("`zeigval`: eigenvalues", "the largest");
}

void rectangular_rows()
{
  Worst pivoted, plain;
  for (const RectangularCase& c : rectangular_cases()) {
    for (const bool pivoting : {false, true}) {
      const std::vector<double>& truth = pivoting ? c.pivoted_diagonal : c.unpivoted_diagonal;
      if (truth.empty()) continue;
      std::vector<double> u = c.matrix;
      std::vector<int> ipiv(static_cast<std::size_t>(c.cols), 0);
      std::vector<double> alfa(ipiv.size());
      std::vector<double> sum(ipiv.size());
      zqrdec(c.rows, c.cols, 0, c.cols, 0, pivoting ? ipiv.data() : nullptr, 0.0, u.data(), nullptr, alfa.data(),
             sum.data());
      double worst = 0.0;
      for (int i = 0; i < c.rank; ++i) {
        const auto at = static_cast<std::size_t>(i);
        worst = std::max(worst, std::fabs(std::fabs(alfa[at]) - truth[at]));
      }
      (pivoting ? pivoted : plain).take(worst / c.largest_singular_value, c.name);
    }
  }
  plain.print("`zqrdec`: diagonal of R, no pivoting", "largest singular value");
  pivoted.print("`zqrdec`: diagonal of R, pivoting", "largest singular value");
}

} // namespace

int main()
{
  std::printf("| result | cases | worst error / eps | at | relative to |\n|---|---|---|---|---|\n");
  symmetric_rows();
  rectangular_rows();
  return 0;
}
