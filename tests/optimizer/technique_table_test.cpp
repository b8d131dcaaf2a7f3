#include "reference_problems.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <ostream>

using namespace torvale::test;

namespace {

// A technique on the reference problems: how many it must solve. The counts are what is reached; they may not fall.
struct Variant {
  const char* name;
  int technique;
  int update;
  int difference;
  int least_unconstrained;
  int least_constrained;
  int least_with_defaults; // unconstrained
};

bool hessian_technique(const Variant& v)
{
  return v.technique <= 5;
}
bool simplex(const Variant& v)
{
  return v.technique >= 14;
}

// Problems that suit the technique: no n by n differences for hundreds of parameters, no simplex above ten.
bool suits(const Variant& v, const Problem& p)
{
  if (simplex(v)) return p.n <= 10 && p.rows.empty();
  if (hessian_technique(v) || v.difference != 0) return p.n <= (v.difference != 0 ? 12 : 100);
  return true;
}

RunOptions options_of(const Variant& v, bool tight)
{
  RunOptions o;
  o.technique = v.technique;
  o.update = v.update;
  o.difference = v.difference;
  o.tight = tight;
  // The objectives are exact to rounding, and the Hessian of the Newton techniques deserves central differences.
  if (tight && (v.difference != 0 || hessian_technique(v))) o.digits = 15.65;
  if (hessian_technique(v) && v.difference == 0) o.hessian_difference = tight ? 2 : 0;
  return o;
}

struct Score {
  int solved = 0, tried = 0;
  long calls = 0, gradients = 0, iterations = 0;
};

Score score(const Variant& v, bool unconstrained, bool tight)
{
  Score s;
  // Differences know a zero minimum to the noise of the objective only, values alone to its root.
  const double relative = simplex(v) ? 1e-6 : 1e-8;
  const double absolute = simplex(v) || v.difference != 0 ? 1e-9 : 1e-12;
  for (const Problem& p : reference_problems()) {
    if ((p.kind == "unconstrained") != unconstrained || !suits(v, p)) continue;
    const RunResult r = run_problem(p, options_of(v, tight));
    ++s.tried;
    s.calls += r.calls;
    s.gradients += r.gradients;
    s.iterations += r.iterations;
    EXPECT_LE(r.worst_violation, 1e-7) << p.name << ": evaluated outside its bounds";
    if (solved(p, r.f, relative, absolute))
      ++s.solved;
    else if (tight)
      std::printf("  %-14s does not solve %s: code %d, f %.12g\n", v.name, p.name.c_str(), r.code, r.f);
  }
  return s;
}

constexpr Variant variants[] = {
    // name           technique update FD  unconstrained constrained defaults
    {"DUQUAN DBFGS", 11, 1, 0, 29, 19, 18}, {"DUQUAN DDFP", 11, 2, 0, 29, 19, 17},
    {"QUANEW BFGS", 10, 6, 0, 28, 19, 17},  {"QUANEW DFP", 10, 7, 0, 28, 19, 17},
    {"DBLDOG", 9, 1, 0, 28, 19, 15},        {"TRUREG", 2, 0, 0, 28, 20, 17},
    {"NEWRAP", 3, 0, 0, 28, 20, 16},        {"NRRIDG", 4, 0, 0, 26, 20, 14},
    {"CONGRA PB", 13, 11, 0, 26, 19, 14},   {"CONGRA FR", 13, 12, 0, 24, 19, 9},
    {"CONGRA PR", 13, 13, 0, 25, 19, 16},   {"CONGRA CD", 13, 14, 0, 24, 19, 8},
    {"NMSIMP", 14, 0, 0, 22, 6, 20},        {"NMSIM2", 15, 0, 0, 22, 6, 15},
    {"DUQUAN FD", 11, 1, 2, 25, 19, 20},    {"QUANEW FD", 10, 6, 2, 25, 19, 19},
    {"DBLDOG FD", 9, 1, 2, 25, 19, 18},     {"TRUREG FD", 2, 0, 2, 25, 20, 17},
    {"NEWRAP FD", 3, 0, 2, 26, 20, 20},     {"NRRIDG FD", 4, 0, 2, 23, 20, 15},
};

void PrintTo(const Variant& v, std::ostream* out)
{
  *out << v.name;
}

class TechniqueTable : public testing::TestWithParam<Variant> {};

} // namespace

TEST_P(TechniqueTable, SolvesAsManyProblemsAsEver)
{
  const Variant v = GetParam();
  const Score u = score(v, true, true);
  const Score c = score(v, false, true);
  const Score d = score(v, true, false);
  std::printf("| %-12s | %2d of %2d | %6ld | %6ld | %2d of %2d | %5ld | %5ld | %2d of %2d | %5ld | %5ld |\n", v.name,
              u.solved, u.tried, u.calls, u.iterations, c.solved, c.tried, c.calls, c.iterations, d.solved, d.tried,
              d.calls, d.iterations);
  EXPECT_GE(u.solved, v.least_unconstrained);
  EXPECT_GE(c.solved, v.least_constrained);
  EXPECT_GE(d.solved, v.least_with_defaults);
}

INSTANTIATE_TEST_SUITE_P(Techniques, TechniqueTable, testing::ValuesIn(variants), [](const auto& variant) {
  std::string name = variant.param.name;
  for (char& c : name)
    if (c == ' ') c = '_';
  return name;
});

TEST(ConstrainedProblems, MultipliersAreTheKnownOnes)
{
  for (const Problem& p : reference_problems()) {
    if (p.kind == "unconstrained" || p.name == "HS55" || p.name == "HS25") continue; // dependent rows; another minimum
    const RunResult r = run_problem(p, {.technique = 11});
    ASSERT_TRUE(solved(p, r.f, 1e-8)) << p.name;
    std::vector<double> expected(r.multipliers.size(), 0.0);
    for (const ActiveConstraint& a : p.active) {
      if (a.name.rfind("linear", 0) == 0) {
        const int number = std::stoi(a.name.substr(7));
        const auto row = std::find(p.row_number.begin(), p.row_number.end(), number) - p.row_number.begin();
        expected[static_cast<std::size_t>(p.n + row)] = a.multiplier;
      } else {
        const std::size_t i = static_cast<std::size_t>(std::stoi(a.name.substr(1)) - 1);
        expected[i] = std::abs(a.multiplier); // ours point inwards, and are positive at either bound
      }
    }
    for (std::size_t i = 0; i < expected.size(); ++i)
      EXPECT_NEAR(r.multipliers[i], expected[i], 1e-5 * std::max(1.0, std::abs(expected[i]))) << p.name << " " << i;
  }
}
