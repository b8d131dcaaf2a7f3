#include "small_problem.h"

#include "optimizer/active_set/active_set.h"
#include "optimizer/line_search/line_search.h"
#include "optimizer/updates/updates.h"

#include <gmock/gmock.h>

#include <cmath>
#include <random>

using namespace torvale::optimizer;
using torvale::test::SmallProblem;
using Vector = std::vector<double>;
using Dense = std::vector<Vector>;

namespace {

std::size_t at(std::size_t i, std::size_t j)
{
  return i * (i + 1) / 2 + j;
}

Dense from_symmetric(const Vector& a, std::size_t n)
{
  Dense d(n, Vector(n));
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j) d[i][j] = a[i >= j ? at(i, j) : at(j, i)];
  return d;
}

Dense from_ldl(const Vector& f, std::size_t n)
{
  Dense d(n, Vector(n, 0.0));
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j)
      for (std::size_t k = 0; k <= std::min(i, j); ++k)
        d[i][j] += (i == k ? 1.0 : f[at(i, k)]) * f[at(k, k)] * (j == k ? 1.0 : f[at(j, k)]);
  return d;
}

Dense from_triangle(const Vector& l, std::size_t n)
{
  Dense d(n, Vector(n, 0.0));
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j)
      for (std::size_t k = 0; k <= std::min(i, j); ++k) d[i][j] += l[at(i, k)] * l[at(j, k)];
  return d;
}

Vector times(const Dense& a, const Vector& v)
{
  Vector r(v.size(), 0.0);
  for (std::size_t i = 0; i < v.size(); ++i)
    for (std::size_t j = 0; j < v.size(); ++j) r[i] += a[i][j] * v[j];
  return r;
}

double dot(const Vector& a, const Vector& b)
{
  double s = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i) s += a[i] * b[i];
  return s;
}

// The textbook formulas on a dense matrix: BFGS and DFP for B. For the inverse the roles of s and y change.
Dense bfgs(Dense b, const Vector& s, const Vector& y)
{
  const Vector w = times(b, s);
  const double sy = dot(s, y), q = dot(s, w);
  for (std::size_t i = 0; i < s.size(); ++i)
    for (std::size_t j = 0; j < s.size(); ++j) b[i][j] += y[i] * y[j] / sy - w[i] * w[j] / q;
  return b;
}

Dense dfp(Dense b, const Vector& s, const Vector& y)
{
  const Vector w = times(b, s);
  const double sy = dot(s, y), q = dot(s, w);
  Dense r = bfgs(b, s, y);
  for (std::size_t i = 0; i < s.size(); ++i)
    for (std::size_t j = 0; j < s.size(); ++j) r[i][j] += q * (y[i] / sy - w[i] / q) * (y[j] / sy - w[j] / q);
  return r;
}

void expect_near(const Dense& a, const Dense& b, double relative)
{
  double size = 0.0;
  for (const Vector& row : b)
    for (const double v : row) size = std::max(size, std::abs(v));
  for (std::size_t i = 0; i < a.size(); ++i)
    for (std::size_t j = 0; j < a.size(); ++j) EXPECT_NEAR(a[i][j], b[i][j], relative * size) << i << " " << j;
}

class Updates : public testing::TestWithParam<std::size_t> {
protected:
  void SetUp() override
  {
    n = GetParam();
    std::mt19937 random(static_cast<unsigned>(n));
    std::normal_distribution<double> normal;
    ldl.resize(at(n, 0));
    triangle.resize(at(n, 0));
    for (std::size_t i = 0; i < n; ++i)
      for (std::size_t j = 0; j <= i; ++j) {
        ldl[at(i, j)] = i == j ? 0.5 + std::abs(normal(random)) : 0.4 * normal(random);
        triangle[at(i, j)] = i == j ? 0.7 + std::abs(normal(random)) : 0.4 * normal(random);
      }
    s.resize(n);
    y.resize(n);
    for (double& v : s) v = normal(random);
    for (double& v : y) v = normal(random);
    if (dot(s, y) < 0.0)
      for (double& v : y) v = -v;
    for (std::size_t i = 0; i < n; ++i) y[i] += 2.0 * s[i];
    w1.resize(2 * n);
    w2 = w3 = w1;
    scale = 1.0;
  }
  long m() const { return static_cast<long>(n); }

  std::size_t n = 0;
  Vector ldl, triangle, s, y, w1, w2, w3;
  double scale = 1.0;
};

} // namespace

TEST_P(Updates, FactorsAndInversesFollowTheFormulas)
{
  Vector f = ldl;
  EXPECT_EQ(dubfgsup(m(), 0, s.data(), y.data(), f.data(), w1.data(), w2.data(), scale), 0);
  expect_near(from_ldl(f, n), bfgs(from_ldl(ldl, n), s, y), 1e-12);
  f = ldl;
  EXPECT_EQ(dudfpup(m(), 0, 1.0, s.data(), y.data(), f.data(), w1.data(), w2.data(), w3.data(), scale), 0);
  expect_near(from_ldl(f, n), dfp(from_ldl(ldl, n), s, y), 1e-12);

  Vector l = triangle;
  EXPECT_EQ(uvbfgs(m(), 0, s.data(), y.data(), l.data(), w1.data(), w2.data(), scale), 0);
  expect_near(from_triangle(l, n), bfgs(from_triangle(triangle, n), s, y), 1e-12);
  l = triangle;
  EXPECT_EQ(uvdfp(m(), 0, 1.0, s.data(), y.data(), l.data(), w1.data(), w2.data(), scale), 0);
  expect_near(from_triangle(l, n), dfp(from_triangle(triangle, n), s, y), 1e-11);

  // A symmetric matrix that plays the inverse: BFGS on it is DFP with s and y exchanged, and the other way round.
  Vector h(at(n, 0));
  const Dense start = from_triangle(triangle, n);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j <= i; ++j) h[at(i, j)] = start[i][j];
  Vector bfgs_inverse = h, dfp_inverse = h;
  EXPECT_EQ(bfgsupd(m(), 0, s.data(), y.data(), bfgs_inverse.data(), w1.data(), scale), 0);
  EXPECT_EQ(dfpupd(m(), 0, 1.0, s.data(), y.data(), dfp_inverse.data(), w1.data(), scale), 0);
  expect_near(from_symmetric(bfgs_inverse, n), dfp(start, y, s), 1e-12);
  expect_near(from_symmetric(dfp_inverse, n), bfgs(start, y, s), 1e-12);
}

TEST_P(Updates, SecantEquationHoldsAfterScalingToo)
{
  const auto secant_error = [&](const Dense& b) {
    const Vector bs = times(b, s);
    double worst = 0.0;
    for (std::size_t i = 0; i < n; ++i) worst = std::max(worst, std::abs(bs[i] - y[i]));
    return worst / std::sqrt(dot(y, y));
  };
  Vector f = ldl, l = triangle;
  EXPECT_EQ(dubfgsup(m(), 1, s.data(), y.data(), f.data(), w1.data(), w2.data(), scale), 0);
  EXPECT_LT(secant_error(from_ldl(f, n)), 1e-12);
  f = ldl;
  EXPECT_EQ(dudfpup(m(), 1, 0.3, s.data(), y.data(), f.data(), w1.data(), w2.data(), w3.data(), scale), 0);
  EXPECT_LT(secant_error(from_ldl(f, n)), 1e-12);
  EXPECT_NEAR(scale, 1.0 / 0.3, 1e-12);
  EXPECT_EQ(uvbfgs(m(), 1, s.data(), y.data(), l.data(), w1.data(), w2.data(), scale), 0);
  EXPECT_LT(secant_error(from_triangle(l, n)), 1e-12);
}

TEST_P(Updates, CurvatureOfTheWrongSignIsRefusedOrDamped)
{
  for (std::size_t i = 0; i < n; ++i) y[i] = -s[i];
  Vector f = ldl, h = ldl, l = triangle;
  EXPECT_GT(dubfgsup(m(), 0, s.data(), y.data(), f.data(), w1.data(), w2.data(), scale), 0);
  EXPECT_EQ(f, ldl) << "a skipped update leaves the matrix alone";
  EXPECT_GT(bfgsupd(m(), 0, s.data(), y.data(), h.data(), w1.data(), scale), 0);
  EXPECT_GT(dfpupd(m(), 0, 1.0, s.data(), y.data(), h.data(), w1.data(), scale), 0);
  EXPECT_GT(dudfpup(m(), 0, 1.0, s.data(), y.data(), f.data(), w1.data(), w2.data(), w3.data(), scale), 0);
  EXPECT_EQ(f, ldl);
  // The damped update keeps a tenth of the curvature that B expects.
  const double q = dot(s, times(from_triangle(triangle, n), s));
  EXPECT_EQ(uvbfgs(m(), 0, s.data(), y.data(), l.data(), w1.data(), w2.data(), scale), 0);
  EXPECT_NEAR(dot(s, times(from_triangle(l, n), s)) / q, 0.1, 1e-10);
}

TEST_P(Updates, RankOneChangesMatchAndRefuseToLoseRank)
{
  for (const double sig : {2.0, -0.01}) {
    Vector f = ldl, z = s;
    ASSERT_EQ(ldlupd(m(), sig, f.data(), z.data(), w1.data()), m());
    Dense expected = from_ldl(ldl, n);
    for (std::size_t i = 0; i < n; ++i)
      for (std::size_t j = 0; j < n; ++j) expected[i][j] += sig * s[i] * s[j];
    expect_near(from_ldl(f, n), expected, 1e-12);
  }
  // B - B s s'B / (s'Bs) is singular, and twice of it indefinite.
  const Vector w = times(from_ldl(ldl, n), s);
  for (const double factor : {1.0, 2.0}) {
    Vector f = ldl, z = w;
    EXPECT_EQ(ldlupd(m(), -factor / dot(s, w), f.data(), z.data(), w1.data()), m() - 1);
    EXPECT_EQ(f, ldl) << "the factor is as it was";
  }
}

INSTANTIATE_TEST_SUITE_P(Orders, Updates, testing::Values(1, 2, 3, 8, 25));

// Every line search on curves with a known minimum: sufficient decrease, the gradient of the point, never beyond the
// bound.
TEST(LineSearches, FindADecreaseFromAnyFirstStep)
{
  struct Curve {
    const char* name;
    double (*f)(double);
    double (*g)(double);
  };
  const Curve curves[] = {
      {"quadratic", [](double a) { return (a - 3.0) * (a - 3.0); }, [](double a) { return 2.0 * (a - 3.0); }},
      {"narrow", [](double a) { return -a / (a * a + 2.0); },
       [](double a) { return (a * a - 2.0) / std::pow(a * a + 2.0, 2); }},
      {"steep", [](double a) { return std::exp(5.0 * a) - 50.0 * a; },
       [](double a) { return 5.0 * std::exp(5.0 * a) - 50.0; }},
      {"wall", [](double a) { return a < 0.7 ? (a - 0.6) * (a - 0.6) : NAN; },
       [](double a) { return 2.0 * (a - 0.6); }},
  };
  for (int method = 1; method <= 9; ++method) {
    for (const Curve& c : curves) {
      for (const double first : {1e-3, 0.1, 1.0, 10.0}) {
        SmallProblem p(
            DUQUAN, {0.0}, [&](const Vector& x) { return c.f(x[0]); },
            [&](const Vector& x) { return Vector{c.g(x[0])}; });
        p.str.tlin = method;
        p.prepare();
        MINSTR& s = p.str;
        s.xold[0] = 0.0;
        s.cold = s.crit = c.f(0.0);
        s.gold[0] = s.grad[0] = c.g(0.0);
        s.sdir[0] = 1.0;
        s.trial = first;
        s.stub = 20.0;
        const LineSearchRoutine search = method == 9 ? znlpls9 : line_search_routine(method);
        EXPECT_EQ(search(&s), 0) << method << " " << c.name << " " << first;
        EXPECT_LT(s.crit, s.cold + 1e-4 * s.alfa * c.g(0.0)) << method << " " << c.name << " " << first;
        EXPECT_EQ(s.crit, c.f(s.x[0]));
        EXPECT_EQ(s.grad[0], c.g(s.x[0]));
        EXPECT_EQ(s.x[0], s.alfa);
        EXPECT_LE(s.alfa, 20.0);
        EXPECT_LE(s.nfct, 40) << method << " " << c.name << " " << first;
      }
    }
  }
}

TEST(LineSearches, UphillDirectionFailsWithoutACall)
{
  for (int method = 1; method <= 8; ++method) {
    SmallProblem p(
        DUQUAN, {1.0}, [](const Vector& x) { return x[0] * x[0]; }, [](const Vector& x) { return Vector{2.0 * x[0]}; });
    p.prepare();
    p.str.xold[0] = p.str.cold = 1.0;
    p.str.gold[0] = 2.0;
    p.str.sdir[0] = 1.0;
    p.str.stub = largest;
    EXPECT_EQ(line_search_routine(method)(&p.str), 1);
    EXPECT_EQ(p.str.nfct, 0);
  }
}

TEST(LineSearches, MaxStepHoldsInTheFirstSearchesOnly)
{
  SmallProblem p(
      DUQUAN, {0.0}, [](const Vector& x) { return (x[0] - 50.0) * (x[0] - 50.0); },
      [](const Vector& x) { return Vector{2.0 * (x[0] - 50.0)}; });
  p.str.smax = 0.01;
  p.str.smit = 3;
  p.str.dbug = 4;
  EXPECT_GT(p.run(), 0);
  for (std::size_t i = 1; i <= 3; ++i) EXPECT_LE(p.history[i].first, 0.01);
  EXPECT_GT(p.history[4].first, 0.01);
}
