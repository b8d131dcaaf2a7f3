#include "matrix/cholesky.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "matrix/dense.h"
#include "matrix/modified_cholesky.h"
#include "matrix/reference.h"

namespace torvale::matrix::test {
namespace {

int factor(std::vector<double>& l, int n, double tol)
{
  int nullity = 0;
  for (int k = 0; k < n; ++k) nullity += zchol(k, l.data(), tol);
  return nullity;
}

double largest_diagonal(const std::vector<double>& a, int n)
{
  double d = 0.0;
  for (int i = 0; i < n; ++i) d = std::max(d, a[static_cast<std::size_t>(packed_diagonal(i))]);
  return d;
}

// C(i+j, j) has the Cholesky factor C(i, j): integers, so the answer is exact.
TEST(Cholesky, PascalMatrixGivesBinomials)
{
  constexpr int n = 12;
  std::vector<double> binomial(packed_length(n));
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j)
      binomial[static_cast<std::size_t>(packed_index(i, j))] =
          j == 0 || j == i ? 1.0
                           : binomial[static_cast<std::size_t>(packed_index(i - 1, j))] +
                                 binomial[static_cast<std::size_t>(packed_index(i - 1, j - 1))];
  const Dense l = from_lower(binomial, n);
  const Dense a = l * transpose(l);
  std::vector<double> packed(packed_length(n));
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) packed[static_cast<std::size_t>(packed_index(i, j))] = static_cast<double>(a(i, j));
  EXPECT_EQ(factor(packed, n, 0.0), 0);
  EXPECT_EQ(packed, binomial);
}

TEST(Cholesky, FactorAndSolutionOfTheReferenceMatrices)
{
  for (const SymmetricCase& c : symmetric_cases()) {
    if (!c.positive_definite) continue;
    SCOPED_TRACE(c.name);
    std::vector<double> l = c.packed;
    ASSERT_EQ(factor(l, c.n, 0.0), 0);
    const double relative = c.n * eps * (c.condition > 1e100 ? 10.0 : c.condition);
    for (int i = 0; i < c.n; ++i)
      for (int j = 0; j <= i; ++j) {
        const auto at = static_cast<std::size_t>(packed_index(i, j));
        EXPECT_NEAR(l[at], c.cholesky[at],
                    relative * std::sqrt(c.packed[static_cast<std::size_t>(packed_diagonal(i))]));
      }
    std::vector<double> x = c.right_hand_side;
    zchol2(c.n, l.data(), x.data());
    zbaksub(c.n, l.data(), x.data());
    double size = 0.0;
    for (const double v : c.solution) size = std::max(size, std::fabs(v));
    for (std::size_t i = 0; i < x.size(); ++i) EXPECT_NEAR(x[i], c.solution[i], 4.0 * relative * size);
  }
}

TEST(Cholesky, ReconstructsScaledRandomMatrices)
{
  Source source(11);
  for (int trial = 0; trial < 150; ++trial) {
    const int n = source.integer(1, 60);
    std::vector<double> a = source.positive_definite(n, trial % 3 * 70.0);
    std::vector<double> l = a;
    ASSERT_EQ(factor(l, n, 0.0), 0);
    const Dense lower = from_lower(l, n);
    const Dense product = lower * transpose(lower);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j <= i; ++j) {
        const long double scale = std::sqrt(product(i, i)) * std::sqrt(product(j, j));
        const long double error = product(i, j) - a[static_cast<std::size_t>(packed_index(i, j))];
        ASSERT_LE(std::fabs(error), 4.0L * n * eps * scale) << "order " << n;
      }
  }
}

TEST(Cholesky, DeficientRowsLeaveZerosAndAreCounted)
{
  for (const SymmetricCase& c : symmetric_cases()) {
    if (c.negative > 0 || c.zero == 0) continue;
    SCOPED_TRACE(c.name);
    std::vector<double> l = c.packed;
    EXPECT_EQ(factor(l, c.n, 1.1e-12 * largest_diagonal(c.packed, c.n)), c.zero);
    // The factor of a semi-definite matrix still gives the matrix back.
    const Dense lower = from_lower(l, c.n);
    const Dense a = from_symmetric(c.packed, c.n);
    EXPECT_LE(difference(lower * transpose(lower), a), 20.0 * c.n * eps * c.largest);
  }
  // Row 1 repeats row 0, and the solves pass over its zero.
  std::vector<double> l = {4.0, 4.0, 4.0, 2.0, 2.0, 5.0};
  EXPECT_EQ(factor(l, 3, 1e-12), 1);
  EXPECT_EQ(l, (std::vector<double>{2.0, 2.0, 0.0, 1.0, 0.0, 2.0}));
  std::vector<double> x = {2.0, 2.0, 5.0};
  zchol2(3, l.data(), x.data());
  EXPECT_EQ(x, (std::vector<double>{1.0, 0.0, 2.0}));
  zbaksub(3, l.data(), x.data());
  EXPECT_EQ(x, (std::vector<double>{0.0, 0.0, 1.0}));
  // A NaN is a refused pivot, not a factor.
  std::vector<double> nan = {std::numeric_limits<double>::quiet_NaN()};
  EXPECT_EQ(factor(nan, 1, 0.0), 1);
  EXPECT_EQ(nan[0], 0.0);
}

TEST(Cholesky, TriangleTimesItsInverseIsTheIdentity)
{
  Source source(12);
  for (int n = 1; n <= 40; ++n) {
    std::vector<double> l = source.triangle(n);
    for (double& x : l) x *= n % 3 == 0 ? 1.0 : (n % 3 == 1 ? 1e150 : 1e-150);
    std::vector<double> inverse = l;
    std::vector<double> work(static_cast<std::size_t>(n));
    ASSERT_EQ(zinvlo(inverse.data(), n, work.data(), 0.0), 0);
    const Dense a = from_lower(l, n);
    const Dense b = from_lower(inverse, n);
    EXPECT_LE(difference(a * b, identity(n)), 10.0 * n * eps * largest(a) * largest(b)) << "order " << n;
  }
  std::vector<double> l = {1.0, 3.0, 1e-13, 0.0, 0.0, 1.0};
  double work[3];
  EXPECT_EQ(zinvlo(l.data(), 3, work, 1e-12), 1);
}

// ---- modified Cholesky

struct Modified {
  std::vector<double> l;
  std::vector<double> emat;
  std::vector<double> gvec;
  std::vector<int> ipiv;
  double delta = 0.0;
};

Modified modify(const std::vector<double>& a, int n)
{
  Modified m;
  m.l = a;
  m.emat.assign(static_cast<std::size_t>(n), -1.0);
  m.gvec.assign(static_cast<std::size_t>(n), -1.0);
  m.ipiv.assign(static_cast<std::size_t>(n), -1);
  m.delta = zmchol(n, m.ipiv.data(), 0.0, 0.0, m.l.data(), m.emat.data(), m.gvec.data());
  return m;
}

// |P (A + E) P' - L L'| relative to the largest element.
double residual(const Modified& m, const std::vector<double>& a, int n)
{
  const Dense l = from_lower(m.l, n);
  Dense b = l * transpose(l);
  for (int i = 0; i < n; ++i) {
    b(i, i) -= m.emat[static_cast<std::size_t>(i)];
    for (int j = 0; j < n; ++j)
      b(i, j) -= a[static_cast<std::size_t>(
          packed_index(m.ipiv[static_cast<std::size_t>(i)], m.ipiv[static_cast<std::size_t>(j)]))];
  }
  return largest(b);
}

TEST(ModifiedCholesky, FactorsTheReferenceMatrices)
{
  for (const SymmetricCase& c : symmetric_cases()) {
    SCOPED_TRACE(c.name);
    const Modified m = modify(c.packed, c.n);
    std::vector<int> order = m.ipiv;
    std::sort(order.begin(), order.end());
    for (int i = 0; i < c.n; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    EXPECT_EQ(m.delta, *std::max_element(m.emat.begin(), m.emat.end()));
    for (int i = 0; i < c.n; ++i) EXPECT_GT(m.l[static_cast<std::size_t>(packed_diagonal(i))], 0.0);
    EXPECT_LE(residual(m, c.packed, c.n), 20.0 * c.n * eps * (c.largest + m.delta) + 1e-8 * dmin); // rootmin is rounded
    if (c.positive_definite && c.condition < 1e5) {
      EXPECT_EQ(m.delta, 0.0);
    }
    // Indefinite: not below what is needed, and not much above: a Gerschgorin circle reaches at most so far.
    const double lambda = c.eigenvalues.front();
    if (lambda < -1e-5 * c.largest) {
      EXPECT_GE(m.delta, -lambda);
      EXPECT_LE(m.delta, -2.0 * lambda * (1.0 + 1e-12));
    }
  }
}

TEST(ModifiedCholesky, AdditionStaysNearTheNegativeEigenvalue)
{
  // Q diag(1..n, one of them negative) Q' with Q a product of random reflections.
  Source source(13);
  double worst = 0.0;
  double total = 0.0;
  constexpr int trials = 200;
  for (int trial = 0; trial < trials; ++trial) {
    const int n = source.integer(4, 20);
    Dense a(n, n);
    for (int i = 0; i < n; ++i) a(i, i) = i + 1;
    a(n / 2, n / 2) = -0.5;
    for (int reflection = 0; reflection < 3; ++reflection) {
      const Dense v = from_rows(source.values(static_cast<std::size_t>(n)), n, 1);
      const Dense q = identity(n) + (-2.0L / (transpose(v) * v)(0, 0)) * (v * transpose(v));
      a = q * a * q;
    }
    std::vector<double> packed(packed_length(n));
    for (int i = 0; i < n; ++i)
      for (int j = 0; j <= i; ++j) packed[static_cast<std::size_t>(packed_index(i, j))] = static_cast<double>(a(i, j));
    const Modified m = modify(packed, n);
    EXPECT_GE(m.delta, 0.5 * (1.0 - 1e-12));
    EXPECT_LE(residual(m, packed, n), 20.0 * n * eps * (n + m.delta));
    worst = std::max(worst, m.delta / 0.5);
    total += m.delta / 0.5;
  }
  // Measured 6.4 and 2.0; pivoting on the wrong end of the Gerschgorin bounds gives 23 and 5.9.
  EXPECT_LE(worst, 8.0);
  EXPECT_LE(total / trials, 2.5);
}

TEST(ModifiedCholesky, ZeroAndScalarMatrices)
{
  const Modified zero = modify({0.0, 0.0, 0.0}, 2);
  EXPECT_EQ(zero.delta, dmin);
  EXPECT_EQ(zero.l, (std::vector<double>{rootmin, 0.0, rootmin}));
  EXPECT_EQ(zero.emat, (std::vector<double>{dmin, dmin}));

  EXPECT_EQ(modify({9.0}, 1).l[0], 3.0);
  const Modified negative = modify({-9.0}, 1);
  EXPECT_NEAR(negative.delta, 9.0 * (1.0 + std::cbrt(eps)), 1e-12);
  EXPECT_NEAR(modify({0.0}, 1).delta, std::cbrt(eps), 1e-18);
  int ipiv = 0;
  double a = 4.0;
  double g = 0.0;
  EXPECT_EQ(zmchol(0, &ipiv, 0.0, 0.0, &a, nullptr, &g), 0.0);
  EXPECT_EQ(zmchol(1, &ipiv, 0.0, 0.0, &a, nullptr, &g), 0.0);
  EXPECT_EQ(a, 2.0);
}

} // namespace
} // namespace torvale::matrix::test
