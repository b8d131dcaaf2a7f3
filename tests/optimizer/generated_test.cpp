#include "generated_problems.h"
#include "small_problem.h"

#include <gmock/gmock.h>

#include <cmath>
#include <memory>
#include <ostream>

using namespace torvale::optimizer;
using namespace torvale::test;
using Vector = std::vector<double>;

namespace {

struct Variant {
  int technique, update;
};

constexpr Variant variants[] = {{TRUREG, 0},  {NEWRAP, 0},  {NRRIDG, 0},  {DBLDOG, 1}, {DBLDOG, 2},
                                {QUANEW, 6},  {QUANEW, 7},  {DUQUAN, 1},  {DUQUAN, 2}, {CONGRA, 11},
                                {CONGRA, 12}, {CONGRA, 13}, {CONGRA, 14}, {NMSIMP, 0}, {NMSIM2, 0}};

void PrintTo(const Variant& v, std::ostream* out)
{
  *out << technique_name(v.technique) << " " << v.update;
}

std::unique_ptr<SmallProblem> problem_of(const GeneratedProblem& generated, int technique, Vector start)
{
  auto p = std::make_unique<SmallProblem>(
      std::move(start), [&generated](const Vector& x) { return generated.value(x); },
      [&generated](const Vector& x) { return generated.gradient(x); });
  p->str.tech = technique;
  p->bounds(generated.lower, generated.upper);
  for (const auto& row : generated.rows) p->row(row.a, row.right_side, row.equality);
  return p;
}

// Where the Hessian promises nothing definite: what a descent from the point
// reaches.
double gain_by_descent(const GeneratedProblem& generated, const Vector& x)
{
  const auto problem = problem_of(generated, TRUREG, x);
  SmallProblem& p = *problem;
  p.str.maxi = 2000;
  p.str.maxf = 1e6;
  p.str.gtol = 1e-14;
  p.run();
  return generated.value(x) - p.str.crit;
}

class GeneratedProblems : public testing::TestWithParam<Variant> {
protected:
  // Problems 1 to `count` with the derivatives by `difference`. Every success
  // is judged. At most one in ten may fail, of a simplex (without rows) two in
  // five: with twelve parameters it reaches MAXITER.
  void walk(std::uint32_t count, int difference)
  {
    const bool simplex = GetParam().technique >= NMSIMP;
    std::uint32_t failures = 0, tried = 0;
    for (std::uint32_t seed = 1; seed <= count; ++seed) {
      const GeneratedProblem generated(seed);
      if (simplex && !generated.rows.empty()) continue;
      ++tried;
      const auto problem = problem_of(generated, GetParam().technique, generated.start);
      SmallProblem& p = *problem;
      p.str.tupd = GetParam().update;
      p.str.fidi = difference;
      if (p.run() <= 0) {
        ++failures;
        continue;
      }
      const double size = std::max(1.0, std::abs(p.str.crit));
      Verdict verdict = judge(generated, p.x(), difference == 1 ? std::pow(10.0, -0.5 * p.str.fdig) : 0.0);
      if (std::isinf(verdict.gain)) verdict.gain = gain_by_descent(generated, p.x());
      EXPECT_LE(verdict.violation, 1e-7) << "seed " << seed << " FD " << difference;
      EXPECT_FALSE(verdict.gain > 1e-5 * size && verdict.gradient > 1e-4)
          << "seed " << seed << " FD " << difference << " code " << p.str.rcod << " f " << p.str.crit << " gradient "
          << verdict.gradient << " gain " << verdict.gain;
    }
    EXPECT_LE(failures, simplex ? 2 * tried / 5 : tried / 10);
  }
};

} // namespace

// A success is a success: no technique calls a point a minimum from which a
// Newton step within the constraints leads on.
TEST_P(GeneratedProblems, NoSuccessIsFalse)
{
  walk(1000, 0);
}

TEST_P(GeneratedProblems, NoSuccessIsFalseWithDifferences)
{
  if (GetParam().technique >= NMSIMP) GTEST_SKIP() << "a simplex has no gradients";
  for (const int difference : {1, 2, 3}) walk(100, difference);
}

INSTANTIATE_TEST_SUITE_P(Techniques, GeneratedProblems, testing::ValuesIn(variants), [](const auto& variant) {
  return std::string(technique_name(variant.param.technique)) + "_" + std::to_string(variant.param.update);
});
