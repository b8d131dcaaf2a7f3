#include "small_problem.h"

#include <gmock/gmock.h>

#include <cmath>

using namespace torvale::optimizer;
using torvale::test::SmallProblem;
using Vector = std::vector<double>;

namespace {

double sum_of_squares(const Vector& x)
{
  double sum = 0.0;
  for (const double v : x) sum += v * v;
  return sum;
}

Vector twice(const Vector& x)
{
  Vector g = x;
  for (double& v : g) v *= 2.0;
  return g;
}

SmallProblem of_size(std::size_t n)
{
  return SmallProblem(Vector(n, 1.0), sum_of_squares, twice);
}

} // namespace

TEST(Options, TechniqueAndUpdateFollowSizeAndEachOther)
{
  struct Case {
    std::size_t n;
    int tech, tupd;
    int code, tech_after, tupd_after;
    double sigm;
  };
  const Case cases[] = {
      {2, 0, 0, 0, DUQUAN, 1, 0.4},       {39, 0, 0, 0, DUQUAN, 1, 0.4},      {399, 0, 0, 0, DUQUAN, 1, 0.4},
      {400, 0, 0, 0, CONGRA, 1, 0.1},     {2, QUANEW, 0, 0, DUQUAN, 1, 0.4},  {2, QUANEW, 2, 0, DUQUAN, 2, 0.06},
      {2, QUANEW, 6, 0, QUANEW, 1, 0.4},  {2, QUANEW, 7, 0, QUANEW, 2, 0.06}, {2, QUANEW, 11, 2000, QUANEW, 11, 0},
      {2, DUQUAN, 6, 2000, DUQUAN, 6, 0}, {2, DBLDOG, 7, 2000, DBLDOG, 7, 0}, {2, CONGRA, 5, 2000, CONGRA, 5, 0},
      {2, CONGRA, 14, 0, CONGRA, 4, 0.1}, {2, CONGRA, 0, 0, CONGRA, 1, 0.1},  {2, NEWRAP, 0, 0, NEWRAP, 0, 0.9},
      {2, TRUREG, 3, 0, TRUREG, 0, 0.1},  {2, 6, 0, 2000, 6, 0, 0},           {2, 8, 0, 2000, 8, 0, 0},
      {2, 16, 0, 2000, 16, 0, 0},         {2, 21, 0, 2000, 21, 0, 0},
  };
  for (const Case& c : cases) {
    auto p = of_size(c.n);
    p.str.tech = c.tech;
    p.str.tupd = c.tupd;
    EXPECT_EQ(p.prepare(), c.code) << c.tech << " " << c.tupd;
    EXPECT_EQ(p.str.tech, c.tech_after);
    EXPECT_EQ(p.str.tupd, c.tupd_after);
    if (c.code != 0) {
      EXPECT_FALSE(p.messages.empty()) << "a refusal says why";
    } else {
      EXPECT_EQ(p.str.sigm, c.sigm) << c.tech << " " << c.tupd;
    }
  }
}

TEST(Options, LimitsAndTolerancesPerTechnique)
{
  struct Case {
    int tech;
    double maxi, maxf, axtl, agtl, gtol, xtol, fto2;
  };
  for (const Case& c :
       {Case{DUQUAN, 200, 2000, 0, 1e-5, 1e-8, 0, 0}, Case{TRUREG, 50, 500, 0, 1e-5, 1e-8, 0, 0},
        Case{CONGRA, 400, 4000, 0, 1e-5, 1e-8, 0, 0}, Case{NMSIMP, 1000, 10000, 1e-8, 0, 0, 1e-8, 1e-6}}) {
    auto p = of_size(3);
    p.str.tech = c.tech;
    ASSERT_EQ(p.prepare(), 0);
    EXPECT_EQ(p.str.maxi, c.maxi);
    EXPECT_EQ(p.str.maxf, c.maxf);
    EXPECT_EQ(p.str.axtl, c.axtl);
    EXPECT_EQ(p.str.agtl, c.agtl);
    EXPECT_EQ(p.str.gtol, c.gtol);
    EXPECT_EQ(p.str.xtol, c.xtol);
    EXPECT_EQ(p.str.fto2, c.fto2);
    EXPECT_NEAR(p.str.fdig, 12.6536, 1e-4);
    EXPECT_NEAR(p.str.ftol, 2.22e-13, 1e-15);
  }
  auto blocks = of_size(3);
  blocks.str.nreb = 2;
  blocks.str.fidi = 3;
  blocks.prepare();
  EXPECT_EQ(blocks.str.agtl, 1e-3);
  EXPECT_EQ(blocks.str.gtol, 1e-6);
  EXPECT_EQ(blocks.str.maxf, 20000.0);
  EXPECT_EQ(blocks.str.swfd, 100.0);
}

TEST(Options, ConflictsAreResolvedWithAMessage)
{
  const auto message = [](auto set) {
    auto p = of_size(2);
    set(p.str);
    p.prepare();
    return p.messages.empty() ? 0 : p.messages.front() % 1000;
  };
  EXPECT_EQ(message([](MINSTR& s) { s.fidi = 1, s.fihs = 2; }), 472);
  EXPECT_EQ(message([](MINSTR& s) { s.fidi = 1, s.gchk = 3; }), 471);
  EXPECT_EQ(message([](MINSTR& s) { s.tech = TRUREG, s.tlin = 3; }), 469);
  EXPECT_EQ(message([](MINSTR& s) { s.deat = 0.5; }), 468);
  EXPECT_EQ(message([](MINSTR& s) { s.hesc = 2; }), 467);
  EXPECT_EQ(message([](MINSTR& s) { s.tech = NRLINS; }), 456);
  EXPECT_EQ(message([](MINSTR& s) { s.mini = 7, s.maxi = 3; }), 330);
  EXPECT_EQ(message([](MINSTR& s) { s.tech = NMSIMP, s.lincon = 1; }), 461);
  EXPECT_EQ(message([](MINSTR& s) { s.nlicon = 1; }), 462);
  EXPECT_EQ(message([](MINSTR& s) { s.lsqu = 1; }), 452);
  auto p = of_size(2);
  p.prepare();
  p.str.nnva = 5;
  EXPECT_EQ(tvloptc(&p.str), 1);
}

TEST(Options, EveryMessageHasWords)
{
  for (const auto& [group, number] : {std::pair{352, 457}, {352, 472}, {503, 330}, {549, 1}, {549, 607}, {549, 611}})
    EXPECT_NE(message_text(group, number), nullptr);
  EXPECT_EQ(message_text(352, 1), nullptr);
}

TEST(Driver, NoParametersIsEvaluationOnly)
{
  SmallProblem p(
      Vector{}, [](const Vector&) { return 7.0; }, [](const Vector&) { return Vector{}; });
  EXPECT_EQ(p.run(), 0);
  EXPECT_EQ(p.str.tech, NONE);
  EXPECT_EQ(p.str.crit, 7.0);
}

// A record may run again from another start: an inner search does so thousands of times.
TEST(Driver, RecordCanBeUsedAgainWithoutAllocation)
{
  auto p = of_size(3);
  ASSERT_GT(p.run(), 0);
  const double* const block = p.str.problem_block.data();
  const double* const technique_block = p.str.technique_block.data();
  for (int repeat = 0; repeat < 3; ++repeat) {
    p.str.x[0] = 4.0 + repeat;
    ASSERT_EQ(znlpdrv(&p.str, 1, 0, 0, 0), 0);
    ASSERT_GT(znlpdrv(&p.str, 2, 0, 0, 0), 0);
    EXPECT_NEAR(p.str.crit, 0.0, 1e-10);
  }
  EXPECT_EQ(p.str.problem_block.data(), block);
  EXPECT_EQ(p.str.technique_block.data(), technique_block);
}

TEST(Driver, BorrowedArraysStayTheCallers)
{
  Vector own_x = {3.0, 4.0}, own_hessian(3, 0.0);
  SmallProblem p(TRUREG, {3.0, 4.0}, sum_of_squares, twice);
  p.str.x = own_x.data();
  p.str.hess = own_hessian.data();
  EXPECT_GT(p.run(), 0);
  EXPECT_NEAR(own_x[0], 0.0, 1e-6);
  EXPECT_NEAR(own_hessian[0], 2.0, 1e-5);
}

TEST(Driver, MaximizationIsMinimizationOfTheNegative)
{
  // The objective delivers the negated value; reports turn the sign back.
  SmallProblem p(
      DUQUAN, {1.0}, [](const Vector& x) { return (x[0] - 2.0) * (x[0] - 2.0) - 5.0; },
      [](const Vector& x) { return Vector{2.0 * (x[0] - 2.0)}; });
  p.str.imax = 1;
  p.str.dbug = 4;
  EXPECT_GT(p.run(), 0);
  EXPECT_NEAR(p.str.pcrit, 5.0, 1e-10);
  EXPECT_NEAR(p.history.back().objective, 5.0, 1e-10);
  EXPECT_EQ(p.str.atol, 1.3407807929943e+154);
}
