#include "reference_objectives.h"
#include "small_problem.h"

#include <gmock/gmock.h>

#include <memory>

using namespace torvale::optimizer;
using namespace torvale::test;
using Vector = std::vector<double>;

namespace {

// Problem 118 of Hock and Schittkowski: a weak quadratic, bounds, 29 rows.
template <class T> T hs118(const T* x, int, const Data&)
{
  T f = 0.0;
  for (int k = 0; k < 15; k += 3)
    f += 2.3 * x[k] + 1.7 * x[k + 1] + 2.2 * x[k + 2] +
         1e-4 * (square(x[k]) + square(x[k + 1]) + 1.5 * square(x[k + 2]));
  return f;
}

struct Objective {
  double (*value)(const double*, int, const Data&);
  Dual (*dual)(const Dual*, int, const Data&);
};

std::unique_ptr<SmallProblem> problem_of(const Objective& objective, int technique, int difference, Vector start)
{
  const auto gradient = [objective](const Vector& x) {
    std::vector<Dual> point(x.begin(), x.end());
    Vector g(x.size());
    for (std::size_t i = 0; i < x.size(); ++i) {
      point[i].d = 1.0;
      g[i] = objective.dual(point.data(), static_cast<int>(x.size()), {}).d;
      point[i].d = 0.0;
    }
    return g;
  };
  auto p = std::make_unique<SmallProblem>(
      technique, std::move(start),
      [objective](const Vector& x) { return objective.value(x.data(), static_cast<int>(x.size()), {}); },
      difference == 0 ? SmallProblem::Gradient(gradient) : nullptr);
  p->str.fidi = difference;
  return p;
}

void constrain_118(SmallProblem& p)
{
  Vector lower(15, 0.0), upper;
  for (int k = 0; k < 5; ++k) upper.insert(upper.end(), {90.0, 120.0, 60.0});
  std::copy_n(Vector{8.0, 43.0, 3.0}.begin(), 3, lower.begin());
  std::copy_n(Vector{21.0, 57.0, 16.0}.begin(), 3, upper.begin());
  p.bounds(lower, upper);
  for (std::size_t i = 3; i < 15; ++i) { // -7 <= x_i - x_(i-3) <= 6 or 7
    Vector a(15, 0.0);
    a[i] = 1.0;
    a[i - 3] = -1.0;
    p.row(a, -7.0);
    for (double& e : a) e = -e;
    p.row(a, i % 3 == 1 ? -7.0 : -6.0);
  }
  const Vector demand = {60.0, 50.0, 70.0, 85.0, 100.0};
  for (std::size_t k = 0; k < 5; ++k) {
    Vector a(15, 0.0);
    std::fill_n(a.begin() + static_cast<long>(3 * k), 3, 1.0);
    p.row(a, demand[k]);
  }
}

Vector valley_start(int n)
{
  Vector start;
  for (int i = 0; i < n; i += 2) start.insert(start.end(), {-1.2, 1.0});
  return start;
}

const std::vector<int> techniques = {TRUREG, NEWRAP, NRRIDG, DBLDOG, QUANEW, DUQUAN, CONGRA};

// Runs the problem with every technique and kind of derivatives: none may claim success elsewhere.
template <class Make> void no_false_success(Make make, double minimum, double tolerance)
{
  for (const int technique : techniques)
    for (const int difference : {0, 1, 2, 3}) {
      const auto problem = make(technique, difference);
      SmallProblem& p = *problem;
      const int code = p.run();
      EXPECT_TRUE(code < 0 || p.str.crit - minimum <= tolerance)
          << technique_name(technique) << " FD " << difference << " code " << code << " f " << p.str.crit;
      const bool affordable = difference == 0 && p.str.nvar != 50; // fifty Hessians of fifty calls are not
      EXPECT_TRUE(!affordable || code > 0) << technique_name(technique) << " code " << code;
    }
}

} // namespace

// Many constraints are met on the way to the corner, and each of them cuts a step.
TEST(KnownProblems, CornerOfManyRows)
{
  const auto make = [](int technique, int difference) {
    auto p = problem_of({hs118<double>, hs118<Dual>}, technique, difference,
                        {20, 55, 15, 20, 60, 20, 20, 60, 20, 20, 60, 20, 20, 60, 20});
    constrain_118(*p);
    return p;
  };
  no_false_success(make, 664.82045, 1e-6);
}

// Steep walls around a flat ring: first directions of conjugate gradients that hardly go down.
TEST(KnownProblems, FlatRingBetweenSteepWalls)
{
  const auto make = [](int technique, int difference) {
    return problem_of({penalty_1<double>, penalty_1<Dual>}, technique, difference, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
  };
  no_false_success(make, 7.08765e-5, 2e-6);
}

TEST(KnownProblems, ValleyInFiftyAndAHundredParameters)
{
  for (const int n : {50, 100}) {
    const auto make = [n](int technique, int difference) {
      return problem_of({rosenbrock<double>, rosenbrock<Dual>}, technique, difference, valley_start(n));
    };
    no_false_success(make, 0.0, 1e-5);
  }
  // Where no line search sees to the curvature of a step an update may be refused again and again.
  for (const int technique : {DBLDOG, QUANEW, DUQUAN, CONGRA}) {
    const auto p = problem_of({rosenbrock<double>, rosenbrock<Dual>}, technique, 0, valley_start(50));
    EXPECT_GT(p->run(), 0) << technique_name(technique);
    EXPECT_LE(p->str.nfct, 300) << technique_name(technique);
  }
}

// Hessians by differences are counted before they are begun.
TEST(KnownProblems, HessiansThatCannotBeAffordedAreNotBegun)
{
  for (const int technique : {TRUREG, NEWRAP, NRRIDG})
    for (const int difference : {0, 2, 3}) {
      const auto p = problem_of({rosenbrock<double>, rosenbrock<Dual>}, technique, difference, valley_start(100));
      EXPECT_GT(p->run(), 0) << technique_name(technique) << " FD " << difference;
      EXPECT_TRUE(p->told(503, 9400));
      EXPECT_EQ(p->str.tech, DUQUAN);
      const auto small = problem_of({rosenbrock<double>, rosenbrock<Dual>}, technique, difference, valley_start(4));
      small->prepare();
      EXPECT_EQ(small->str.tech, technique);
      EXPECT_FALSE(small->told(503, 9400));
    }
}
