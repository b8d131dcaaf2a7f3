#include "matrix/sparse/sparse_cholesky.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>

#include "matrix/cholesky.h"
#include "matrix/dense.h"

namespace torvale::matrix::test {
namespace {

std::size_t at(long i)
{
  return static_cast<std::size_t>(i);
}

// A random sparse positive definite matrix, J'J + I with short rows of J, and its symbolic factor.
struct Sparse {
  int n;
  std::vector<std::vector<double>> rows; // of J, dense
  std::vector<int> ja, ju, perm, jasl, jusl;
  std::vector<double> a, u, work;
  Dense full{0, 0};

  Sparse(int order, int count, Source& source) : n(order), full(identity(order))
  {
    std::vector<int> ir, ic;
    std::vector<double> s;
    const auto add = [&](int i, int j, double v) {
      ir.push_back(i);
      ic.push_back(j);
      s.push_back(v);
    };
    for (int i = 0; i < n; ++i) add(i, i, 1.0);
    for (int r = 0; r < count; ++r) {
      std::vector<double> row(at(n), 0.0);
      for (int e = 0; e < 3; ++e) row[at(source.integer(0, n - 1))] = source.uniform();
      for (int i = 0; i < n; ++i)
        for (int j = 0; j <= i; ++j) {
          const double v = row[at(i)] * row[at(j)];
          if (v == 0.0) continue;
          full(i, j) += v;
          if (i != j) full(j, i) += v;
          if ((i + j + r) % 2 == 0)
            add(i, j, v);
          else
            add(j, i, v);
        }
      rows.push_back(row);
    }
    ja.resize(at(n + 1) + s.size());
    a.resize(s.size());
    const int kept = zslltco(1, n, static_cast<int>(s.size()), ir.data(), ic.data(), s.data(), ja.data(), a.data());
    EXPECT_EQ(kept, ja[at(n)]);

    perm.resize(at(2 * n));
    std::iota(perm.begin(), perm.begin() + n, 0);
    for (int i = n - 1; i > 0; --i) std::swap(perm[at(i)], perm[at(source.integer(0, i))]);
    std::vector<int> iwork(at(3 * n + kept));
    int length = 0;
    EXPECT_EQ(zslltsf(n, ja.data(), perm.data(), nullptr, &length, iwork.data()), 1);
    ju.resize(at(length));
    EXPECT_EQ(zslltsf(n, ja.data(), perm.data(), ju.data(), &length, iwork.data()), 0);
    jasl.resize(at(kept));
    jusl.resize(at(n + 1 + 2 * ju[at(n)]));
    EXPECT_EQ(zslltiu(n, ja.data(), perm.data(), ju.data(), jasl.data(), jusl.data()), 0);
    u.assign(at(ju[at(n)]), NAN);
    work.resize(at(n));
  }
  int factor()
  {
    return zslltf2(1, 0, n, ja.data(), a.data(), perm.data(), ju.data(), jasl.data(), u.data(), 1e-12, work.data());
  }

  Dense in_order(const Dense& m) const
  {
    Dense p(n, n);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) p(i, j) = m(perm[at(i)], perm[at(j)]);
    return p;
  }
  Dense lower() const
  {
    Dense l(n, n);
    for (int k = 0; k < n; ++k)
      for (int t = ju[at(k)]; t < ju[at(k + 1)]; ++t) l(k, ju[at(n + 1 + t)]) = u[at(t)];
    return l;
  }
};

Dense column(const std::vector<double>& v)
{
  return from_rows(v, static_cast<int>(v.size()), 1);
}

TEST(SparseCholesky, FactorOfRandomMatricesAndItsStructure)
{
  Source source(61);
  for (int trial = 0; trial < 60; ++trial) {
    const int n = source.integer(1, 40);
    Sparse s(n, n / 2, source);
    ASSERT_EQ(s.factor(), 0);
    const Dense p = s.in_order(s.full);
    const Dense l = s.lower();
    EXPECT_LE(difference(l * transpose(l), p), 20.0 * n * eps * largest(p));

    // The structure is the fill of a dense factorization, no more: an element outside is exactly zero there,
    // and inside it is not but by cancellation.
    std::vector<double> packed(packed_length(n));
    for (int i = 0; i < n; ++i)
      for (int j = 0; j <= i; ++j) packed[at(packed_index(i, j))] = static_cast<double>(p(i, j));
    int nonzero = 0;
    for (int k = 0; k < n; ++k) zchol(k, packed.data(), 0.0);
    for (const double v : packed) nonzero += v != 0.0 ? 1 : 0;
    EXPECT_LE(nonzero, s.ju[at(n)]);
    EXPECT_GE(nonzero + n / 4, s.ju[at(n)]);

    // By search, by lists, from the middle on and row by row it is the same factor.
    const std::vector<double> by_lists = s.u;
    ASSERT_EQ(zslltnf(1, 0, n, s.ja.data(), s.a.data(), s.perm.data(), s.ju.data(), s.u.data(), 1e-12, s.work.data()),
              0);
    EXPECT_EQ(s.u, by_lists);
    const int in = n / 2;
    std::fill(s.u.begin() + s.ju[at(in)], s.u.end(), 0.0);
    ASSERT_EQ(zslltnf(0, in, n, s.ja.data(), s.a.data(), s.perm.data(), s.ju.data(), s.u.data(), 1e-12, s.work.data()),
              0);
    EXPECT_EQ(s.u, by_lists);
    for (int k = in; k < n; ++k) {
      for (int t = s.ju[at(k)]; t < s.ju[at(k + 1)]; ++t) s.u[at(t)] = static_cast<double>(p(k, s.ju[at(n + 1 + t)]));
      ASSERT_EQ(zslltf5(k, s.ju.data(), s.u.data(), n, 1e-12, s.work.data()), 0);
    }
    EXPECT_LE(difference(s.lower(), l), 100.0 * n * eps * largest(l));
  }
}

TEST(SparseCholesky, SolvesProductsAndForms)
{
  Source source(62);
  for (int trial = 0; trial < 40; ++trial) {
    const int n = source.integer(1, 30);
    Sparse s(n, n, source);
    ASSERT_EQ(s.factor(), 0);
    const double tolerance = 1e-13 * n * largest(s.full);
    const std::vector<double> b = source.values(at(n));

    std::vector<double> x = b;
    zslltso(n, s.ju.data(), s.u.data(), s.perm.data(), x.data(), s.work.data());
    EXPECT_LE(difference(s.full * column(x), column(b)), tolerance);
    std::vector<double> y(at(n));
    zslltma(n, s.ja.data(), s.a.data(), x.data(), y.data());
    EXPECT_LE(difference(column(y), column(b)), tolerance);

    // The halves: forward with permutation, back with permutation; and their products undo them.
    std::vector<double> half = b;
    zslltli(1, n, s.ju.data(), s.u.data(), s.perm.data(), half.data(), s.work.data());
    std::vector<double> again = half;
    zslltui(1, n, s.ju.data(), s.u.data(), s.perm.data(), half.data(), s.work.data());
    EXPECT_EQ(half, x);
    zslltml(1, n, s.ju.data(), s.u.data(), s.perm.data(), again.data(), s.work.data());
    EXPECT_LE(difference(column(again), column(b)), tolerance);
    again = x;
    zslltmu(1, n, s.ju.data(), s.u.data(), s.perm.data(), again.data(), s.work.data());
    zslltml(1, n, s.ju.data(), s.u.data(), s.perm.data(), again.data(), s.work.data());
    EXPECT_LE(difference(column(again), column(b)), tolerance);
    again = b;
    zslltml(0, n, s.ju.data(), s.u.data(), nullptr, again.data(), nullptr);
    EXPECT_LE(difference(column(again), s.lower() * column(b)), tolerance);
    zslltli(0, n, s.ju.data(), s.u.data(), nullptr, again.data(), nullptr);
    zslltmu(0, n, s.ju.data(), s.u.data(), nullptr, again.data(), nullptr);
    zslltui(0, n, s.ju.data(), s.u.data(), nullptr, again.data(), nullptr);
    EXPECT_LE(difference(column(again), column(b)), tolerance);

    // Two columns side by side, and the form B' A^-1 B.
    std::vector<double> block(at(3 * n), 5.0);
    for (int i = 0; i < n; ++i) {
      block[at(3 * i)] = b[at(i)];
      block[at(3 * i + 1)] = y[at(i)];
    }
    std::vector<double> solved = block;
    zsllts2(n, 2, 3, s.ju.data(), s.u.data(), s.perm.data(), solved.data(), s.work.data());
    long double form[3] = {0.0L, 0.0L, 0.0L};
    for (int i = 0; i < n; ++i) {
      EXPECT_EQ(solved[at(3 * i)], x[at(i)]);
      EXPECT_EQ(solved[at(3 * i + 2)], 5.0);
      form[0] += static_cast<long double>(b[at(i)]) * solved[at(3 * i)];
      form[1] += static_cast<long double>(y[at(i)]) * solved[at(3 * i)];
      form[2] += static_cast<long double>(y[at(i)]) * solved[at(3 * i + 1)];
    }
    double q[3];
    zslltqf(n, 2, 3, s.ju.data(), s.u.data(), s.perm.data(), block.data(), q, s.work.data());
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(q[i], static_cast<double>(form[i]), tolerance);

    // Refinement brings a spoilt solution back.
    std::vector<double> r(at(n));
    std::vector<double> spoilt = x;
    for (double& v : spoilt) v += 1e-3;
    for (int step = 0; step < 3; ++step)
      zslltre(n, s.ja.data(), s.a.data(), s.ju.data(), s.u.data(), s.perm.data(), b.data(), spoilt.data(), r.data(),
              s.work.data());
    EXPECT_LE(difference(s.full * column(spoilt), column(b)),
              n * 4.0 * eps * largest(s.full) * (1.0 + largest(column(x))));
  }
}

TEST(SparseCholesky, RowsComeAndGo)
{
  Source source(63);
  for (int trial = 0; trial < 40; ++trial) {
    const int n = source.integer(3, 30);
    Sparse s(n, n, source);
    ASSERT_EQ(s.factor(), 0);
    const Dense before = s.in_order(s.full);
    const std::vector<double>& row = s.rows[at(source.integer(0, n - 1))];
    std::vector<double> x(at(n));
    for (int k = 0; k < n; ++k) x[at(k)] = row[at(s.perm[at(k)])];
    const std::vector<double> kept = x;
    std::vector<double> dcds(at(2 * n));

    ASSERT_EQ(zslltrd(n, s.ju.data(), s.jusl.data(), s.u.data(), x.data(), dcds.data()), 0);
    Dense l = s.lower();
    const Dense less = before + -1.0L * (column(kept) * transpose(column(kept)));
    EXPECT_LE(difference(l * transpose(l), less), 100.0 * n * eps * largest(before));
    for (int j = 0; j < n; ++j) EXPECT_NEAR(std::hypot(dcds[at(2 * j)], dcds[at(2 * j + 1)]), 1.0, 4 * eps);

    x = kept;
    ASSERT_EQ(zslltra(n, s.ju.data(), s.jusl.data(), s.u.data(), x.data(), dcds.data()), 0);
    l = s.lower();
    EXPECT_LE(difference(l * transpose(l), before), 100.0 * n * eps * largest(before));

    // Ten times the row cannot be taken away, and the factor stays.
    const std::vector<double> factor = s.u;
    for (int k = 0; k < n; ++k) x[at(k)] = 1e3 * kept[at(k)];
    EXPECT_EQ(zslltrd(n, s.ju.data(), s.jusl.data(), s.u.data(), x.data(), dcds.data()), 1);
    EXPECT_EQ(s.u, factor);
  }
}

TEST(SparseCholesky, FaultsAndSingularMatrices)
{
  // A diagonal structure has no place for a coupling.
  std::vector<int> ja = {0, 1, 2, 0, 1};
  std::vector<int> perm = {0, 1, -1, -1};
  std::vector<int> iwork(9);
  std::vector<int> ju(5);
  int length = 5;
  ASSERT_EQ(zslltsf(2, ja.data(), perm.data(), ju.data(), &length, iwork.data()), 0);
  EXPECT_EQ(length, 5);
  const std::vector<int> coupled = {0, 1, 3, 0, 0, 1};
  const std::vector<double> a = {4.0, 2.0, 1.0};
  std::vector<double> u(2);
  std::vector<double> work(2);
  EXPECT_EQ(zslltnf(1, 0, 2, coupled.data(), a.data(), perm.data(), ju.data(), u.data(), 0.0, work.data()),
            structure_fault);
  std::vector<int> jasl(3);
  std::vector<int> jusl(7);
  EXPECT_EQ(zslltiu(2, coupled.data(), perm.data(), ju.data(), jasl.data(), jusl.data()), structure_fault);
  ASSERT_EQ(zslltiu(2, ja.data(), perm.data(), ju.data(), jasl.data(), jusl.data()), 0);
  std::vector<double> x = {1.0, 1.0};
  std::vector<double> dcds(4);
  EXPECT_EQ(zslltra(2, ju.data(), jusl.data(), u.data(), x.data(), dcds.data()), structure_fault);

  // [[4, 2], [2, 1]] has rank 1: the second pivot is refused, and the solve gives 0 there.
  length = 6;
  ju.resize(6);
  ASSERT_EQ(zslltsf(2, coupled.data(), perm.data(), ju.data(), &length, iwork.data()), 0);
  u.resize(3);
  EXPECT_EQ(zslltnf(1, 0, 2, coupled.data(), a.data(), perm.data(), ju.data(), u.data(), 1e-12, work.data()), 1);
  EXPECT_EQ(u, (std::vector<double>{2.0, 1.0, 0.0}));
  x = {8.0, 4.0};
  zslltso(2, ju.data(), u.data(), perm.data(), x.data(), work.data());
  EXPECT_EQ(x, (std::vector<double>{2.0, 0.0}));
}

TEST(SparseCholesky, CoordinatesSortAndMeet)
{
  const std::vector<int> ir = {2, 0, 1, 2, 0, 2};
  const std::vector<int> ic = {1, 0, 2, 2, 2, 1};
  const std::vector<double> s = {1.0, 5.0, 10.0, 7.0, 3.0, 100.0};
  std::vector<int> ja(10);
  std::vector<double> a(6);
  EXPECT_EQ(zslltco(1, 3, 6, ir.data(), ic.data(), s.data(), ja.data(), a.data()), 4);
  EXPECT_EQ((std::vector<int>(ja.begin(), ja.begin() + 8)), (std::vector<int>{0, 1, 1, 4, 0, 0, 1, 2}));
  EXPECT_EQ((std::vector<double>(a.begin(), a.begin() + 4)), (std::vector<double>{5.0, 3.0, 111.0, 7.0}));
  EXPECT_EQ(zslltco(0, 3, 6, ir.data(), ic.data(), s.data(), ja.data(), a.data()), 4);
  EXPECT_EQ(a[2], 100.0);
  EXPECT_EQ(zslltco(0, 2, 6, ir.data(), ic.data(), s.data(), ja.data(), a.data()), -1);
}

} // namespace
} // namespace torvale::matrix::test
