#include "matrix/orthogonal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>

#include "matrix/dense.h"
#include "matrix/reference.h"

namespace torvale::matrix::test {
namespace {

struct Qr {
  int nullity = 0;
  std::vector<double> u;
  std::vector<double> b;
  std::vector<double> alfa;
  std::vector<double> sum;
  std::vector<int> ipiv;
};

// b: rows x p.
Qr decompose(const std::vector<double>& a, int rows, int cols, const std::vector<double>& b, int p,
             std::vector<int> wishes, double sing)
{
  Qr q;
  q.u = a;
  q.b = b;
  q.alfa.assign(static_cast<std::size_t>(cols), NAN);
  q.sum = q.alfa;
  q.ipiv = std::move(wishes);
  q.nullity = zqrdec(rows, cols, p, cols, p, q.ipiv.empty() ? nullptr : q.ipiv.data(), sing, q.u.data(), q.b.data(),
                     q.alfa.data(), q.sum.data());
  return q;
}

Dense upper_factor(const Qr& q, int rows, int cols)
{
  Dense r(rows, cols);
  for (int i = 0; i < std::min(rows, cols); ++i) {
    r(i, i) = q.alfa[static_cast<std::size_t>(i)];
    for (int j = i + 1; j < cols; ++j) r(i, j) = q.u[static_cast<std::size_t>(i * cols + j)];
  }
  return r;
}

double tolerance(const RectangularCase& c)
{
  return 10.0 * std::max(c.rows, c.cols) * eps * c.largest_singular_value;
}

TEST(Qr, PivotedDiagonalsOrdersAndRanksOfTheReferenceMatrices)
{
  for (const RectangularCase& c : rectangular_cases()) {
    SCOPED_TRACE(c.name);
    const Qr q = decompose(c.matrix, c.rows, c.cols, {}, 0, std::vector<int>(static_cast<std::size_t>(c.cols), 0),
                           c.rank < std::min(c.rows, c.cols) ? tolerance(c) : 0.0);
    EXPECT_EQ(q.nullity, std::min(c.rows, c.cols) - c.rank);
    for (int i = 0; i < c.rank; ++i) {
      const double want = c.pivoted_diagonal[static_cast<std::size_t>(i)];
      EXPECT_NEAR(std::fabs(q.alfa[static_cast<std::size_t>(i)]), want, tolerance(c));
      if (c.pivot_ties) continue;
      EXPECT_EQ(q.ipiv[static_cast<std::size_t>(i)] + 1, c.pivot_order[static_cast<std::size_t>(i)]);
    }
    for (int i = c.rank; i < std::min(c.rows, c.cols); ++i) EXPECT_EQ(q.alfa[static_cast<std::size_t>(i)], 0.0);
  }
}

TEST(Qr, UnpivotedDiagonalsOfTheReferenceMatrices)
{
  for (const RectangularCase& c : rectangular_cases()) {
    if (c.unpivoted_diagonal.empty()) continue;
    SCOPED_TRACE(c.name);
    const Qr q = decompose(c.matrix, c.rows, c.cols, {}, 0, {}, 0.0);
    EXPECT_EQ(q.nullity, 0);
    for (std::size_t i = 0; i < c.unpivoted_diagonal.size(); ++i)
      EXPECT_NEAR(std::fabs(q.alfa[i]), c.unpivoted_diagonal[i], tolerance(c));
  }
}

TEST(Qr, LeastSquaresOfTheReferenceMatrices)
{
  for (const RectangularCase& c : rectangular_cases()) {
    if (c.solution.empty()) continue;
    SCOPED_TRACE(c.name);
    const Qr q = decompose(c.matrix, c.rows, c.cols, c.right_hand_side, 1,
                           std::vector<int>(static_cast<std::size_t>(c.cols), 0), 0.0);
    std::vector<double> x(static_cast<std::size_t>(c.cols));
    std::vector<double> h = x;
    EXPECT_EQ(
        zqrsol(1, c.cols, 1, c.cols, 1, 1, q.ipiv.data(), q.u.data(), q.b.data(), x.data(), q.alfa.data(), h.data()),
        0);
    // Each unknown in the scale of its column, since columns may differ by hundreds of decades.
    double condition = 0.0;
    double size = 0.0;
    std::vector<double> norm(static_cast<std::size_t>(c.cols));
    for (std::size_t j = 0; j < norm.size(); ++j) {
      for (int i = 0; i < c.rows; ++i)
        norm[j] = std::hypot(norm[j], c.matrix[static_cast<std::size_t>(i * c.cols) + j]);
      size = std::max(size, norm[j] * std::fabs(c.solution[j]));
    }
    for (int i = 0; i < c.cols; ++i) {
      const auto at = static_cast<std::size_t>(i);
      const double scale = norm[static_cast<std::size_t>(q.ipiv[at])];
      condition = std::max(condition, scale / std::fabs(q.alfa[at]));
    }
    for (std::size_t j = 0; j < norm.size(); ++j)
      EXPECT_NEAR(x[j] * norm[j], c.solution[j] * norm[j], 20.0 * c.rows * eps * condition * (size + 10.0));
    double rss = 0.0;
    for (int i = c.cols; i < c.rows; ++i) rss += q.b[static_cast<std::size_t>(i)] * q.b[static_cast<std::size_t>(i)];
    EXPECT_NEAR(rss, c.rss, 1e-13 * (c.rss + 1.0));
  }
}

TEST(Qr, OfEqualNormsTheLastWins)
{
  const std::vector<double> a = {1, 0, 0, 0, 0, 1, 0, 1, 0}; // three unit columns
  const Qr q = decompose(a, 3, 3, {}, 0, {0, 0, 0}, 0.0);
  EXPECT_EQ(q.ipiv, (std::vector<int>{2, 0, 1})) << "the exchange has put column 0 last";
}

TEST(Qr, ForcedColumnsKeepTheirPlaces)
{
  Source source(41);
  const std::vector<double> a = source.values(6 * 5);
  std::vector<double> b = source.values(6 * 2);
  // Column 4 first, column 0 second, column 2 last; 1 and 3 compete between.
  const Qr q = decompose(a, 6, 5, b, 2, {2, 0, -5, 0, 1}, 0.0);
  EXPECT_EQ(q.nullity, 0);
  EXPECT_EQ(q.ipiv[0], 4);
  EXPECT_EQ(q.ipiv[1], 0);
  EXPECT_EQ(q.ipiv[4], 2);
  EXPECT_GE(std::fabs(q.alfa[2]), std::fabs(q.alfa[3]));
  for (std::size_t j = 0; j < 5; ++j) EXPECT_EQ(q.sum[j], -q.u[j * 5 + j]);
  // R'R is A'A in the new order, and R'(Q'b) is A'b.
  const Dense r = upper_factor(q, 6, 5);
  const Dense full = from_rows(a, 6, 5);
  Dense moved(6, 5);
  for (int j = 0; j < 5; ++j)
    for (int i = 0; i < 6; ++i) moved(i, j) = full(i, q.ipiv[static_cast<std::size_t>(j)]);
  EXPECT_LE(difference(transpose(r) * r, transpose(moved) * moved), 60.0 * eps * 6);
  EXPECT_LE(difference(transpose(r) * from_rows(q.b, 6, 2), transpose(moved) * from_rows(b, 6, 2)), 60.0 * eps * 6);

  // Nobody claims position 1; two claim position 5.
  EXPECT_EQ(decompose(a, 6, 5, {}, 0, {2, 0, 0, 0, 0}, 0.0).nullity, -2);
  EXPECT_EQ(decompose(a, 6, 5, {}, 0, {0, -5, -5, 0, 0}, 0.0).nullity, -5);
}

TEST(Qr, DependentColumnsMoveToTheEnd)
{
  // Columns 0 and 1 forced first, 1 a copy of 0: it ends behind the free columns.
  const std::vector<double> a = {1, 1, 4, 0, 2, 2, 0, 1, 2, 2, 1, 0, 1, 1, 0, 5};
  const Qr q = decompose(a, 4, 4, {}, 0, {1, 2, 0, 0}, 1e-12);
  EXPECT_EQ(q.nullity, 1);
  EXPECT_EQ(q.ipiv[0], 0);
  EXPECT_EQ(q.ipiv[3], 1);
  EXPECT_EQ(q.alfa[3], 0.0);
}

TEST(Qr, DowndatedNormsStayTrueThroughCancellation)
{
  // Columns that agree to 1e-9 lose their norms by cancellation at the first step; what is left decides.
  constexpr int n = 6;
  Source source(42);
  std::vector<double> a(n * n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) a[static_cast<std::size_t>(i * n + j)] = 1.0 + (i == j ? 1e-9 * (j + 1) : 0.0);
  const Qr q = decompose(a, n, n, {}, 0, std::vector<int>(n, 0), 0.0);
  EXPECT_EQ(q.nullity, 0);
  for (int i = 1; i + 1 < n; ++i)
    EXPECT_GE(std::fabs(q.alfa[static_cast<std::size_t>(i)]) * (1.0 + 1e-6),
              std::fabs(q.alfa[static_cast<std::size_t>(i + 1)]));
}

// ---- zqrsol: every job against the plain product with the triangle it stands for.

TEST(TriangularSolve, EveryJobSolvesItsSystem)
{
  Source source(43);
  constexpr int n = 7;
  constexpr int p = 3;
  constexpr int inc = 9; // the dense triangles' row stride
  const std::vector<double> packed = source.triangle(n);
  const Dense lower = from_lower(packed, n);
  const Dense upper = transpose(lower);
  std::vector<double> dense_upper(n * inc, NAN);
  std::vector<double> dense_lower(n * inc, NAN);
  std::vector<double> by_rows;
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j) {
      if (j >= i) dense_upper[static_cast<std::size_t>(i * inc + j)] = static_cast<double>(upper(i, j));
      if (j <= i) dense_lower[static_cast<std::size_t>(i * inc + j)] = static_cast<double>(lower(i, j));
      if (j >= i) by_rows.push_back(static_cast<double>(upper(i, j)));
    }
  }
  struct Form {
    int job;
    const std::vector<double>* stored;
    Dense acts;
  };
  const Form forms[] = {{1, &dense_upper, upper}, {2, &dense_upper, lower}, {3, &dense_lower, lower},
                        {4, &dense_lower, upper}, {5, &by_rows, upper},     {6, &by_rows, lower},
                        {7, &packed, upper},      {8, &packed, lower}};
  const std::vector<double> x = source.values(n * p);
  for (const Form& f : forms) {
    SCOPED_TRACE(f.job);
    std::vector<double> b(n * p);
    const Dense product = f.acts * from_rows(x, n, p);
    for (std::size_t i = 0; i < b.size(); ++i) b[i] = static_cast<double>(product.values[i]);
    std::vector<double> got(n * p, NAN);
    EXPECT_EQ(zqrsol(f.job, n, p, inc, p, 0, nullptr, f.stored->data(), b.data(), got.data(), nullptr, nullptr), 0);
    EXPECT_LE(difference(from_rows(got, n, p), from_rows(x, n, p)), 1e-13);

    // The same right-hand sides as rows, in place.
    std::vector<double> rows(n * p);
    for (int i = 0; i < n; ++i)
      for (int c = 0; c < p; ++c) rows[static_cast<std::size_t>(c * n + i)] = b[static_cast<std::size_t>(i * p + c)];
    EXPECT_EQ(
        zqrsol(f.job + 10, n, p, inc, 0, 0, nullptr, f.stored->data(), rows.data(), rows.data(), nullptr, nullptr), 0);
    EXPECT_EQ(difference(transpose(from_rows(rows, p, n)), from_rows(got, n, p)), 0.0);

    // One right-hand side with all strides 0, the order permuted: odd jobs spread, even jobs gather.
    std::vector<int> order(n);
    std::iota(order.begin(), order.end(), 0);
    std::rotate(order.begin(), order.begin() + 3, order.end());
    std::vector<double> one(n);
    std::vector<double> h(n);
    std::vector<double> solution(n, NAN);
    for (int i = 0; i < n; ++i) {
      const int from = f.job % 2 == 0 ? order[static_cast<std::size_t>(i)] : i;
      one[static_cast<std::size_t>(from)] = b[static_cast<std::size_t>(i * p)];
    }
    const std::vector<double> alone_dense = f.job <= 4 ? [&] {
      std::vector<double> d(n * n);
      for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) d[static_cast<std::size_t>(i * n + j)] = (*f.stored)[static_cast<std::size_t>(i * inc + j)];
      return d;
    }() : *f.stored;
    EXPECT_EQ(
        zqrsol(f.job, n, 1, 0, 0, 0, order.data(), alone_dense.data(), one.data(), solution.data(), nullptr, h.data()),
        0);
    for (int i = 0; i < n; ++i) {
      const int at = f.job % 2 == 0 ? i : order[static_cast<std::size_t>(i)];
      EXPECT_EQ(solution[static_cast<std::size_t>(at)], got[static_cast<std::size_t>(i * p)]);
    }
  }
  double unused = 0.0;
  for (const int bad : {0, 9, 10, 19, -1})
    EXPECT_EQ(zqrsol(bad, 1, 1, 0, 0, 0, nullptr, &unused, &unused, &unused, nullptr, nullptr), -1);
}

TEST(TriangularSolve, ZeroDiagonalsGiveZerosAndAreCountedOncePerSide)
{
  const std::vector<double> l = {2.0, 1.0, 0.0, 4.0, 9.0, 1.0};
  std::vector<double> b = {2.0, 4.0, 7.0, 8.0, 5.0, 11.0}; // two columns
  EXPECT_EQ(zqrsol(8, 3, 2, 0, 2, 2, nullptr, l.data(), b.data(), b.data(), nullptr, nullptr), 1);
  EXPECT_EQ(b, (std::vector<double>{1.0, 2.0, 0.0, 0.0, 1.0, 3.0}));
  const std::vector<double> diagonal = {0.0, 0.0, 2.0};
  b = {2.0, 7.0, 5.0};
  EXPECT_EQ(zqrsol(8, 3, 1, 0, 0, 0, nullptr, l.data(), b.data(), b.data(), diagonal.data(), nullptr), 2);
  EXPECT_EQ(b, (std::vector<double>{0.0, 0.0, 2.5}));
}

// ---- rotations and reflections

TEST(Rotations, ConstructionCases)
{
  const auto construct = [](double a, double b) {
    double c = NAN;
    double s = NAN;
    const double compact = zgivcon(&a, &b, &c, &s);
    EXPECT_EQ(b, 0.0);
    return std::vector<double>{a, c, s, compact};
  };
  EXPECT_EQ(construct(0.0, 0.0), (std::vector<double>{0.0, 1.0, 0.0, 0.0}));
  EXPECT_EQ(construct(-2.0, 0.0), (std::vector<double>{-2.0, 1.0, 0.0, 0.0}));
  EXPECT_EQ(construct(0.0, -3.0), (std::vector<double>{-3.0, 0.0, 1.0, 1.0}));
  const std::vector<double> larger = construct(-4.0, 3.0);
  EXPECT_NEAR(larger[0], -5.0, 1e-15);
  EXPECT_NEAR(larger[1], 0.8, 1e-15);
  EXPECT_NEAR(larger[2], -0.6, 1e-15);
  EXPECT_EQ(larger[3], larger[2]);
  const std::vector<double> smaller = construct(3e200, -4e200);
  EXPECT_NEAR(smaller[0], -5e200, 1e185);
  EXPECT_NEAR(smaller[3], 1.0 / -0.6, 1e-15);
  EXPECT_EQ(construct(1e-310, 1.0)[3], 1.0);

  std::vector<double> x = {1.0, INFINITY};
  std::vector<double> y = {2.0, 4.0};
  EXPECT_EQ(zgivapl(2, 1, 1, 1.0, 0.0, x.data(), y.data()), 1);
  EXPECT_EQ(zgivapl(2, 1, 1, 0.0, -1.0, x.data(), y.data()), 0);
  EXPECT_EQ(x, (std::vector<double>{-2.0, -4.0}));
  EXPECT_EQ(y, (std::vector<double>{1.0, INFINITY}));
}

TEST(Rotations, MovedColumnKeepsTheProduct)
{
  Source source(44);
  for (int trial = 0; trial < 60; ++trial) {
    const int n = source.integer(2, 12);
    const int k1 = source.integer(0, n - 2);
    const int k2 = source.integer(k1 + 1, n - 1);
    const std::vector<double> l = source.triangle(n);
    std::vector<double> moved = l;
    // z starts as R, dense: rotated in its rows it must follow the triangle.
    const Dense upper = transpose(from_lower(l, n));
    std::vector<double> z(static_cast<std::size_t>(n * n));
    for (std::size_t i = 0; i < z.size(); ++i) z[i] = static_cast<double>(upper.values[i]);
    std::vector<double> transposed(z.size());
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j)
        transposed[static_cast<std::size_t>(j * n + i)] = z[static_cast<std::size_t>(i * n + j)];
    std::vector<double> dcds(static_cast<std::size_t>(2 * (k2 - k1)), NAN);
    ASSERT_EQ(ztriprm(1, n, n, n, k1, k2, moved.data(), z.data(), dcds.data()), 0);
    for (std::size_t i = 0; i < dcds.size(); i += 2) EXPECT_NEAR(std::hypot(dcds[i], dcds[i + 1]), 1.0, 4 * eps);

    std::vector<int> order(static_cast<std::size_t>(n));
    std::iota(order.begin(), order.end(), 0);
    std::rotate(order.begin() + k1, order.begin() + k1 + 1, order.begin() + k2 + 1);
    const Dense r = transpose(from_lower(moved, n));
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j)
        EXPECT_NEAR(static_cast<double>(r(i, j)),
                    z[static_cast<std::size_t>(i * n + order[static_cast<std::size_t>(j)])], 50.0 * n * eps);
    std::vector<double> again = l;
    ztriprm(2, n, n, n, k1, k2, again.data(), transposed.data(), nullptr);
    EXPECT_EQ(again, moved);
    EXPECT_EQ(difference(transpose(from_rows(transposed, n, n)), from_rows(z, n, n)), 0.0);
  }
  std::vector<double> l = {1.0, 2.0, 3.0};
  EXPECT_EQ(ztriprm(0, 2, 0, 0, 1, 1, l.data(), nullptr, nullptr), 12);
  EXPECT_EQ(ztriprm(0, 2, 0, 0, 0, 2, l.data(), nullptr, nullptr), 12);
  EXPECT_EQ(l, (std::vector<double>{1.0, 2.0, 3.0}));
}

TEST(Rotations, ProjectionsSkipRowsWithoutDiagonal)
{
  const std::vector<double> a = {1.0, 2.0, 2.0, 1.0, 1.0, 1e-160, 3.0, 0.0, 4.0, 5.0};
  std::vector<double> b = {1.0, 1.0, 1.0};
  EXPECT_EQ(ztrapp3(0, 4, a.data(), b.data()), 1); // rows 3, (2), 1
  const double t = 7.0 / 25.0;
  const double first = 1.0 - 3.0 * t;
  EXPECT_NEAR(b[0], first - 2.0 * (2.0 * first / 4.0), 1e-15);
  EXPECT_EQ(b[1], 1.0);
  EXPECT_NEAR(b[2], 1.0 - 4.0 * t, 1e-15);
  b = {1.0, 1.0, 1.0};
  EXPECT_EQ(ztrapp3(1, 4, a.data(), b.data()), 1); // rows 1, (2), 3
  EXPECT_NEAR(b[0], -3.0 * (4.0 / 25.0), 1e-15);
}

TEST(Reflections, ReduceAMatrixToATriangle)
{
  constexpr int n = 5;
  Source source(45);
  for (const double scale : {1.0, 1e200, 1e-200}) {
    std::vector<double> a = source.values(n * n);
    for (double& v : a) v *= scale;
    const Dense before = from_rows(a, n, n);
    std::vector<double> u(n * n, NAN);
    for (int k = 0; k < n; ++k) {
      double pk = NAN;
      ASSERT_EQ(zhh1(a.data(), u.data(), &pk, k, n, n), 0);
      for (int j = k + 1; j < n; ++j) ASSERT_EQ(zhh2(pk, a.data() + j, u.data(), k, n, n), 0);
    }
    const Dense r = from_rows(a, n, n);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < i; ++j) EXPECT_EQ(r(i, j), 0.0L);
    EXPECT_LE(difference(transpose(r) * r, transpose(before) * before), 100.0 * eps * scale * scale);
  }
  std::vector<double> zero(4, 0.0);
  std::vector<double> u(4);
  double pk = NAN;
  EXPECT_EQ(zhh1(zero.data(), u.data(), &pk, 0, 2, 2), 1);
  EXPECT_EQ(pk, 0.0);
  EXPECT_EQ(zhh2(pk, zero.data(), u.data(), 0, 2, 2), 1);
}

} // namespace
} // namespace torvale::matrix::test
