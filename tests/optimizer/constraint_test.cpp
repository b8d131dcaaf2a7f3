#include "small_problem.h"

#include "optimizer/active_set/active_set.h"

#include <gmock/gmock.h>

#include <cmath>

using namespace torvale::optimizer;
using torvale::test::SmallProblem;
using Vector = std::vector<double>;

namespace {

const std::vector<int> bound_techniques = {TRUREG, NEWRAP, NRRIDG, DBLDOG, QUANEW, DUQUAN, CONGRA, NMSIMP, NMSIM2};
const std::vector<int> row_techniques = {TRUREG, NEWRAP, NRRIDG, DBLDOG, QUANEW, DUQUAN, CONGRA};

// |x - c|^2 weighted by 1, 2, 3, ...
SmallProblem distance_problem(Vector start, Vector centre, int technique)
{
  const auto f = [centre](const Vector& x) {
    double sum = 0.0;
    for (std::size_t i = 0; i < x.size(); ++i) sum += double(i + 1) * (x[i] - centre[i]) * (x[i] - centre[i]);
    return sum;
  };
  const auto g = [centre](const Vector& x) {
    Vector result(x.size());
    for (std::size_t i = 0; i < x.size(); ++i) result[i] = 2.0 * double(i + 1) * (x[i] - centre[i]);
    return result;
  };
  return SmallProblem(technique, std::move(start), f, g);
}

} // namespace

TEST(Bounds, StartOutsideIsMovedWithANote)
{
  for (const int technique : bound_techniques) {
    auto p = distance_problem({-7.0, 9.0}, {2.0, 3.0}, technique);
    p.bounds({0.0, 0.0}, {5.0, 5.0});
    EXPECT_GT(p.run(), 0) << technique_name(technique);
    EXPECT_TRUE(p.told(549, 10));
    EXPECT_NEAR(p.str.crit, 0.0, 1e-8) << technique_name(technique);
  }
}

TEST(Bounds, EqualBoundsFixAParameterForGood)
{
  for (const int technique : bound_techniques) {
    auto p = distance_problem({1.0, 0.0, 2.0}, {2.0, 3.0, 4.0}, technique);
    p.bounds({1.0, -10.0, -10.0}, {1.0, 10.0, 10.0});
    EXPECT_GT(p.run(), 0) << technique_name(technique);
    EXPECT_EQ(p.str.x[0], 1.0);
    EXPECT_EQ(p.str.iabc[0], 2);
    EXPECT_EQ(p.str.nbec, 1);
    EXPECT_NEAR(p.str.crit, 1.0, technique >= NMSIMP ? 1e-5 : 1e-8);
    auto fixed = distance_problem({1.0, 2.0}, {2.0, 3.0}, technique);
    fixed.bounds({1.0, 2.0}, {1.0, 2.0});
    EXPECT_EQ(fixed.run(), code_all_fixed) << technique_name(technique);
    EXPECT_EQ(fixed.str.nitr, 0.0);
  }
}

TEST(Bounds, VertexSolutionHasCodeTenAndItsMultipliers)
{
  for (const int technique : row_techniques) {
    auto p = distance_problem({2.0, 2.0}, {-1.0, 7.0}, technique);
    p.bounds({0.0, 0.0}, {5.0, 5.0});
    EXPECT_EQ(p.run(), code_all_fixed) << technique_name(technique);
    EXPECT_THAT(p.x(), testing::ElementsAre(0.0, 5.0));
    EXPECT_EQ(p.str.lagm[0], 2.0); // gradient at the lower bound
    EXPECT_EQ(p.str.lagm[1], 8.0); // minus the gradient at the upper bound
    EXPECT_EQ(p.str.iabc[0], 1);
    EXPECT_EQ(p.str.iabc[1], -1);
  }
}

// A start in a corner whose multipliers say "leave" must leave it: with no free parameter the gradient test is no test.
TEST(Bounds, WrongCornerIsLeftAtTheStart)
{
  for (const int technique : row_techniques) {
    auto p = distance_problem({0.0, 0.0}, {2.0, 2.0}, technique);
    p.bounds({0.0, 0.0}, {5.0, 5.0});
    EXPECT_GT(p.run(), 0) << technique_name(technique);
    EXPECT_NEAR(p.str.crit, 0.0, 1e-8) << technique_name(technique);

    Vector centre(50), corner(50, 0.0), top(50, 100.0);
    for (std::size_t i = 0; i < 50; ++i) centre[i] = i % 2 == 0 ? -1.0 - double(i) : 1.0 + double(i);
    auto wide = distance_problem(corner, centre, technique);
    wide.bounds(corner, top);
    wide.str.gtol = 1e-14;
    wide.str.ftol = 0.0;
    wide.run(); // the code is -5 where the criteria ask for more than rounding allows
    for (std::size_t i = 0; i < 50; ++i)
      EXPECT_NEAR(wide.str.x[i], std::max(centre[i], 0.0), 1e-3) << technique_name(technique) << i;
    EXPECT_LT(wide.str.nitr, 60.0) << technique_name(technique) << ": dropping bounds one at a time";
  }
}

TEST(Bounds, ObjectiveIsNeverCalledOutside)
{
  for (const int technique : bound_techniques) {
    for (const int difference : {0, 1, 2, 3}) {
      double worst = 0.0;
      const auto f = [&](const Vector& x) {
        worst = std::max({worst, -x[0], x[0] - 1.0, 1.0 - x[1], x[1] - 1.0001});
        return std::exp(2.0 * x[0]) - 3.0 * x[0] + std::pow(x[1] - 3.0, 2);
      };
      const auto g = [](const Vector& x) { return Vector{2.0 * std::exp(2.0 * x[0]) - 3.0, 2.0 * (x[1] - 3.0)}; };
      SmallProblem p({1.0, 1.0}, f, difference == 0 ? SmallProblem::Gradient(g) : nullptr);
      p.str.tech = technique;
      p.str.fidi = difference;
      p.bounds({0.0, 1.0}, {1.0, 1.0001});
      EXPECT_GE(p.run(), code_no_progress) << technique_name(technique) << " FD " << difference;
      EXPECT_EQ(worst, 0.0) << technique_name(technique) << " FD " << difference;
      EXPECT_NEAR(p.str.x[0], 0.5 * std::log(1.5), 1e-3);
      EXPECT_NEAR(p.str.x[1], 1.0001, 1e-8);
    }
  }
}

// The valley x1 = 0.3 (x0^2 - 1) runs from above the upper bound 0.5 to below the lower bound 0 and up again: the upper
// bound is held, left, and held again on the way from x0 = -2 to the minimum on it.
TEST(Bounds, DroppedBoundCanBeHeldAgain)
{
  const auto valley = [](double x) { return 0.3 * (x * x - 1.0); };
  double low = 1.0, high = 2.0; // where the slope along the upper bound vanishes
  for (int i = 0; i < 60; ++i) {
    const double x = 0.5 * (low + high);
    (2.0 * (x - 2.0) - 40.0 * (0.5 - valley(x)) * 0.6 * x < 0.0 ? low : high) = x;
  }
  for (const int technique : row_techniques) {
    const auto f = [&](const Vector& x) { return std::pow(x[0] - 2.0, 2) + 20.0 * std::pow(x[1] - valley(x[0]), 2); };
    const auto g = [&](const Vector& x) {
      const double r = x[1] - valley(x[0]);
      return Vector{2.0 * (x[0] - 2.0) - 40.0 * r * 0.6 * x[0], 40.0 * r};
    };
    SmallProblem p(technique, {-2.0, 0.0}, f, g);
    p.bounds({-5.0, 0.0}, {5.0, 0.5});
    EXPECT_GT(p.run(), 0) << technique_name(technique);
    EXPECT_NEAR(p.str.x[0], low, 1e-5) << technique_name(technique);
    EXPECT_EQ(p.str.x[1], 0.5) << technique_name(technique);
    EXPECT_EQ(p.str.iabc[1], -1);
    EXPECT_GT(p.str.lagm[1], 0.0);
  }
}

TEST(Rows, InconsistentConstraintsHaveNoFeasibleStart)
{
  auto p = distance_problem({1.0, 1.0}, {2.0, 2.0}, DUQUAN);
  p.row({1.0, 1.0}, 2.0, true);
  p.row({1.0, 1.0}, 3.0, true);
  EXPECT_EQ(p.run(), code_no_feasible_start);
  EXPECT_TRUE(p.told(549, 46));
  EXPECT_THAT(p.x(), testing::ElementsAre(1.0, 1.0));
  auto q = distance_problem({1.0, 1.0}, {2.0, 2.0}, DUQUAN);
  q.bounds({0.0, 0.0}, {1.0, 1.0});
  q.row({1.0, 1.0}, 2.5);
  EXPECT_EQ(q.run(), code_no_feasible_start);
  auto crossed = distance_problem({1.0, 1.0}, {2.0, 2.0}, DUQUAN);
  crossed.bounds({1.0, 0.0}, {0.0, 1.0});
  EXPECT_EQ(crossed.run(), code_no_feasible_start);
}

TEST(Rows, DependentAndRedundantRowsAreHarmless)
{
  for (const int technique : row_techniques) {
    auto p = distance_problem({5.0, -3.0, 0.0}, {1.0, 2.0, 3.0}, technique);
    p.row({1.0, 1.0, 1.0}, 3.0, true);
    p.row({2.0, 2.0, 2.0}, 6.0, true); // the same plane
    p.row({1.0, 1.0, 1.0}, 3.0);       // and as an inequality
    p.row({1.0, 0.0, 0.0}, -50.0);     // never met
    EXPECT_GT(p.run(), 0) << technique_name(technique);
    // minimum of sum i (x_i - i)^2 on x1 + x2 + x3 = 3: x_i = i - lambda/(2i), with lambda = 6/(1 + 1/2 + 1/3).
    const double lambda = 6.0 / (1.0 + 0.5 + 1.0 / 3.0);
    for (int i = 1; i <= 3; ++i) EXPECT_NEAR(p.str.x[i - 1], i - lambda / (2.0 * i), 1e-5) << technique_name(technique);
    EXPECT_NEAR(p.str.lagm[3], -lambda, 1e-4);
    EXPECT_EQ(p.str.nalc, 1);
  }
}

// Five planes through one vertex of three-space, and the minimum down one of its edges.
TEST(Rows, DegenerateVertexIsLeft)
{
  for (const int technique : row_techniques) {
    auto p = distance_problem({0.0, 0.0, 0.0}, {3.0, -1.0, -2.0}, technique);
    p.row({0.0, 1.0, 0.0}, 0.0);
    p.row({0.0, 0.0, 1.0}, 0.0);
    p.row({1.0, 0.0, 0.0}, 0.0);
    p.row({1.0, 1.0, 1.0}, 0.0);
    p.row({2.0, 1.0, 0.0}, 0.0);
    EXPECT_GT(p.run(), 0) << technique_name(technique);
    EXPECT_THAT(p.x(), testing::Pointwise(testing::DoubleNear(1e-4), Vector{3.0, 0.0, 0.0}))
        << technique_name(technique);
    EXPECT_NEAR(p.str.crit, 14.0, 1e-6);
  }
}

TEST(Rows, InfeasibleStartGoesToTheNearestFeasiblePoint)
{
  auto p = distance_problem({-1.0, -2.0}, {0.0, 0.0}, DUQUAN);
  p.bounds({-10.0, -10.0}, {10.0, 10.0});
  p.row({1.0, 1.0}, 4.0);
  p.prepare();
  EXPECT_EQ(znlpfea(&p.str), 1);
  EXPECT_NEAR(p.str.x[0], 2.5, 1e-12); // (-1, -2) plus 7/2 (1, 1)
  EXPECT_NEAR(p.str.x[1], 1.5, 1e-12);
  EXPECT_EQ(znlpfch(&p.str, 0, 0), 0);
  EXPECT_EQ(znlpfea(&p.str), 0) << "a feasible point stays";
}

TEST(ActiveFactor, HoldingAndReleasingKeepsTheNullSpace)
{
  auto p = distance_problem({0.0, 0.0, 0.0, 0.0, 0.0}, {1.0, 1.0, 1.0, 1.0, 1.0}, DUQUAN);
  p.bounds(Vector(5, 0.0), Vector(5, 9.0));
  p.row({1.0, 2.0, 3.0, 4.0, 5.0}, 0.0);
  p.row({2.0, 4.0, 6.0, 8.0, 10.0}, 0.0); // depends on the first
  p.row({1.0, -1.0, 1.0, -1.0, 0.5}, 0.0);
  p.prepare();
  MINSTR& s = p.str;
  clear_factor(&s);
  EXPECT_EQ(hold(&s, 5, 0), 0);
  EXPECT_EQ(hold(&s, 2, 1), 0);
  EXPECT_EQ(hold(&s, 6, 0), 1);
  EXPECT_EQ(s.nldc, 1);
  EXPECT_EQ(hold(&s, 7, 0), 0);
  EXPECT_EQ(hold(&s, 4, -1), 0);
  release(&s, 5);
  EXPECT_EQ(free_dimension(s), 2);
  Vector r(5), v(5);
  for (int j = 0; j < 2; ++j) {
    std::fill(r.begin(), r.end(), 0.0);
    r[static_cast<std::size_t>(j)] = 1.0;
    znlpvex(s, r.data(), v.data());
    EXPECT_NEAR(v[0] - v[1] + v[2] - v[3] + 0.5 * v[4], 0.0, 1e-14);
    EXPECT_EQ(v[2], 0.0);
    EXPECT_EQ(v[4], 0.0);
    EXPECT_NEAR(v[0] * v[0] + v[1] * v[1] + v[3] * v[3], 1.0, 1e-14);
  }
  // Multipliers: a gradient made of the held normals is recovered.
  const Vector g = {2.0, -2.0, 2.0 + 7.0, -2.0, 1.0 - 3.0}; // 2 row 7 + 7 e_2 - 3 e_4, e_4 held at its upper bound
  std::copy(g.begin(), g.end(), s.grad);
  znlpglm(&s);
  EXPECT_NEAR(s.lagm[7], 2.0, 1e-14);
  EXPECT_NEAR(s.lagm[2], 7.0, 1e-14);
  EXPECT_NEAR(s.lagm[4], 3.0, 1e-14);
}

TEST(StepBound, StopsAtTheFirstConstraintOnTheWay)
{
  auto p = distance_problem({1.0, 1.0}, {0.0, 0.0}, DUQUAN);
  p.bounds({0.0, 0.0}, {4.0, largest});
  p.row({-1.0, -1.0}, -10.0);
  p.prepare();
  znlpfch(&p.str, 1, 0);
  long blocking = -1;
  const double right[] = {1.0, 0.0}, up[] = {0.0, 1.0}, away[] = {-1.0, -0.25}, along[] = {0.0, 0.0};
  EXPECT_EQ(znlpstl(p.str, p.str.x, right, &blocking), 3.0);
  EXPECT_EQ(blocking, 0);
  EXPECT_EQ(znlpstl(p.str, p.str.x, up, &blocking), 8.0);
  EXPECT_EQ(blocking, 2);
  EXPECT_EQ(znlpstl(p.str, p.str.x, away, &blocking), 1.0);
  EXPECT_EQ(znlpstl(p.str, p.str.x, along, &blocking), largest);
  EXPECT_EQ(blocking, -1);
}
