#include "small_problem.h"

#include <gmock/gmock.h>

#include <cmath>

using namespace torvale::optimizer;
using torvale::test::SmallProblem;
using Vector = std::vector<double>;

namespace {

double banana(const Vector& x)
{
  return 100.0 * std::pow(x[1] - x[0] * x[0], 2) + std::pow(1.0 - x[0], 2) + std::pow(x[2] - x[0], 4) + x[2] * x[2];
}

Vector banana_gradient(const Vector& x)
{
  const double r = x[1] - x[0] * x[0], c = 4.0 * std::pow(x[2] - x[0], 3);
  return {-400.0 * r * x[0] - 2.0 * (1.0 - x[0]) - c, 200.0 * r, c + 2.0 * x[2]};
}

Vector divided(Vector x, const Vector& units)
{
  for (std::size_t i = 0; i < x.size(); ++i) x[i] /= units[i];
  return x;
}

struct Path {
  int code;
  long calls;
  Vector objectives, x;
  double gmax, largest_free_gradient;
};

// The problem with its parameters measured in `units`, and its run with scales that undo them.
Path path(int technique, int difference, bool rows, const Vector& units)
{
  const auto in = [&units](const Vector& v) {
    Vector x = v;
    for (std::size_t i = 0; i < x.size(); ++i) x[i] *= units[i];
    return x;
  };
  const auto value = [&units](const Vector& x) { return banana(divided(x, units)); };
  const auto gradient = [&units](const Vector& x) { return divided(banana_gradient(divided(x, units)), units); };
  SmallProblem p(technique, in({-1.2, 1.0, 0.5}), value, difference == 0 ? SmallProblem::Gradient(gradient) : nullptr);
  p.str.fidi = difference;
  p.str.dbug = 2;
  p.bounds(in({-2.0, -2.0, -2.0}), in({2.0, 0.6, 2.0}));
  if (rows) p.row(divided({-1.0, -1.0, 0.5}, units), -1.1);
  p.str.scale = units.data();
  Path result;
  result.code = p.run();
  result.calls = p.str.nfct;
  for (const HistoryRow& row : p.history) result.objectives.push_back(row.objective);
  result.x = divided(p.x(), units);
  result.gmax = p.str.gmax;
  result.largest_free_gradient = 0.0;
  for (int i = 0; i < 3; ++i)
    if (p.str.iabc[i] == 0)
      result.largest_free_gradient = std::max(result.largest_free_gradient, std::abs(p.str.grad[i]));
  return result;
}

} // namespace

// With scales the units of the parameters change no bit of a run, whatever technique, derivatives and constraints.
TEST(Units, ScalesMakeARunIndependentOfThem)
{
  const Vector ones(3, 1.0), units = {std::ldexp(1.0, 20), std::ldexp(1.0, -13), 0.25};
  for (const int technique : {TRUREG, NEWRAP, NRRIDG, DBLDOG, QUANEW, DUQUAN, CONGRA, NMSIMP, NMSIM2}) {
    for (const int difference : {0, 2, 3}) {
      for (const bool rows : {false, true}) {
        if (rows && technique >= NMSIMP) continue;
        const Path plain = path(technique, difference, rows, ones), scaled = path(technique, difference, rows, units);
        const auto name = std::string(technique_name(technique)) + " FD " + std::to_string(difference);
        EXPECT_EQ(plain.code, scaled.code) << name;
        EXPECT_EQ(plain.calls, scaled.calls) << name;
        EXPECT_EQ(plain.objectives, scaled.objectives) << name;
        EXPECT_EQ(plain.x, scaled.x) << name;
        if (rows) continue;
        EXPECT_EQ(scaled.gmax, scaled.largest_free_gradient) << name << ": results have the caller's units";
      }
    }
  }
}

// A given ABSGCONV is meant in the caller's units, the default in those of the run.
TEST(Units, AbsoluteGradientCriterionIsTheCallersWhenGiven)
{
  const double unit = std::ldexp(1.0, 30);
  const auto value = [unit](const Vector& x) { return std::pow(x[0] / unit - 1.0, 4); };
  const auto gradient = [unit](const Vector& x) { return Vector{4.0 * std::pow(x[0] / unit - 1.0, 3) / unit}; };
  for (const double given : {missing, 1e-5}) {
    SmallProblem p(DUQUAN, {3.0 * unit}, value, gradient);
    p.str.scale = &unit;
    p.str.agtl = given;
    EXPECT_EQ(p.run(), code_absgconv);
    if (is_missing(given))
      EXPECT_NEAR(p.str.x[0] / unit, 1.0, 0.02);
    else
      EXPECT_EQ(p.str.nitr, 0.0) << "32 in a unit of 1e9 is 3e-8";
  }
}

// The caller's metric takes the place of the Hessian: with the true one the first step of a quadratic is the last.
TEST(Metric, QuasiNewtonStartsFromTheMetricOfTheCaller)
{
  static const Vector hessian = {2e6, 30.0, 1e-3};
  const auto value = [](const Vector& x) {
    return 0.5 * (hessian[0] * x[0] * x[0] + 2.0 * hessian[1] * x[0] * x[1] + hessian[2] * x[1] * x[1]) - x[1];
  };
  const auto gradient = [](const Vector& x) {
    return Vector{hessian[0] * x[0] + hessian[1] * x[1], hessian[1] * x[0] + hessian[2] * x[1] - 1.0};
  };
  const Vector units = {1e-3, 30.0};
  for (const int technique : {DUQUAN, QUANEW, DBLDOG}) {
    for (const bool bounded : {false, true}) {
      for (const bool scaled : {false, true}) {
        SmallProblem p(technique, {5.0, 5.0}, value, gradient);
        if (bounded) p.bounds({-1e9, -1e9}, {1e9, 1e9});
        p.str.scale = scaled ? units.data() : nullptr;
        p.str.load = 1;
        p.str.salf = 1e4;
        p.str.usmet = [](MINSTR* s) {
          std::copy(hessian.begin(), hessian.end(), s->hess);
          return 0;
        };
        EXPECT_GT(p.run(), 0) << technique_name(technique);
        EXPECT_NEAR(p.str.x[1], 1.0 / (hessian[2] - hessian[1] * hessian[1] / hessian[0]), 1.0);
        EXPECT_LE(p.str.nitr, 3.0) << technique_name(technique);
      }
    }
  }
}

// A metric that follows the run is taken where it tells changes of the gradient better than what has been learnt: the
// true Hessian saves iterations, one that is wrong throughout is left alone after the start.
TEST(Metric, FollowsTheRunWhereItTellsMore)
{
  static const std::vector<Vector> ways = {{1.0, 0.2, 0.0}, {0.0, 1.5, -0.3}, {0.4, 0.0, 0.7}, {-0.5, 0.6, 1.0}};
  static bool right = true;
  const auto along = [](const Vector& x, const Vector& way) { return x[0] * way[0] + x[1] * way[1] + x[2] * way[2]; };
  const auto value = [&](const Vector& x) {
    double sum = 0.0;
    for (const Vector& way : ways) sum += std::exp(along(x, way)) - 1.5 * along(x, way);
    return sum;
  };
  const auto gradient = [&](const Vector& x) {
    Vector g(3, 0.0);
    for (const Vector& way : ways)
      for (std::size_t i = 0; i < 3; ++i) g[i] += way[i] * (std::exp(along(x, way)) - 1.5);
    return g;
  };
  const auto iterations = [&](bool follows, bool bounded, int technique) {
    SmallProblem p(technique, {3.0, -2.0, 2.0}, value, gradient);
    if (bounded) p.bounds({-50.0, -50.0, -50.0}, {50.0, 50.0, 50.0});
    p.str.load = 1;
    p.str.metric_follows = follows ? 1 : 0;
    p.str.usmet = [](MINSTR* s) {
      double* h = s->hess;
      for (int i = 0; i < 3; ++i)
        for (int j = 0; j <= i; ++j, ++h) {
          *h = !right && i == j ? 1e4 : 0.0;
          for (const Vector& way : ways) {
            const double eta = s->x[0] * way[0] + s->x[1] * way[1] + s->x[2] * way[2];
            if (right) *h += way[static_cast<std::size_t>(i)] * way[static_cast<std::size_t>(j)] * std::exp(eta);
          }
        }
      return 0;
    };
    EXPECT_GT(p.run(), 0);
    EXPECT_LT(*std::max_element(p.str.grad, p.str.grad + 3), 1e-3);
    return p.str.nitr;
  };
  for (const int technique : {DUQUAN, DBLDOG})
    for (const bool bounded : {false, true}) {
      right = true;
      EXPECT_LT(iterations(true, bounded, technique), 0.8 * iterations(false, bounded, technique)) << bounded;
      right = false;
      EXPECT_EQ(iterations(true, bounded, technique), iterations(false, bounded, technique)) << bounded;
    }
}

// One budget: a run that continues another counts on from it, on the same record or on a second one.
TEST(Continuation, CountsGoOnAndLimitsHoldForTheSum)
{
  const auto run = [](SmallProblem& p) { return znlpdrv(&p.str, 1, 0, 0, 0) != 0 ? -99 : znlpdrv(&p.str, 2, 0, 0, 0); };
  SmallProblem p(DUQUAN, {-1.2, 1.0, 0.5}, banana, banana_gradient);
  SmallProblem q(TRUREG, {-1.2, 1.0, 0.5}, banana, banana_gradient);
  p.str.dbug = q.str.dbug = 2;
  p.str.gtol = p.str.ftol = p.str.agtl = 0.3;
  p.prepare();
  ASSERT_GT(run(p), 0);
  const double iterations = p.str.nitr;
  const long calls = p.str.nfct;
  p.str.maxi = iterations + 40;
  p.str.gtol = p.str.ftol = p.str.agtl = 1e-3;
  p.str.continues = 1;
  EXPECT_GT(run(p), 0);
  EXPECT_GT(p.str.nitr, iterations);
  EXPECT_GT(p.str.nfct, calls);
  for (std::size_t i = 1; i < p.history.size(); ++i) {
    EXPECT_GE(p.history[i].calls, p.history[i - 1].calls);
    EXPECT_GE(p.history[i].iteration, p.history[i - 1].iteration);
  }
  q.str.gtol = q.str.ftol = q.str.agtl = 0.0;
  q.str.maxi = p.str.nitr + 2;
  q.prepare();
  continue_run(p.str, &q.str);
  EXPECT_EQ(run(q), code_limit);
  EXPECT_EQ(q.str.nitr, q.str.maxi);
  EXPECT_EQ(run(q), code_limit);
  EXPECT_EQ(q.str.nitr, q.str.maxi) << "nothing is left";
}
