#include "matrix/sweep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <string>

#include "matrix/dense.h"
#include "matrix/reference.h"

namespace torvale::matrix::test {
namespace {

struct Swept {
  std::vector<double> x;
  std::string df;
  std::vector<double> work;

  Swept(const std::vector<double>& a, int n)
      : x(a), df(static_cast<std::size_t>(n), '0'), work(static_cast<std::size_t>(n))
  {
  }
  int sweep(int k, double sing)
  {
    return qkzsweep(x.data(), k, static_cast<int>(df.size()), df.data(), work.data(), sing);
  }
};

std::vector<int> random_order(int n, Source& source)
{
  std::vector<int> order(static_cast<std::size_t>(n));
  std::iota(order.begin(), order.end(), 0);
  for (int i = n - 1; i > 0; --i)
    std::swap(order[static_cast<std::size_t>(i)], order[static_cast<std::size_t>(source.integer(0, i))]);
  return order;
}

double worst_difference(const std::vector<double>& a, const std::vector<double>& b)
{
  double worst = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i) worst = std::max(worst, std::fabs(a[i] - b[i]));
  return worst;
}

TEST(Sweep, AnyOrderGivesTheInverseAndAnyOrderBackTheMatrix)
{
  Source source(21);
  for (int trial = 0; trial < 200; ++trial) {
    const int n = source.integer(1, 30);
    std::vector<double> a = source.positive_definite(n, 0.0);
    const double scale = trial % 3 == 0 ? 1.0 : (trial % 3 == 1 ? 1e150 : 1e-150);
    for (double& x : a) x *= scale;
    Swept s(a, n);
    for (const int k : random_order(n, source)) ASSERT_EQ(s.sweep(k, 0.0), 0);
    EXPECT_EQ(s.df, std::string(static_cast<std::size_t>(n), '1'));
    const Dense full = from_symmetric(a, n);
    const Dense inverse = from_symmetric(s.x, n);
    EXPECT_LE(difference(full * inverse, identity(n)), 20.0 * n * n * eps * largest(full) * largest(inverse));
    for (const int k : random_order(n, source)) ASSERT_EQ(s.sweep(k, 0.0), 0);
    EXPECT_EQ(s.df, std::string(static_cast<std::size_t>(n), '0'));
    EXPECT_LE(worst_difference(s.x, a), 100.0 * n * eps * largest(full));
  }
}

// After any sequence of sweeps and unsweeps x is what its sets of swept and unswept say.
TEST(Sweep, PartialSweepsHoldInverseCoefficientsAndRest)
{
  Source source(22);
  for (int trial = 0; trial < 200; ++trial) {
    const int n = source.integer(2, 9);
    const std::vector<double> a = source.positive_definite(n, 0.0);
    Swept s(a, n);
    for (int step = 0; step < 12; ++step) ASSERT_EQ(s.sweep(source.integer(0, n - 1), 0.0), 0);
    std::vector<int> in;
    std::vector<int> out;
    for (int i = 0; i < n; ++i) (s.df[static_cast<std::size_t>(i)] == '1' ? in : out).push_back(i);

    const Dense full = from_symmetric(a, n);
    const Dense x = from_symmetric(s.x, n);
    const auto block = [](const Dense& m, const std::vector<int>& rows, const std::vector<int>& cols) {
      Dense b(static_cast<int>(rows.size()), static_cast<int>(cols.size()));
      for (int i = 0; i < b.rows; ++i)
        for (int j = 0; j < b.cols; ++j)
          b(i, j) = m(rows[static_cast<std::size_t>(i)], cols[static_cast<std::size_t>(j)]);
      return b;
    };
    const double tolerance = 1e-13 * n * largest(full);
    const Dense inverse = block(x, in, in);
    const Dense coefficients = block(x, out, in);
    EXPECT_LE(difference(block(full, in, in) * inverse, identity(inverse.rows)), tolerance);
    EXPECT_LE(difference(coefficients * block(full, in, in), block(full, out, in)), tolerance);
    EXPECT_LE(difference(block(x, out, out) + coefficients * block(full, in, out), block(full, out, out)), tolerance);
  }
}

TEST(Sweep, IndefiniteMatricesSweepWithSignFreeTolerance)
{
  for (const SymmetricCase& c : symmetric_cases()) {
    if (c.zero > 0 || c.condition > 1e5) continue;
    SCOPED_TRACE(c.name);
    Swept s(c.packed, c.n);
    // A zero pivot is passed over until the sweeps of its partners have filled it.
    for (int round = 0; round < c.n; ++round)
      for (int k = 0; k < c.n; ++k)
        if (s.df[static_cast<std::size_t>(k)] == '0') s.sweep(k, -0.01 * c.largest); // small pivots would cost digits
    if (s.df != std::string(static_cast<std::size_t>(c.n), '1')) continue;           // needs a 2x2 pivot
    double size = 0.0;
    for (const double v : c.inverse) size = std::max(size, std::fabs(v));
    EXPECT_LE(worst_difference(s.x, c.inverse), 100.0 * c.n * eps * c.condition * size);
  }
}

TEST(Sweep, RefusedPivotChangesNothing)
{
  const std::vector<double> a = {-2.0, 1.0, 1e-13};
  Swept s(a, 2);
  EXPECT_EQ(s.sweep(0, 0.0), 1);   // negative, and sing is a bound from below
  EXPECT_EQ(s.sweep(1, 1e-12), 1); // too small
  EXPECT_EQ(s.sweep(1, -1e-12), 1);
  EXPECT_EQ(s.x, a);
  EXPECT_EQ(s.df, "00");
  EXPECT_EQ(s.sweep(0, -1e-12), 0);
  EXPECT_EQ(s.x, (std::vector<double>{-0.5, -0.5, 1e-13 + 0.5}));
  EXPECT_EQ(s.df, "10");
  EXPECT_EQ(s.sweep(0, 0.0), 1); // a negative pivot is taken back with a sign-free tolerance only
  s.x[2] = NAN;
  EXPECT_EQ(s.sweep(1, 0.0), 1);
}

TEST(Sweep, BorderHoldsTheSolutionWithAPlusSign)
{
  for (const SymmetricCase& c : symmetric_cases()) {
    if (!c.positive_definite || c.condition > 1e8) continue;
    SCOPED_TRACE(c.name);
    std::vector<double> bordered = c.packed;
    bordered.insert(bordered.end(), c.right_hand_side.begin(), c.right_hand_side.end());
    bordered.push_back(0.0);
    std::string df(static_cast<std::size_t>(c.n) + 1, '0');
    std::vector<double> work(static_cast<std::size_t>(c.n) + 1);
    for (int k = 0; k < c.n; ++k) ASSERT_EQ(zsweep(0.0, bordered.data(), k, c.n + 1, df.data(), work.data()), 0);
    double size = 0.0;
    for (const double v : c.solution) size = std::max(size, std::fabs(v));
    for (int i = 0; i < c.n; ++i)
      EXPECT_NEAR(bordered[packed_length(c.n) + static_cast<std::size_t>(i)], c.solution[static_cast<std::size_t>(i)],
                  10.0 * c.n * eps * c.condition * size);
  }
}

} // namespace
} // namespace torvale::matrix::test
