#include "small_problem.h"

#include <gmock/gmock.h>

#include <cmath>

using namespace torvale::optimizer;
using torvale::test::SmallProblem;
using Vector = std::vector<double>;

namespace {

// f = exp(a) + a b^2 c + log(c), with gradient and Hessian by hand.
double smooth(const Vector& x)
{
  return std::exp(x[0]) + x[0] * x[1] * x[1] * x[2] + std::log(x[2]);
}
Vector smooth_gradient(const Vector& x)
{
  return {std::exp(x[0]) + x[1] * x[1] * x[2], 2.0 * x[0] * x[1] * x[2], x[0] * x[1] * x[1] + 1.0 / x[2]};
}
Vector smooth_hessian(const Vector& x)
{
  return {std::exp(x[0]), 2.0 * x[1] * x[2], 2.0 * x[0] * x[2], x[1] * x[1], 2.0 * x[0] * x[1], -1.0 / (x[2] * x[2])};
}

const Vector point = {0.7, -1.3, 2.1};

class AtPoint : public SmallProblem {
public:
  explicit AtPoint(Gradient gradient = nullptr) : SmallProblem(TRUREG, point, smooth, std::move(gradient)) {}
  void ready()
  {
    prepare();
    str.crit = smooth(x());
    const Vector slopes = smooth_gradient(x());
    std::copy(slopes.begin(), slopes.end(), str.grad);
    std::fill_n(str.hlim, 3, missing);
  }
};

double worst(const double* a, const Vector& b)
{
  double w = 0.0;
  for (std::size_t i = 0; i < b.size(); ++i) w = std::max(w, std::abs(a[i] - b[i]) / std::max(1.0, std::abs(b[i])));
  return w;
}

} // namespace

TEST(Differences, GradientsAndHessiansHaveTheAccuracyOfTheirOrder)
{
  struct Case {
    int (*routine)(MINSTR*);
    bool hessian, from_gradient;
    double accuracy;
  };
  const Case cases[] = {{znlpfig, false, false, 1e-6}, {znlpfg2, false, false, 1e-8}, {znlpfih, true, false, 2e-5},
                        {znlpfh2, true, false, 1e-5},  {znlpfh3, true, true, 1e-5},   {znlpfh4, true, true, 1e-8}};
  for (const Case& c : cases) {
    AtPoint p(c.from_gradient ? SmallProblem::Gradient(smooth_gradient) : nullptr);
    p.ready();
    EXPECT_EQ(c.routine(&p.str), 0);
    EXPECT_LT(worst(c.hessian ? p.str.hess : p.str.grad, c.hessian ? smooth_hessian(point) : smooth_gradient(point)),
              c.accuracy);
    EXPECT_EQ(p.x(), point) << "the point is untouched";
    EXPECT_EQ(p.str.crit, smooth(point));
    EXPECT_EQ(p.str.indf, 0);
    if (c.hessian) {
      EXPECT_EQ(worst(p.str.grad, smooth_gradient(point)), 0.0);
    }
  }
}

TEST(Differences, ParameterOfTinyScaleGetsATinyInterval)
{
  // The natural unit of the first parameter is 1e-8.
  const auto f = [](const Vector& x) { return 100.0 + std::pow(std::sinh(1e8 * x[0]), 2) + x[1] * x[1]; };
  for (const bool hessian : {false, true}) {
    SmallProblem p(TRUREG, {5e-9, 1.0}, f);
    p.str.fidi = 2;
    p.prepare();
    std::fill_n(p.str.hlim, 2, missing);
    p.str.crit = f(p.x());
    EXPECT_EQ(hessian ? znlpfih(&p.str) : znlpfg2(&p.str), 0);
    if (hessian) {
      EXPECT_NEAR(p.str.hess[0] / (2e16 * std::cosh(1.0)), 1.0, 1e-4);
    } else {
      EXPECT_NEAR(p.str.grad[0] / (1e8 * std::sinh(1.0)), 1.0, 1e-6);
    }
  }
}

TEST(Differences, BoundsTurnTheIntervalRound)
{
  for (const int routine : {0, 1, 2, 3}) {
    for (const bool upper : {true, false}) {
      AtPoint p;
      const double eps = 1e-12;
      p.bounds({upper ? -5.0 : 0.7, -5.0, upper ? 0.0 : 2.1}, {upper ? 0.7 : 5.0, -1.3 + eps, upper ? 2.1 : 5.0});
      p.ready();
      int (*const routines[])(MINSTR*) = {znlpfig, znlpfg2, znlpfih, znlpfh2};
      EXPECT_EQ(routines[routine](&p.str), 0);
      if (routine < 2) {
        EXPECT_LT(worst(p.str.grad, smooth_gradient(point)), 3e-6) << routine << upper;
      } else {
        EXPECT_LT(worst(p.str.hess, smooth_hessian(point)), 0.02) << routine << upper;
      }
    }
  }
}

TEST(Differences, OneSideThatFailsIsNoFailure)
{
  for (const double wall : {0.7 + 1e-9, 0.7 - 1e-9}) {
    const auto f = [wall](const Vector& x) { return (wall > 0.7 ? x[0] > wall : x[0] < wall) ? NAN : smooth(x); };
    SmallProblem p(TRUREG, point, f);
    p.prepare();
    std::fill_n(p.str.hlim, 3, missing);
    p.str.crit = smooth(point);
    EXPECT_EQ(znlpfig(&p.str), 0);
    EXPECT_LT(worst(p.str.grad, smooth_gradient(point)), 3e-6);
    EXPECT_EQ(znlpfg2(&p.str), 0);
    EXPECT_LT(worst(p.str.grad, smooth_gradient(point)), 1e-6);
    EXPECT_EQ(znlpfih(&p.str), 0);
  }
  SmallProblem island(TRUREG, point, [](const Vector& x) { return x == point ? 1.0 : NAN; });
  island.prepare();
  std::fill_n(island.str.hlim, 3, missing);
  island.str.crit = 1.0;
  EXPECT_EQ(znlpfig(&island.str), -2);
  EXPECT_EQ(znlpfg2(&island.str), -2);
  EXPECT_EQ(znlpfih(&island.str), -11);
  EXPECT_EQ(island.x(), point);
}

TEST(Differences, IntervalSearchBalancesNoiseAndCurvature)
{
  // f'' = 2c at x = 1 with noise e (1 + f): the best forward interval is 2 sqrt(e (1 + f) / f'').
  for (const double c : {1.0, 1e4, 1e-3}) {
    SmallProblem p(DUQUAN, {1.0, 3.0}, [c](const Vector& x) { return 2.0 + c * std::pow(x[0] - 0.3, 2) + x[1]; });
    p.str.fdig = 10.0;
    p.str.cfdh = 1;
    p.prepare();
    EXPECT_EQ(znlpfdh(&p.str, 1), 0);
    const double f = 2.0 + c * 0.49 + 3.0;
    const double best = 2.0 * std::sqrt(1e-10 * (1.0 + f) / (2.0 * c));
    EXPECT_NEAR(p.str.hfwd[0] * 2.0 / best, 1.0, 0.2) << c; // kept relative to 1 + |x|
    EXPECT_NEAR(p.str.hfwd[1], 2e-5, 1e-12) << "a linear parameter has no best interval: the fallback";
    EXPECT_GT(p.str.hcnt[0], p.str.hfwd[0]);
  }
  SmallProblem fit(DUQUAN, {-2.0, 1.0},
                   [](const Vector& x) { return std::pow(x[0] - 1.0, 2) + 1e6 * std::pow(x[1] - x[0], 2); });
  fit.str.cfdh = 1;
  EXPECT_GT(fit.run(), 0);
  EXPECT_NEAR(fit.str.crit, 0.0, 1e-6);
}

TEST(Differences, OwnBaseIsUsed)
{
  AtPoint p;
  p.ready();
  EXPECT_EQ(znlpfg3(&p.str, 1e-2), 0);
  EXPECT_GT(worst(p.str.grad, smooth_gradient(point)), 1e-4) << "a hundredth is a coarse interval";
  EXPECT_LT(worst(p.str.grad, smooth_gradient(point)), 0.1);
}
