#include "small_problem.h"

#include <gmock/gmock.h>

#include <cmath>

using namespace torvale::optimizer;
using torvale::test::SmallProblem;
using Vector = std::vector<double>;

namespace {

struct Inverse {
  int zeros;
  Vector matrix;
  double det[5];
  std::vector<long> singular;
};

Inverse invert(Vector a, long n, int form = 1)
{
  Inverse r{0, std::move(a), {}, std::vector<long>(static_cast<std::size_t>(n))};
  Vector diagonal(static_cast<std::size_t>(n)), work(static_cast<std::size_t>(n));
  r.zeros = zcovinv(1, form, n, 1.491668147e-154, 1e-12, 1e-8, r.matrix.data(), r.det, diagonal.data(), work.data(),
                    r.singular.data());
  return r;
}

double determinant(const Inverse& r)
{
  return r.det[0] * std::pow(10.0, r.det[1]);
}

Vector generalized(Vector a, long n)
{
  double det[5];
  Vector eigenvalues(static_cast<std::size_t>(n)), work(static_cast<std::size_t>(n * n + 2 * n));
  zcovgiv(n, 1.491668147e-154, 1e-14, a.data(), det, eigenvalues.data(), work.data());
  return a;
}

double element(const Vector& packed, int i, int j)
{
  return packed[static_cast<std::size_t>(i >= j ? i * (i + 1) / 2 + j : j * (j + 1) / 2 + i)];
}

} // namespace

// A diagonal that says nothing of its row: scaling by it would spoil a matrix of condition 7. Rows of very different
// size beside it must stay harmless.
TEST(CovarianceInverse, TinyDiagonalsOfIndefiniteMatrices)
{
  for (const double tiny : {1e-20, 1e-8, 0.0, -1e-14}) {
    for (const double unit : {1.0, 1e5, 1e-7}) {
      const Vector units = {unit, 1.0, 1.0 / unit}, plain = {tiny, 1, 1, 2, 1, 4};
      Vector a(6);
      for (int i = 0; i < 3; ++i)
        for (int j = 0; j <= i; ++j)
          a[static_cast<std::size_t>(i * (i + 1) / 2 + j)] =
              element(plain, i, j) * units[static_cast<std::size_t>(i)] * units[static_cast<std::size_t>(j)];
      for (const Vector& g : {invert(a, 3).matrix, generalized(a, 3)})
        for (int i = 0; i < 3; ++i)
          for (int j = 0; j < 3; ++j) {
            double sum = 0.0;
            for (int k = 0; k < 3; ++k) sum += element(a, i, k) * element(g, k, j);
            EXPECT_NEAR(sum * units[static_cast<std::size_t>(j)] / units[static_cast<std::size_t>(i)],
                        i == j ? 1.0 : 0.0, 1e-13)
                << tiny << " " << unit;
          }
    }
  }
}

TEST(CovarianceInverse, RegularSingularAndIndefinite)
{
  // [[4, 2], [2, 3]]: determinant 8, inverse [[3, -2], [-2, 4]] / 8.
  const Inverse regular = invert({4, 2, 3}, 2);
  EXPECT_EQ(regular.zeros, 0);
  EXPECT_THAT(regular.matrix, testing::Pointwise(testing::DoubleNear(1e-15), Vector{0.375, -0.25, 0.5}));
  EXPECT_NEAR(determinant(regular), 8.0, 1e-13);
  EXPECT_THAT(regular.det, testing::ElementsAre(testing::_, testing::_, 2, 0, 0));

  // The third column is the sum of the first two.
  const Inverse singular = invert({2, 1, 2, 3, 3, 6}, 3);
  EXPECT_EQ(singular.zeros, 1);
  EXPECT_THAT(singular.matrix,
              testing::Pointwise(testing::DoubleNear(1e-14), Vector{2.0 / 3, -1.0 / 3, 2.0 / 3, 0, 0, 0}));
  EXPECT_THAT(singular.singular, testing::ElementsAre(0, 0, 1));
  EXPECT_THAT(singular.det, testing::ElementsAre(0, 0, 2, 0, 1));

  const Inverse indefinite = invert({1, 0, -2}, 2);
  EXPECT_EQ(indefinite.zeros, 0);
  EXPECT_EQ(indefinite.matrix[2], -0.5);
  EXPECT_THAT(indefinite.det, testing::ElementsAre(testing::_, testing::_, 1, 1, 0));

  const Inverse zero_row = invert({0, 0, 5}, 2);
  EXPECT_EQ(zero_row.matrix, (Vector{0, 0, 0.2}));
  Vector own = {1, 0, -2}, diagonal(2), work(2);
  double det[5];
  EXPECT_EQ(zcovinv(0, 1, 2, 0.0, 0.0, 0.0, own.data(), det, diagonal.data(), work.data(), nullptr), 0)
      << "criteria of zero refuse no pivot but zero";
  EXPECT_EQ(own[2], -0.5);
  EXPECT_EQ(invert({4, 0, -2}, 3, 2).matrix, (Vector{0.25, 0, -0.5}));

  // Small is not singular: parameters that differ by ten powers of ten.
  const Inverse scaled = invert({4e20, 2e10, 3}, 2);
  EXPECT_EQ(scaled.zeros, 0);
  EXPECT_NEAR(scaled.matrix[0], 0.375e-20, 1e-34);
}

TEST(CovarianceInverse, EigenvaluesGiveMoorePenrose)
{
  Vector a = {2, 1, 2, 3, 3, 6}, values(3), work(15);
  const Vector original = a;
  double det[5];
  EXPECT_EQ(zcovgiv(3, 1e-150, 1e-10, a.data(), det, values.data(), work.data()), 1);
  const auto element = [](const Vector& m, int i, int j) {
    return m[std::size_t(std::max(i, j) * (std::max(i, j) + 1) / 2 + std::min(i, j))];
  };
  // A G A = A.
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) {
      double sum = 0.0;
      for (int k = 0; k < 3; ++k)
        for (int l = 0; l < 3; ++l) sum += element(original, i, k) * element(a, k, l) * element(original, l, j);
      EXPECT_NEAR(sum, element(original, i, j), 1e-13);
    }
  }
}

namespace {

// Minus the log likelihood of independent normal parameters with known information, at its maximum (1, 2, 3).
double information(const Vector& x)
{
  return 10.0 + 0.5 * 4.0 * std::pow(x[0] - 1.0, 2) + 0.5 * 25.0 * std::pow(x[1] - 2.0, 2) +
         2.0 * (x[0] - 1.0) * (x[1] - 2.0) + 0.5 * 100.0 * std::pow(x[2] - 3.0, 2);
}
Vector information_gradient(const Vector& x)
{
  return {4.0 * (x[0] - 1.0) + 2.0 * (x[1] - 2.0), 25.0 * (x[1] - 2.0) + 2.0 * (x[0] - 1.0), 100.0 * (x[2] - 3.0)};
}

} // namespace

TEST(Covariance, InverseHessianForEveryTechnique)
{
  for (const int technique : {NONE, TRUREG, NEWRAP, NRRIDG, DBLDOG, QUANEW, DUQUAN, CONGRA, NMSIMP}) {
    for (const bool analytic : {true, false}) {
      SmallProblem p(technique, technique == NONE ? Vector{1.0, 2.0, 3.0} : Vector{0.0, 0.0, 0.0}, information,
                     analytic ? SmallProblem::Gradient(information_gradient) : nullptr);
      COVSTR cov;
      cov.nobs = 17;
      p.str.covstr = &cov;
      EXPECT_GE(p.run(), 0);
      ASSERT_TRUE(cov.covariance.present) << technique_name(technique);
      EXPECT_EQ(cov.status, 0);
      // [[4, 2], [2, 25]] has the inverse [[25, -2], [-2, 4]] / 96.
      const double tolerance = analytic ? 1e-4 : 1e-3;
      EXPECT_NEAR(p.str.ster[0] / std::sqrt(25.0 / 96.0), 1.0, tolerance) << technique_name(technique) << analytic;
      EXPECT_NEAR(p.str.ster[1] / std::sqrt(4.0 / 96.0), 1.0, tolerance);
      EXPECT_NEAR(p.str.ster[2] / 0.1, 1.0, tolerance);
      EXPECT_NEAR(cov.covariance.elements[1], -2.0 / 96.0, 1e-4);
      EXPECT_EQ(p.str.det[2], 3.0);
      EXPECT_NEAR(cov.hessian.elements[5] / 100.0, 1.0, tolerance);
    }
  }
}

TEST(Covariance, HeldParametersHaveNoVarianceAndFreeOnesAreConditional)
{
  SmallProblem p(DUQUAN, {0.0, 0.0, 0.0}, information, information_gradient);
  p.bounds({-5.0, 4.0, -5.0}, {5.0, 9.0, 5.0});
  COVSTR cov;
  p.str.covstr = &cov;
  EXPECT_GT(p.run(), 0);
  EXPECT_EQ(p.str.ster[1], 0.0);
  EXPECT_NEAR(p.str.ster[0], 0.5, 1e-5); // x2 held: the variance of x1 is 1/4
  EXPECT_EQ(cov.projected.order, 2);
  EXPECT_EQ(p.str.det[2], 2.0);

  SmallProblem q(DUQUAN, {0.0, 0.0, 0.0}, information, information_gradient);
  q.row({1.0, -1.0, 0.0}, -1.0, true); // x1 = x2 - 1: along (1, 1, 0) the information is 4 + 4 + 25
  COVSTR cov_row;
  q.str.covstr = &cov_row;
  EXPECT_GT(q.run(), 0);
  EXPECT_NEAR(q.str.ster[0], std::sqrt(1.0 / 33.0), 1e-5);
  EXPECT_NEAR(q.str.ster[1], q.str.ster[0], 1e-9);
}

TEST(Covariance, SingularHessianIsToldWithItsDependencies)
{
  // Only x1 + 2 x2 is determined.
  const auto f = [](const Vector& x) { return std::pow(x[0] + 2.0 * x[1] - 3.0, 2) + std::pow(x[2] - 1.0, 2); };
  const auto g = [](const Vector& x) {
    const double r = 2.0 * (x[0] + 2.0 * x[1] - 3.0);
    return Vector{r, 2.0 * r, 2.0 * (x[2] - 1.0)};
  };
  static std::vector<std::pair<long, Vector>> rows;
  rows.clear();
  SmallProblem p(DUQUAN, {0.0, 0.0, 0.0}, f, g);
  COVSTR cov;
  cov.dependency = [](MINSTR* s, const DependencyRow& row) {
    rows.emplace_back(row.dependent, Vector(row.coefficients, row.coefficients + s->nvar));
  };
  p.str.covstr = &cov;
  EXPECT_GT(p.run(), 0) << "a singular Hessian never stops a fit";
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].first, 1);
  EXPECT_NEAR(rows[0].second[0], 2.0, 1e-5); // the row of x2 is twice that of x1
  EXPECT_EQ(p.str.det[4], 1.0);
  EXPECT_TRUE(p.told(549, 190) && p.told(549, 185));
  EXPECT_EQ(cov.status, 2);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(std::isfinite(p.str.ster[i]));
}

TEST(Covariance, FormsAndFactors)
{
  struct Case {
    int form;
    double cfactor, sigsq;
    int status;
    double standard_error; // of the third parameter, 0.1 by the inverse Hessian
    int message;
  };
  for (const Case& c : {Case{0, missing, missing, 0, 0.1, 0}, Case{2, missing, 4.0, 0, 0.1, 184},
                        Case{2, 9.0, missing, 0, 0.3, 0}, Case{3, missing, missing, 0, 0.1 / std::sqrt(20.0), 0},
                        Case{1, missing, missing, -2, missing, 188}, Case{6, missing, missing, -2, missing, 188}}) {
    SmallProblem p(DUQUAN, {0.0, 0.0, 0.0}, information, information_gradient);
    COVSTR cov;
    cov.nobs = 20;
    cov.icov = c.form;
    cov.cfac = c.cfactor;
    cov.sigs = c.sigsq;
    p.str.covstr = &cov;
    EXPECT_GT(p.run(), 0);
    EXPECT_EQ(cov.status, c.status) << c.form;
    if (is_missing(c.standard_error)) {
      EXPECT_TRUE(is_missing(p.str.ster[2]));
    } else {
      EXPECT_NEAR(p.str.ster[2], c.standard_error, 1e-5);
    }
    EXPECT_EQ(c.message != 0, p.told(549, 184) || p.told(549, 188)) << c.form;
  }
  // A cross-product equal to the Hessian makes the sandwich equal to the inverse.
  SmallProblem p(DUQUAN, {0.0, 0.0, 0.0}, information, information_gradient);
  COVSTR cov;
  cov.icov = 1;
  cov.uscpj = [](MINSTR* s) {
    const double h[] = {4, 2, 25, 0, 0, 100};
    std::copy_n(h, 6, s->covstr->crossproduct.elements.begin());
    return 0;
  };
  p.str.covstr = &cov;
  p.run();
  EXPECT_NEAR(p.str.ster[2], 0.1, 1e-5);
  EXPECT_NEAR(p.str.ster[0], std::sqrt(25.0 / 96.0), 1e-5);
}
