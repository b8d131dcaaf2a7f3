#include "matrix/eigenvalues.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>

#include "matrix/dense.h"
#include "matrix/reference.h"

namespace torvale::matrix::test {
namespace {

std::vector<double> eigenvalues(std::vector<double> packed, int n, int nval)
{
  std::vector<double> work(static_cast<std::size_t>(5 * n));
  std::vector<double> val(static_cast<std::size_t>(std::abs(nval)) + 1, -77.0);
  EXPECT_EQ(zeigval(n, packed.data(), val.data(), nval, work.data()), 0);
  EXPECT_EQ(val.back(), -77.0); // exactly |nval| values are written
  val.pop_back();
  return val;
}

double spread(const SymmetricCase& c)
{
  return std::max(std::fabs(c.eigenvalues.front()), std::fabs(c.eigenvalues.back()));
}

TEST(Eigenvalues, AllAndSomeOfTheReferenceMatrices)
{
  for (const SymmetricCase& c : symmetric_cases()) {
    SCOPED_TRACE(c.name);
    const double tolerance = 1e-14 * c.n * spread(c);
    for (int nval = 1; nval <= c.n; ++nval) {
      const std::vector<double> largest = eigenvalues(c.packed, c.n, nval);
      const std::vector<double> smallest = eigenvalues(c.packed, c.n, -nval);
      for (int i = 0; i < nval; ++i) {
        const auto at = static_cast<std::size_t>(i);
        EXPECT_NEAR(largest[at], c.eigenvalues[c.eigenvalues.size() - 1 - at], tolerance);
        EXPECT_NEAR(smallest[at], c.eigenvalues[at], tolerance);
      }
      EXPECT_TRUE(std::is_sorted(largest.rbegin(), largest.rend()));
      EXPECT_TRUE(std::is_sorted(smallest.begin(), smallest.end()));
    }
  }
}

TEST(Eigenvalues, ImplicitQlAgrees)
{
  for (const SymmetricCase& c : symmetric_cases()) {
    if (c.largest > 1e100 || c.largest < 1e-100) continue; // its input must be in range of its squares
    SCOPED_TRACE(c.name);
    const auto n = static_cast<std::size_t>(c.n);
    std::vector<double> a = c.packed;
    std::vector<double> tri(3 * n);
    std::vector<double> d(n);
    std::vector<double> e(n);
    std::vector<int> block(n);
    ztred3(c.n, a.data(), tri.data());
    ASSERT_EQ(zimtqlv(c.n, tri.data(), d.data(), block.data(), e.data()), 0);
    for (std::size_t i = 0; i < n; ++i) EXPECT_NEAR(d[i], c.eigenvalues[i], 1e-14 * c.n * spread(c));
  }
}

TEST(Eigenvalues, VectorsDiagonalize)
{
  Source source(51);
  const auto check = [](const Dense& full, double size) {
    const int n = full.rows;
    std::vector<double> z(static_cast<std::size_t>(n * n));
    for (std::size_t i = 0; i < z.size(); ++i) z[i] = static_cast<double>(full.values[i]);
    std::vector<double> d(static_cast<std::size_t>(n));
    std::vector<double> e = d;
    ztred2(n, z.data(), d.data(), e.data());
    std::vector<double> values_only = d;
    std::vector<double> off = e;
    ASSERT_EQ(ztql2(n, z.data(), d.data(), e.data(), 1), 0);
    EXPECT_TRUE(std::is_sorted(d.rbegin(), d.rend()));
    const Dense v = from_rows(z, n, n);
    Dense diagonal(n, n);
    for (int i = 0; i < n; ++i) diagonal(i, i) = d[static_cast<std::size_t>(i)];
    EXPECT_LE(difference(transpose(v) * v, identity(n)), 20.0 * n * eps);
    EXPECT_LE(difference(v * diagonal * transpose(v), full), 20.0 * n * eps * size);
    ASSERT_EQ(ztql2(n, nullptr, values_only.data(), off.data(), 0), 0);
    EXPECT_EQ(values_only, d);
    // Bisection on the packed matrix finds the same.
    std::vector<double> packed(packed_length(n));
    for (int i = 0; i < n; ++i)
      for (int j = 0; j <= i; ++j)
        packed[static_cast<std::size_t>(packed_index(i, j))] = static_cast<double>(full(i, j));
    const std::vector<double> bisected = eigenvalues(packed, n, n);
    for (std::size_t i = 0; i < d.size(); ++i) EXPECT_NEAR(bisected[i], d[i], 20.0 * n * eps * size);
  };
  for (const SymmetricCase& c : symmetric_cases()) {
    SCOPED_TRACE(c.name);
    check(from_symmetric(c.packed, c.n), spread(c));
  }
  for (int n = 1; n <= 60; n += 7)
    for (const double scale : {1.0, 1e150, 1e-150}) {
      std::vector<double> a = source.symmetric(n);
      for (double& x : a) x *= scale;
      check(from_symmetric(a, n), 2.0 * n * scale);
    }
}

// T with 2 on the diagonal and -1 beside it has the eigenvalues 2 - 2 cos(k pi / (n+1)).
TEST(Eigenvalues, BlocksOfATridiagonalMatrix)
{
  const double pi = std::acos(-1.0);
  // Two copies of the order 4 matrix and a single 5 between: rows 0-3, 4, 5-8.
  constexpr int n = 9;
  std::vector<double> tri(3 * n, 0.0);
  for (int i = 0; i < n; ++i) tri[static_cast<std::size_t>(i)] = i == 4 ? 5.0 : 2.0;
  for (const int i : {1, 2, 3, 6, 7, 8}) {
    tri[static_cast<std::size_t>(n + i)] = -1.0;
    tri[static_cast<std::size_t>(2 * n + i)] = 1.0;
  }
  std::vector<double> val(n);
  std::vector<int> block(n);
  std::vector<double> work(2 * n);
  ASSERT_EQ(zbisect(n, 3, 0.0, tri.data(), val.data(), block.data(), work.data()), 3);
  EXPECT_EQ(val[0], 5.0);
  EXPECT_EQ(block[0], 1);
  const double top = 2.0 - 2.0 * std::cos(4.0 * pi / 5.0);
  EXPECT_NEAR(val[1], top, 1e-15);
  EXPECT_NEAR(val[2], top, 1e-15);
  EXPECT_EQ(block[1] + block[2], 2); // one from each of the blocks 0 and 2

  // Asking for fewer than a cluster holds gives as many as asked.
  ASSERT_EQ(zbisect(n, -1, 0.0, tri.data(), val.data(), block.data(), work.data()), 1);
  EXPECT_NEAR(val[0], 2.0 - 2.0 * std::cos(pi / 5.0), 1e-15);

  ASSERT_EQ(zbisect(n, -n, 1e-3, tri.data(), val.data(), nullptr, work.data()), n);
  for (int i = 0; i < 8; ++i)
    EXPECT_NEAR(val[static_cast<std::size_t>(i)], 2.0 - 2.0 * std::cos((i / 2 + 1) * pi / 5.0), 1e-3);

  std::vector<double> d(n);
  std::vector<double> e(n);
  ASSERT_EQ(zimtqlv(n, tri.data(), d.data(), block.data(), e.data()), 0);
  for (int i = 0; i < 8; ++i)
    EXPECT_NEAR(d[static_cast<std::size_t>(i)], 2.0 - 2.0 * std::cos((i / 2 + 1) * pi / 5.0), 1e-14);
  EXPECT_EQ(block.back(), 2);
}

TEST(Eigenvalues, SingularBlockRoundsToZero)
{
  const std::vector<double> val = eigenvalues({1.0, 1.0, 1.0}, 2, -2);
  EXPECT_NEAR(val[0], 0.0, 2 * eps);
  EXPECT_NEAR(val[1], 2.0, 4 * eps);
}

TEST(Eigenvalues, RefusedCalls)
{
  double a[1] = {NAN};
  double val[1] = {0.0};
  double work[5] = {};
  EXPECT_EQ(zeigval(1, a, val, 0, work), 0);
  EXPECT_EQ(zeigval(0, a, val, 1, work), 99);
  EXPECT_EQ(zeigval(1, a, val, 2, work), 99);
  EXPECT_EQ(zeigval(1, nullptr, val, 1, work), 99);
  EXPECT_EQ(zeigval(1, a, nullptr, 1, work), 99);
  EXPECT_EQ(zeigval(1, a, val, 1, nullptr), 99);

  // A NaN cannot be found by either method.
  double b[3] = {NAN, NAN, 1.0};
  double two[2] = {1.0, 1.0};
  double more[10] = {};
  EXPECT_EQ(zeigval(2, b, two, -2, more), -30);
  EXPECT_EQ(std::bit_cast<std::uint64_t>(two[1]), 0xFFFFFE0000000000u);
}

// Orders at which the routines go in tiles, and all values by another road than some of them; what stands above the
// diagonal is not read.
TEST(Eigenvalues, LargerOrders)
{
  Source source(52);
  for (const int n : {16, 33, 70}) {
    const auto order = static_cast<std::size_t>(n);
    std::vector<double> packed(order * (order + 1) / 2), z(order * order, 1e300);
    for (double& element : packed) element = source.uniform();
    for (std::size_t i = 0, at = 0; i < order; ++i)
      for (std::size_t j = 0; j <= i; ++j, ++at) z[i * order + j] = packed[at];
    std::vector<double> d(order), e(order);
    ztred2(n, z.data(), d.data(), e.data());
    ASSERT_EQ(ztql2(n, z.data(), d.data(), e.data(), 1), 0);
    const double tolerance = 1e-14 * n * std::max(std::fabs(d.front()), std::fabs(d.back()));
    for (std::size_t i = 0, at = 0; i < order; ++i)
      for (std::size_t j = 0; j <= i; ++j, ++at) {
        double sum = 0.0;
        for (std::size_t k = 0; k < order; ++k) sum += z[i * order + k] * d[k] * z[j * order + k];
        EXPECT_NEAR(sum, packed[at], tolerance) << n << " " << i << " " << j;
      }
    const std::vector<double> all = eigenvalues(packed, n, n), most = eigenvalues(packed, n, 1),
                              least = eigenvalues(packed, n, -n);
    EXPECT_NEAR(all[0], most[0], tolerance);
    for (std::size_t i = 0; i < order; ++i) {
      EXPECT_NEAR(all[i], d[i], tolerance);
      EXPECT_NEAR(least[i], all[order - 1 - i], tolerance);
    }
  }
}
} // namespace
} // namespace torvale::matrix::test
