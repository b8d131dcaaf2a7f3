#include "matrix/udu.h"

#include <gtest/gtest.h>

#include <cmath>

#include "matrix/dense.h"
#include "matrix/determinant.h"
#include "matrix/reference.h"

namespace torvale::matrix::test {
namespace {

struct Factor {
  std::vector<double> a;
  std::vector<std::int64_t> h;
  double det[5] = {};
  int nullity = 0;
};

Factor factor(const std::vector<double>& packed, int n, double sing)
{
  Factor f;
  f.a = packed;
  f.h.assign(static_cast<std::size_t>(n), 0);
  f.nullity = zududec(n, sing, f.det, f.a.data(), f.h.data());
  return f;
}

void expect_counts(const double* det, int positive, int negative, int zero)
{
  EXPECT_EQ(det[det_positive], positive);
  EXPECT_EQ(det[det_negative], negative);
  EXPECT_EQ(det[det_zero], zero);
}

// Multiplies the factor out again: A = U D U' with U the product of exchanges and unit triangles.
Dense multiply_out(const Factor& f, int n)
{
  const Dense packed = from_symmetric(f.a, n);
  Dense u = identity(n);
  Dense d(n, n);
  for (int k = n - 1; k >= 0;) {
    const std::int64_t entry = f.h[static_cast<std::size_t>(k)];
    const int size = entry < 0 ? 2 : 1;
    const int low = k + 1 - size; // first row of the block
    const int partner = static_cast<int>(entry < 0 ? -1 - entry : entry);
    Dense step = identity(n);
    for (int c = low; c <= k; ++c)
      for (int i = 0; i < low; ++i) step(i, c) = -packed(i, c);            // columns hold the negated multipliers
    for (int i = 0; i < n; ++i) std::swap(step(low, i), step(partner, i)); // P times the triangle
    u = u * step;
    for (int i = low; i <= k; ++i)
      for (int j = low; j <= k; ++j) d(i, j) = packed(i, j);
    k -= size;
  }
  return u * d * transpose(u);
}

TEST(Udu, InertiaAndDeterminantOfTheReferenceMatrices)
{
  for (const SymmetricCase& c : symmetric_cases()) {
    SCOPED_TRACE(c.name);
    const Factor f = factor(c.packed, c.n, c.inertia_tolerance());
    EXPECT_EQ(f.nullity, c.zero);
    expect_counts(f.det, c.positive, c.negative, c.zero);
    const double tolerance = 1e-15 + c.n * eps * (c.condition > 1e100 ? 10.0 : c.condition);
    const double shift = std::pow(10.0, f.det[det_exponent] - c.det_exponent);
    EXPECT_NEAR(f.det[det_mantissa] * shift, c.det_mantissa, tolerance * std::fabs(c.det_mantissa));
    if (c.zero > 0) {
      EXPECT_EQ(f.det[det_mantissa], 0.0);
      EXPECT_EQ(f.det[det_exponent], 0.0);
    } else {
      EXPECT_GE(std::fabs(f.det[det_mantissa]), 1.0);
      EXPECT_LT(std::fabs(f.det[det_mantissa]), 10.0);
    }
  }
}

TEST(Udu, RowTolerancesGiveTheInertiaOfScaledMatrices)
{
  for (const SymmetricCase& c : symmetric_cases()) {
    if (c.zero > 0 || c.condition < 1e100) continue;
    SCOPED_TRACE(c.name);
    // The scale of a row: the root of its diagonal element, or where that is zero what its other elements
    // say, given the scales of their columns.
    const Dense a = from_symmetric(c.packed, c.n);
    std::vector<double> tolerance;
    std::vector<long double> d(static_cast<std::size_t>(c.n), 0.0L);
    for (int i = 0; i < c.n; ++i) d[static_cast<std::size_t>(i)] = std::sqrt(std::fabs(a(i, i)));
    for (int i = 0; i < c.n; ++i) {
      if (a(i, i) != 0.0L) continue;
      for (int j = 0; j < c.n; ++j)
        if (a(j, j) != 0.0L)
          d[static_cast<std::size_t>(i)] =
              std::max(d[static_cast<std::size_t>(i)], std::fabs(a(i, j)) / d[static_cast<std::size_t>(j)]);
    }
    for (int i = 0; i < c.n; ++i) {
      // A 1x1 pivot is of size d^2, the cross element of a 2x2 pivot of that of the row's largest element.
      const long double scale = d[static_cast<std::size_t>(i)];
      long double m = 0.0L;
      for (int j = 0; j < c.n; ++j) m = std::max(m, std::fabs(a(i, j)));
      tolerance.push_back(static_cast<double>(std::min(scale * scale, m)) * c.n * eps);
    }
    Factor f;
    f.a = c.packed;
    f.h.assign(static_cast<std::size_t>(c.n), 0);
    EXPECT_EQ(zudude2(c.n, tolerance.data(), f.det, f.a.data(), f.h.data()), 0);
    expect_counts(f.det, c.positive, c.negative, 0);
  }
}

TEST(Udu, RowTolerancesTravelWithTheirRows)
{
  // The pivot of the last row is exchanged with row 0, so row 0's tolerance is tested last where the
  // exchange has put the old last row.
  std::vector<double> a = {5.0, 3.0, 0.0};
  std::vector<std::int64_t> h(2);
  double tolerance[2] = {0.0, 2.0};
  double det[5];
  EXPECT_EQ(zudude2(2, tolerance, det, a.data(), h.data()), 1);
  EXPECT_EQ(tolerance[0], 2.0);
  EXPECT_EQ(tolerance[1], 0.0);
  expect_counts(det, 1, 0, 1); // 0 - 9/5 is at most 2 in size

  // A 2x2 pivot on rows 2 and 0: rows 0 and 1 change places, and what is left of row 1 is 1e-3.
  std::vector<double> b = {0.0, 0.0, 1e-3, 5.0, 0.0, 0.0};
  std::vector<std::int64_t> pivots(3);
  double tolerances[3] = {0.0, 1e-2, 0.0};
  EXPECT_EQ(zudude2(3, tolerances, det, b.data(), pivots.data()), 1);
  EXPECT_EQ(pivots, (std::vector<std::int64_t>{0, -1, -1}));
  EXPECT_EQ(tolerances[0], 1e-2);
  expect_counts(det, 1, 1, 1);
}

TEST(Udu, ReconstructsRandomIndefiniteMatrices)
{
  Source source(1);
  for (int trial = 0; trial < 200; ++trial) {
    const int n = source.integer(1, 40);
    std::vector<double> a = source.symmetric(n);
    if (trial % 3 == 0) // zero diagonals call for 2x2 pivots
      for (int i = 0; i < n; ++i) a[static_cast<std::size_t>(packed_diagonal(i))] = 0.0;
    const double scale = std::pow(10.0, 150.0 * (trial % 5 - 2) / 2.0);
    for (double& x : a) x *= scale;
    const Factor f = factor(a, n, 0.0);
    const Dense full = from_symmetric(a, n);
    EXPECT_LE(difference(multiply_out(f, n), full), 20.0 * n * eps * largest(full)) << "order " << n;
  }
}

// Well-conditioned matrices, their rows and columns scaled by up to 10^span: determinants reach 10^(+-17000).
TEST(Udu, DeterminantsFarOutsideTheRangeOfDoubles)
{
  Source source(5);
  for (int trial = 0; trial < 120; ++trial) {
    const int n = source.integer(1, 60);
    const std::vector<double> a = source.positive_definite(n, trial % 4 * 50.0);
    const Factor f = factor(a, n, 0.0);
    const Product truth = determinant(from_symmetric(a, n));
    // Both as natural logarithms plus what is left, so that the large parts cancel in long double.
    const long double log_truth = static_cast<long double>(truth.exponent) * std::log(2.0L) + std::log(truth.mantissa);
    const long double log_got = static_cast<long double>(f.det[det_exponent]) * std::log(10.0L) +
                                std::log(static_cast<long double>(f.det[det_mantissa]));
    EXPECT_NEAR(static_cast<double>(log_got - log_truth), 0.0, 20.0 * n * eps) << "order " << n;
    EXPECT_EQ(f.det[det_positive], n);
  }
}

TEST(Udu, SolvesAndInvertsToTheConditionOfTheReferenceMatrices)
{
  for (const SymmetricCase& c : symmetric_cases()) {
    if (c.zero > 0) continue;
    SCOPED_TRACE(c.name);
    Factor f = factor(c.packed, c.n, 0.0);
    // Two right-hand sides side by side, the second twice the first.
    std::vector<double> b(static_cast<std::size_t>(3 * c.n), -7.0);
    for (int i = 0; i < c.n; ++i) {
      b[static_cast<std::size_t>(3 * i)] = c.right_hand_side[static_cast<std::size_t>(i)];
      b[static_cast<std::size_t>(3 * i + 1)] = 2.0 * c.right_hand_side[static_cast<std::size_t>(i)];
    }
    zudusol(c.n, 2, 3, f.a.data(), b.data(), f.h.data());
    std::vector<double> work(static_cast<std::size_t>(c.n));
    zuduinv(c.n, f.a.data(), f.h.data(), work.data());

    const double error = c.n * eps * (c.condition > 1e100 ? 10.0 : 4.0 * c.condition);
    double size = 0.0;
    for (const double x : c.solution) size = std::max(size, std::fabs(x));
    for (int i = 0; i < c.n; ++i) {
      const auto at = static_cast<std::size_t>(i);
      EXPECT_NEAR(b[3 * at], c.solution[at], error * size);
      EXPECT_EQ(b[3 * at + 1], 2.0 * b[3 * at]);
      EXPECT_EQ(b[3 * at + 2], -7.0);
    }
    size = 0.0;
    for (const double x : c.inverse) size = std::max(size, std::fabs(x));
    for (std::size_t i = 0; i < f.a.size(); ++i) EXPECT_NEAR(f.a[i], c.inverse[i], error * size);
  }
}

TEST(Udu, RandomInverseTimesMatrixIsTheIdentity)
{
  Source source(2);
  for (int trial = 0; trial < 100; ++trial) {
    const int n = source.integer(1, 30);
    std::vector<double> a = source.symmetric(n);
    for (int i = 0; i < n; ++i) a[static_cast<std::size_t>(packed_diagonal(i))] = 0.0;
    if (n % 2 == 1) a.back() = 1.0;
    Factor f = factor(a, n, 0.0);
    std::vector<double> work(static_cast<std::size_t>(n));
    zuduinv(n, f.a.data(), f.h.data(), work.data());
    const Dense inverse = from_symmetric(f.a, n);
    const Dense full = from_symmetric(a, n);
    EXPECT_LE(difference(full * inverse, identity(n)), 10.0 * n * n * eps * largest(full) * largest(inverse));
  }
}

TEST(Udu, ExamplesWithKnownPivots)
{
  Factor f = factor({3.0}, 1, 3.0);
  EXPECT_EQ(f.nullity, 1);
  EXPECT_EQ(f.h[0], 0);

  f = factor({0.0, 1.0, 0.0}, 2, 0.0);
  EXPECT_EQ(f.h[0], -1);
  EXPECT_EQ(f.h[1], -1);
  EXPECT_EQ(f.nullity, 0);
  expect_counts(f.det, 1, 1, 0);
  EXPECT_EQ(f.det[det_mantissa], -1.0);

  // Only the last column is negligible: its neighbour must keep its place in a 2x2 pivot.
  f = factor({0.0, 5.0, 0.0, 0.0, 1e-20, 0.0}, 3, 1e-12);
  EXPECT_EQ(f.nullity, 1);
  expect_counts(f.det, 1, 1, 1);
}

TEST(Udu, RestrictedSolveUsesThePositivePivotsOnly)
{
  // Diagonal pivots 4, -2, 3 and no exchange: the negative one passes its right-hand side through.
  const std::vector<double> a = {4.0, 0.0, -2.0, 0.0, 0.0, 3.0};
  const Factor f = factor(a, 3, 0.0);
  std::vector<double> b = {8.0, 5.0, 9.0};
  zuduso2(3, 1, 1, 0.0, f.a.data(), b.data(), f.h.data());
  EXPECT_EQ(b, (std::vector<double>{2.0, 5.0, 3.0}));

  // On a positive definite matrix it is the whole solve.
  Source source(3);
  const std::vector<double> positive = source.positive_definite(9, 0.0);
  const Factor g = factor(positive, 9, 0.0);
  std::vector<double> x = source.values(9);
  std::vector<double> y = x;
  zudusol(9, 1, 1, g.a.data(), x.data(), g.h.data());
  zuduso2(9, 1, 1, 1e-12, g.a.data(), y.data(), g.h.data());
  EXPECT_EQ(x, y);
}

TEST(Determinant, HugeProductsKeepTheirDigits)
{
  // 60 factors of 7e150 and 60 of 1e-150 / 7: the product is 1.
  double det[5];
  determinant_start(det);
  for (int i = 0; i < 60; ++i) determinant_multiply(det, 7e150);
  EXPECT_NEAR(det[det_exponent], 60 * 150 + 50, 1.0);
  for (int i = 0; i < 60; ++i) determinant_multiply(det, 1e-150 / 7.0);
  EXPECT_NEAR(det[det_mantissa] * std::pow(10.0, det[det_exponent]), 1.0, 240 * eps);

  // Mantissas stay in 1 to 10 at every step.
  Source source(4);
  determinant_start(det);
  for (int i = 0; i < 3000; ++i) {
    determinant_multiply(det, std::pow(10.0, 20.0 * source.uniform()));
    ASSERT_GE(det[det_mantissa], 1.0);
    ASSERT_LT(det[det_mantissa], 10.0);
  }

  determinant_start(det);
  determinant_multiply(det, 9.999999999999999);
  EXPECT_EQ(det[det_mantissa], 9.999999999999999);
  determinant_multiply(det, -1e300);
  EXPECT_EQ(det[det_exponent], 300.0);
  determinant_multiply(det, INFINITY);
  EXPECT_EQ(det[det_mantissa], -INFINITY);
  determinant_multiply(det, 0.0);
  EXPECT_EQ(det[det_mantissa], 0.0);
  EXPECT_EQ(det[det_exponent], 0.0);
}

} // namespace
} // namespace torvale::matrix::test
