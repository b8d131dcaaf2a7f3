#include "matrix/packed_kernels.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "matrix/dense.h"
#include "matrix/quadratic_forms.h"

namespace torvale::matrix::test {
namespace {

// Operands of one trial: their true values in long double, and scales that take products towards the ends
// of the range.
class PackedKernels : public testing::TestWithParam<int> {
protected:
  int n = GetParam();
  int m = (n * 7) % 13 + 1;
  Source source{static_cast<unsigned>(100 + n)};
  double up = n % 2 == 0 ? 1.0 : 1e150;
  double down = n % 2 == 0 ? 1.0 : 1e-150;

  std::vector<double> symmetric(double scale) { return scaled(source.symmetric(n), scale); }
  std::vector<double> rectangle(int rows, int cols)
  {
    return source.values(static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols));
  }
  static std::vector<double> scaled(std::vector<double> v, double scale)
  {
    for (double& x : v) x *= scale;
    return v;
  }
  static std::vector<double> place(int rows, int cols) // to be overwritten: nothing of it may be read
  {
    return std::vector<double>(static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols),
                               std::numeric_limits<double>::quiet_NaN());
  }
  // Rounding of a product of matrices whose largest elements multiply to size, summed over `terms`.
  static void expect_near(const Dense& got, const Dense& truth, int terms, double size)
  {
    EXPECT_LE(difference(got, truth), (terms + 4) * eps * size);
  }
  static void expect_near(double got, long double truth, int terms, double size)
  {
    EXPECT_LE(std::fabs(got - truth), (terms + 4) * eps * size);
  }
};

long double trace(const Dense& a)
{
  long double t = 0.0L;
  for (int i = 0; i < a.rows; ++i) t += a(i, i);
  return t;
}

TEST_P(PackedKernels, Moves)
{
  const std::vector<double> s = symmetric(1.0);
  std::vector<double> dense = place(n, n);
  zmmovsr(s.data(), dense.data(), n);
  EXPECT_EQ(difference(from_rows(dense, n, n), from_symmetric(s, n)), 0.0);
  std::vector<double> back(s.size(), -1.0);
  const int low = n / 3;
  zmmovrs(dense.data(), back.data(), low, n - 1, n);
  for (std::size_t i = 0; i < s.size(); ++i) EXPECT_EQ(back[i], static_cast<long>(i) < packed_row(low) ? -1.0 : s[i]);
}

TEST_P(PackedKernels, TracesAndInnerProducts)
{
  const std::vector<double> a = symmetric(up);
  const std::vector<double> b = symmetric(down);
  const std::vector<double> r = rectangle(n, m);
  const Dense da = from_symmetric(a, n);
  const Dense dr = from_rows(r, n, m);
  expect_near(zmxtr(a.data(), n), trace(da), n, n * up);
  expect_near(zmxins(a.data(), b.data(), n), trace(da * from_symmetric(b, n)), n * n, n * n);
  expect_near(zmxtq(r.data(), a.data(), n, m), trace(transpose(dr) * da * dr), n * n, n * n * m * up);
  const std::vector<double> x = rectangle(n, 3);
  const std::vector<double> y = rectangle(n, 3);
  long double one = 0.0L;
  long double two = 0.0L;
  for (std::size_t i = 0; i + 2 < x.size(); i += 3) {
    one += static_cast<long double>(x[i]) * y[i];
    two += static_cast<long double>(x[i]) * y[i / 3];
  }
  expect_near(zmxin1(x.data(), y.data(), n, 3), one, n, n);
  expect_near(zmxin2(x.data(), y.data(), n, 3, 1), two, n, n);
}

TEST_P(PackedKernels, CongruencesInPlace)
{
  const std::vector<double> l = scaled(source.triangle(n), down);
  const std::vector<double> s = symmetric(up);
  const Dense dl = from_lower(l, n);
  const Dense ds = from_symmetric(s, n);
  std::vector<double> work = place(n, n);
  const double size = 9.0 * n * n * down;

  std::vector<double> x = s;
  zmxlsu(l.data(), x.data(), n, work.data());
  expect_near(from_symmetric(x, n), dl * ds * transpose(dl), 2 * n, size);
  x = s;
  zmxusl(l.data(), x.data(), n, work.data());
  expect_near(from_symmetric(x, n), transpose(dl) * ds * dl, 2 * n, size);

  // A skyline: what lies outside the spans is garbage that must not be read.
  std::vector<int> len;
  std::vector<double> sky = l;
  std::vector<double> clean = l;
  for (int i = 0; i < n; ++i) {
    len.push_back(source.integer(1, i + 1));
    for (int j = 0; j < i + 1 - len.back(); ++j) {
      sky[static_cast<std::size_t>(packed_index(i, j))] = std::numeric_limits<double>::quiet_NaN();
      clean[static_cast<std::size_t>(packed_index(i, j))] = 0.0;
    }
  }
  const Dense dc = from_lower(clean, n);
  x = s;
  zmxls1(sky.data(), x.data(), n, work.data(), len.data());
  expect_near(from_symmetric(x, n), dc * ds * transpose(dc), 2 * n, size);
  x = s;
  zmxus1(sky.data(), x.data(), n, work.data(), len.data());
  expect_near(from_symmetric(x, n), transpose(dc) * ds * dc, 2 * n, size);

  const std::vector<double> t = symmetric(down);
  const Dense dt = from_symmetric(t, n);
  x = s;
  zmxsss(t.data(), x.data(), n, work.data());
  expect_near(from_symmetric(x, n), dt * ds * dt, 2 * n, size);

  x = l;
  zmxllt(x.data(), n);
  expect_near(from_symmetric(x, n), dl * transpose(dl), n, 9.0 * n * down * down);
  x = l;
  zmxltl(x.data(), n);
  expect_near(from_symmetric(x, n), transpose(dl) * dl, n, 9.0 * n * down * down);
}

TEST_P(PackedKernels, ProductsWithDenseResult)
{
  const std::vector<double> s = symmetric(up);
  const std::vector<double> b = symmetric(1.0);
  const std::vector<double> l = source.triangle(n);
  const std::vector<double> wide = rectangle(n, m);
  const std::vector<double> tall = rectangle(m, n);
  const Dense ds = from_symmetric(s, n);
  const Dense db = from_symmetric(b, n);
  const Dense dl = from_lower(l, n);
  const Dense dw = from_rows(wide, n, m);
  const Dense dt = from_rows(tall, m, n);

  std::vector<double> nm = place(n, m);
  std::vector<double> mn = place(m, n);
  std::vector<double> nn = place(n, n);
  zmxlr(l.data(), wide.data(), nm.data(), n, m);
  expect_near(from_rows(nm, n, m), dl * dw, n, 3.0 * n);
  zmxrl(tall.data(), l.data(), mn.data(), m, n);
  expect_near(from_rows(mn, m, n), dt * dl, n, 3.0 * n);
  zmxrs(tall.data(), s.data(), mn.data(), m, n);
  expect_near(from_rows(mn, m, n), dt * ds, n, n * up);
  zmxsr(s.data(), wide.data(), nm.data(), n, m);
  expect_near(from_rows(nm, n, m), ds * dw, n, n * up);
  zmxsl(s.data(), l.data(), nn.data(), n);
  expect_near(from_rows(nn, n, n), ds * dl, n, 3.0 * n * up);
  zmxss(s.data(), b.data(), nn.data(), n);
  expect_near(from_rows(nn, n, n), ds * db, n, n * up);
  std::vector<double> mm = place(m, m);
  zmxrr(tall.data(), wide.data(), mm.data(), m, n, m);
  expect_near(from_rows(mm, m, m), dt * dw, n, n);
  std::vector<double> v(static_cast<std::size_t>(n));
  zmxvs(wide.data(), s.data(), v.data(), m, n);
  Dense first(n, 1);
  for (int i = 0; i < n; ++i) first(i, 0) = dw(i, 0);
  expect_near(from_rows(v, n, 1), ds * first, n, n * up);
}

TEST_P(PackedKernels, ProductsWithPackedResult)
{
  const std::vector<double> a = symmetric(up);
  const std::vector<double> b = symmetric(down);
  const std::vector<double> r = rectangle(m, n);
  const Dense da = from_symmetric(a, n);
  const Dense db = from_symmetric(b, n);
  const Dense dr = from_rows(r, m, n);
  std::vector<double> nn = std::vector<double>(packed_length(n), std::numeric_limits<double>::quiet_NaN());
  zmxs2(b.data(), nn.data(), n);
  expect_near(from_symmetric(nn, n), db * db, n, n * down * down);
  zmxss1(a.data(), b.data(), nn.data(), n);
  expect_near(from_symmetric(nn, n), da * db + db * da, 2 * n, 2.0 * n);

  const std::vector<double> start = symmetric(1.0);
  nn = start;
  zmxrtr(r.data(), m, n, nn.data());
  expect_near(from_symmetric(nn, n), from_symmetric(start, n) + transpose(dr) * dr, m, m + 1.0);
  const std::vector<double> start_m = source.symmetric(m);
  std::vector<double> mm = start_m;
  zmxrrt(r.data(), m, n, mm.data());
  expect_near(from_symmetric(mm, m), from_symmetric(start_m, m) + dr * transpose(dr), n, n + 1.0);
}

TEST_P(PackedKernels, QuadraticForms)
{
  const std::vector<double> s = symmetric(up);
  const std::vector<double> r = rectangle(m, n);
  const Dense ds = from_symmetric(s, n);
  const Dense dr = from_rows(r, m, n);
  const Dense truth = dr * ds * transpose(dr);
  const double size = n * n * up;
  std::vector<double> work(static_cast<std::size_t>(std::max(n, m)));

  const std::vector<double> start = scaled(source.symmetric(m), up);
  for (const int acc : {0, 1}) {
    std::vector<double> prod = start;
    zqform(s.data(), n, r.data(), m, prod.data(), work.data(), acc);
    if (n > 0)
      expect_near(from_symmetric(prod, m), truth + static_cast<long double>(acc) * from_symmetric(start, m), 2 * n,
                  size);
    double scalar = 5.0 * up;
    zqform(s.data(), n, r.data(), 1, &scalar, work.data(), acc);
    if (n > 0) expect_near(scalar, truth(0, 0) + (acc != 0 ? 5.0L * up : 0.0L), 2 * n, size + 5.0 * up);
  }
  for (const double add : {0.0, 1.0, -2.5}) {
    const long double factor = add == 0.0 ? 1.0 : add;
    std::vector<double> prod = start;
    zmxrsr(r.data(), s.data(), prod.data(), m, n, add);
    const Dense before = add == 0.0 ? Dense(m, m) : from_symmetric(start, m);
    if (n > 0) expect_near(from_symmetric(prod, m), before + factor * truth, 2 * n, 4.0 * size);

    const std::vector<double> sm = source.symmetric(m);
    const std::vector<double> start_n = source.symmetric(n);
    prod = start_n;
    zmxrts(r.data(), sm.data(), prod.data(), m, n, work.data(), add);
    const Dense before_n = add == 0.0 ? Dense(n, n) : from_symmetric(start_n, n);
    expect_near(from_symmetric(prod, n), before_n + factor * (transpose(dr) * from_symmetric(sm, m) * dr), 2 * m,
                4.0 * m * m);
  }
  if (n == 0) return;
  const std::vector<double> dense = rectangle(n, n);
  const std::vector<double> x = rectangle(n, 2);
  Dense dx(n, 1);
  for (int i = 0; i < n; ++i) dx(i, 0) = x[static_cast<std::size_t>(2 * i)];
  expect_near(zmxq1(x.data(), s.data(), n, 2), (transpose(dx) * ds * dx)(0, 0), 2 * n, size);
  expect_near(zmxq2(x.data(), dense.data(), n, 2), (transpose(dx) * from_rows(dense, n, n) * dx)(0, 0), 2 * n, n * n);
  const std::vector<double> y = rectangle(n, 1);
  expect_near(zmxbi(y.data(), r.data(), s.data(), n), (transpose(from_rows(y, n, 1)) * ds * from_rows(r, n, 1))(0, 0),
              2 * n, size);
}

INSTANTIATE_TEST_SUITE_P(Orders, PackedKernels,
                         testing::Values(0, 1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 24, 33, 47, 60, 70));

// Zero elements skip what they would multiply, so a NaN there does not spread.
TEST(PackedKernelEdges, ZeroElementsSkipTheirRows)
{
  const double undefined = std::numeric_limits<double>::quiet_NaN();
  const std::vector<double> x = {3.0, 0.0};
  const std::vector<double> y = {1.0, 5.0};
  const std::vector<double> clean_row = {2.0, 1.0, undefined};
  EXPECT_EQ(zmxbi(x.data(), y.data(), clean_row.data(), 2), 3.0 * (2.0 + 5.0));

  std::vector<double> result = {1.0, 1.0, 1.0, 1.0};
  zmxout(x.data(), y.data(), result.data(), 2, 2);
  EXPECT_EQ(result, (std::vector<double>{4.0, 16.0, 1.0, 1.0}));
  const std::vector<double> poisoned = {undefined, undefined};
  const std::vector<double> zeros = {0.0, 0.0};
  zmxout(zeros.data(), poisoned.data(), result.data(), 2, 2);
  EXPECT_EQ(result, (std::vector<double>{4.0, 16.0, 1.0, 1.0}));

  std::vector<double> packed = {1.0};
  zmxrsr(x.data(), clean_row.data(), packed.data(), 1, 2, 1.0);
  EXPECT_EQ(packed[0], 1.0 + 9.0 * 2.0);

  std::vector<double> sscp(6, 1.0);
  const std::vector<double> d = {2.0, 0.0, -3.0};
  EXPECT_EQ(zmxscp(d.data(), 3, 0.0, sscp.data()), 0);
  EXPECT_EQ(sscp, std::vector<double>(6, 1.0));
  EXPECT_EQ(zmxscp(d.data(), 3, 0.5, sscp.data()), 1);
  EXPECT_EQ(sscp, (std::vector<double>{3.0, 1.0, 1.0, -2.0, 1.0, 5.5}));
  EXPECT_EQ(zmxsc1(d.data(), 3, sscp.data()), 1);
  EXPECT_EQ(sscp, (std::vector<double>{7.0, 1.0, 1.0, -8.0, 1.0, 14.5}));
}

} // namespace
} // namespace torvale::matrix::test
