#include "matrix/vector_kernels.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "matrix/dense.h"

namespace torvale::matrix::test {
namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

// Sum of a(i) b(i) in long double, and the error that rounding may leave.
struct Sum {
  long double value = 0.0L;
  long double size = 0.0L;
  long terms = 0;

  void add(double a, double b)
  {
    value += static_cast<long double>(a) * b;
    size += std::fabs(static_cast<long double>(a) * b);
    ++terms;
  }
  void expect(double got) const
  {
    const double tolerance = static_cast<double>(size) * eps * static_cast<double>(terms + 2);
    EXPECT_NEAR(got, static_cast<double>(value), tolerance);
  }
};

double at(const std::vector<double>& v, long i)
{
  return v[static_cast<std::size_t>(i)];
}

TEST(VectorKernels, InnerProductsAlongRowsColumnsAndStrides)
{
  Source source(31);
  for (int n = 0; n <= 60; ++n) {
    SCOPED_TRACE(n);
    const double scale = n % 3 == 0 ? 1.0 : (n % 3 == 1 ? 1e150 : 1e-150);
    std::vector<double> s = source.symmetric(n + 1); // one row more than the sums need
    for (double& x : s) x *= scale;
    const std::vector<double> t = source.symmetric(n + 1);
    const std::vector<double> b = source.values(static_cast<std::size_t>(3 * n + 1));
    const long ja = n == 0 ? 0 : source.integer(0, n);
    const long jb = n == 0 ? 0 : source.integer(0, n - 1);
    const double* const row_s = s.data() + packed_row(ja);
    const double* const row_t = t.data() + packed_row(jb);

    Sum plain, strided, walk, walk_strided, walks, column, mixed;
    for (long i = 0; i < n; ++i) {
      const double sa = at(s, packed_index(ja, i));
      plain.add(at(s, i), at(b, i));
      strided.add(at(b, 3 * i), at(s, i));
      walk.add(sa, at(b, i));
      walk_strided.add(sa, at(b, 3 * i));
      walks.add(sa, at(t, packed_index(jb, i)));
      if (i >= jb) {
        column.add(at(t, packed_index(i, jb)), at(b, i));
        mixed.add(sa, at(t, packed_index(i, jb)));
      }
    }
    plain.expect(zvdot11(s.data(), b.data(), n));
    EXPECT_EQ(zinner(s.data(), b.data(), n), zvdot11(s.data(), b.data(), n));
    strided.expect(zvdotj1(b.data(), 3, s.data(), n));
    walk.expect(zvdots1(row_s, ja, b.data(), n));
    walk_strided.expect(zvdotsj(row_s, ja, b.data(), 3, n));
    walks.expect(zvdotss(row_s, ja, row_t, jb, n));
    column.expect(zvdott1(t.data() + packed_diagonal(jb), jb, b.data(), n));
    mixed.expect(zvdotsl(row_s, ja, t.data() + packed_diagonal(jb), jb, n));
  }
}

TEST(VectorKernels, UpdatesTouchTheirElementsOnly)
{
  Source source(32);
  for (int n = 0; n <= 20; ++n) {
    const std::vector<double> a = source.values(static_cast<std::size_t>(2 * n + 1));
    const std::vector<double> b = source.values(static_cast<std::size_t>(2 * n + 1));
    std::vector<double> plain = a;
    std::vector<double> to_stride = a;
    std::vector<double> from_stride = a;
    std::vector<double> sum(a.size(), nan);
    std::vector<double> combined = sum;
    std::vector<double> triad = sum;
    std::vector<double> scaled = sum;
    std::vector<double> filled = a;
    zvxay11(plain.data(), b.data(), n, 0.75);
    zvxayj1(to_stride.data(), 2, b.data(), n, 0.75);
    zvxay1j(from_stride.data(), b.data(), 2, n, 0.75);
    zvxy111(sum.data(), a.data(), b.data(), n);
    zvz111(combined.data(), a.data(), b.data(), n, 0.75);
    zvaxpy(triad.data(), a.data(), b.data(), n, 0.75);
    zvscl11(scaled.data(), a.data(), n, 0.75);
    zvfillj(filled.data(), 2, n, 9.0);
    for (int i = 0; i < 2 * n + 1; ++i) {
      const bool inside = i < n;
      const bool on_stride = i % 2 == 0 && i / 2 < n;
      EXPECT_EQ(at(plain, i), inside ? at(a, i) + 0.75 * at(b, i) : at(a, i));
      EXPECT_EQ(at(from_stride, i), inside ? at(a, i) + 0.75 * at(b, 2 * i) : at(a, i));
      EXPECT_EQ(at(to_stride, i), on_stride ? at(a, i) + 0.75 * at(b, i / 2) : at(a, i));
      EXPECT_EQ(at(filled, i), on_stride ? 9.0 : at(a, i));
      if (inside) {
        EXPECT_EQ(at(sum, i), at(a, i) + at(b, i));
        EXPECT_EQ(at(combined, i), at(a, i) + 0.75 * at(b, i));
        EXPECT_EQ(at(triad, i), at(combined, i));
        EXPECT_EQ(at(scaled, i), 0.75 * at(a, i));
      } else {
        EXPECT_TRUE(std::isnan(at(sum, i)) && std::isnan(at(triad, i)) && std::isnan(at(scaled, i)));
      }
    }
  }
}

TEST(VectorKernels, ZeroMultipliers)
{
  const std::vector<double> bad = {nan, INFINITY};
  std::vector<double> a = {1.0, 2.0};
  zvxayj1(a.data(), 1, bad.data(), 2, 0.0);
  zvxay1j(a.data(), bad.data(), 1, 2, 0.0);
  zvaxpy(a.data(), a.data(), bad.data(), 2, 0.0);
  EXPECT_EQ(a, (std::vector<double>{1.0, 2.0}));
  std::vector<double> z = {7.0, 8.0};
  zvaxpy(z.data(), a.data(), bad.data(), 2, 0.0); // a copy; y is not read
  EXPECT_EQ(z, a);
  zvxay11(a.data(), bad.data(), 2, 0.0); // deliberately not tested
  EXPECT_TRUE(std::isnan(a[0]) && std::isnan(a[1]));
}

TEST(VectorKernels, NormsAndRotations)
{
  const std::vector<double> x = {3.0, -100.0, 0.0, 7.0, -4.0, 50.0};
  EXPECT_EQ(zvamx(x.data(), 6), 100.0);
  EXPECT_EQ(zvamx(x.data(), 0), 0.0);
  EXPECT_EQ(zvamxj(x.data(), 2, 3), 4.0);
  EXPECT_EQ(zvasumj(x.data(), 2, 3), 7.0);
  EXPECT_EQ(zvenorm(3, 2, x.data()), 5.0);
  EXPECT_EQ(zvenorm(0, 1, x.data()), 0.0);

  for (const double single : {1e-320, 1e-150, 0.3, 1.0, 17.0, 1e150, 1e308}) {
    const std::vector<double> v = {0.0, -single, 0.0};
    EXPECT_EQ(zvenorm(3, 1, v.data()), single);
  }
  // The difference to a plain scaled sum: ratios below the unit roundoff are dropped one by one, however
  // many they are.
  std::vector<double> many(100001, 0.9e-16);
  many[0] = 1.0;
  EXPECT_EQ(zvenorm(100001, 1, many.data()), 1.0);
  const std::vector<double> hidden = {0.0, nan, 0.0};
  EXPECT_TRUE(std::isnan(zvenorm(3, 1, hidden.data())));
  const std::vector<double> huge(4, 1e308);
  EXPECT_EQ(zvenorm(2, 1, huge.data()), 1e308 * std::sqrt(2.0));

  std::vector<double> p = {1.0, -9.0, 2.0};
  std::vector<double> q = {3.0, 4.0};
  zvrotg(p.data(), 2, q.data(), 1, 2, 0.6, 0.8);
  EXPECT_EQ(p, (std::vector<double>{0.6 + 0.8 * 3.0, -9.0, 0.6 * 2.0 + 0.8 * 4.0}));
  EXPECT_EQ(q, (std::vector<double>{0.6 * 3.0 - 0.8, 0.6 * 4.0 - 0.8 * 2.0}));
}

TEST(PackedStorage, IndexAndPairAgree)
{
  int k = 0;
  for (int i = 0; i < 70; ++i)
    for (int j = 0; j <= i; ++j, ++k) {
      EXPECT_EQ(packed_index(i, j), k);
      EXPECT_EQ(packed_index(j, i), k);
      int row = -1;
      int column = -1;
      zmxun(k, &row, &column);
      EXPECT_EQ(row, i);
      EXPECT_EQ(column, j);
    }
  int row = -1;
  int column = -1;
  zmxun(-5, &row, &column);
  EXPECT_EQ(row + column, 0);
  zmxun(std::numeric_limits<int>::max(), &row, &column);
  EXPECT_EQ(packed_index(row, column), std::numeric_limits<int>::max());
}

} // namespace
} // namespace torvale::matrix::test
