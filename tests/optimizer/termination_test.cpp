#include "small_problem.h"

#include <gmock/gmock.h>

#include <cmath>

using namespace torvale::optimizer;
using torvale::test::SmallProblem;
using Vector = std::vector<double>;

namespace {

double rosenbrock(const Vector& x)
{
  return 100.0 * std::pow(x[1] - x[0] * x[0], 2) + std::pow(1.0 - x[0], 2);
}

Vector rosenbrock_gradient(const Vector& x)
{
  return {-400.0 * x[0] * (x[1] - x[0] * x[0]) - 2.0 * (1.0 - x[0]), 200.0 * (x[1] - x[0] * x[0])};
}

// A record in the middle of an iteration that meets no criterion.
class InIteration : public SmallProblem {
public:
  explicit InIteration(int technique = DUQUAN) : SmallProblem(technique, {1.0, 1.0}, rosenbrock, rosenbrock_gradient)
  {
    prepare();
    str.nitr = 3.0;
    str.cold = 110.0;
    str.crit = 100.0;
    str.gmax = 5.0;
    str.pred = 5.0;
    str.gcri = 5.0;
    str.alfa = 1.0;
    str.xold[0] = 0.5;
    str.xold[1] = 1.0;
  }
};

} // namespace

TEST(Termination, EachCriterionGivesItsCode)
{
  const auto code_of = [](auto set) {
    InIteration p;
    set(p.str);
    return znlptrm(&p.str, 1);
  };
  EXPECT_EQ(code_of([](MINSTR&) {}), 0);
  EXPECT_EQ(code_of([](MINSTR& s) { s.atol = 100.0; }), code_absconv);
  EXPECT_EQ(code_of([](MINSTR& s) { s.aftl = 10.0; }), code_absfconv);
  EXPECT_EQ(code_of([](MINSTR& s) { s.gmax = 1e-5; }), code_absgconv);
  EXPECT_EQ(code_of([](MINSTR& s) { s.axtl = 0.51; }), code_absxconv);
  EXPECT_EQ(code_of([](MINSTR& s) { s.ftol = 0.1; }), code_fconv);
  EXPECT_EQ(code_of([](MINSTR& s) { s.gtol = 0.05; }), code_gconv);
  EXPECT_EQ(code_of([](MINSTR& s) { s.xtol = 0.5; }), code_xconv);
  EXPECT_EQ(code_of([](MINSTR& s) { s.crit = 110.001; }), code_no_progress);
  EXPECT_EQ(code_of([](MINSTR& s) { s.tbig = 1.0; }), code_objective);
  EXPECT_EQ(code_of([](MINSTR& s) { s.maxi = 3.0; }), code_limit);
  EXPECT_EQ(code_of([](MINSTR& s) { s.nfct = 2000; }), code_limit);
  EXPECT_EQ(code_of([](MINSTR& s) { s.nabc = 2; }), code_all_fixed);
  EXPECT_EQ(code_of([](MINSTR& s) { s.fsiz = 1e10, s.ftol = 1e-9, s.gtol = 0.0; }), code_fconv)
      << "FSIZE is the floor of |f|";
  EXPECT_EQ(code_of([](MINSTR& s) { s.tech = CONGRA, s.gtol = 0.05, s.pred = 0.0, s.gcri = 6.0; }), 0);
  // The last criterion in order wins, and any criterion wins against a limit.
  EXPECT_EQ(code_of([](MINSTR& s) { s.gmax = 0.0, s.gtol = 0.05, s.maxi = 3.0; }), code_gconv);
  EXPECT_EQ(code_of([](MINSTR& s) { s.gmax = 0.0, s.mini = 5; }), 0);
  EXPECT_EQ(code_of([](MINSTR& s) { s.atol = 100.0, s.mini = 5; }), code_absconv) << "MINITER does not hold ABSCONV";
  EXPECT_EQ(code_of([](MINSTR& s) { s.gmax = 0.0, s.chac = -1; }), 0)
      << "not in the iteration that dropped a constraint";
  EXPECT_EQ(code_of([](MINSTR& s) { s.ftol = 0.1, s.cutf = 1; }), 0) << "a step cut by failures says nothing";
}

TEST(Termination, PassCountsAskForSuccessiveIterations)
{
  InIteration p;
  p.str.toln[5] = 3; // GCONV
  p.str.gtol = 0.05;
  EXPECT_EQ(znlptrm(&p.str, 1), 0);
  EXPECT_EQ(znlptrm(&p.str, 1), 0);
  p.str.pred = 100.0;
  EXPECT_EQ(znlptrm(&p.str, 1), 0);
  EXPECT_EQ(p.str.toln[15], 0) << "a test that fails starts the count again";
  p.str.pred = 1.0;
  EXPECT_EQ(znlptrm(&p.str, 1), 0);
  EXPECT_EQ(znlptrm(&p.str, 1), 0);
  EXPECT_EQ(znlptrm(&p.str, -8), 106) << "the limit names the criterion that was met twice of three times";
  EXPECT_EQ(znlptrm(&p.str, 1), code_gconv);
  EXPECT_EQ(znlptrm(&p.str, -3), code_objective) << "a failure is never lost";
}

TEST(Termination, StartThatIsStationaryStopsAtOnce)
{
  for (const int technique : {DUQUAN, TRUREG, NEWRAP, CONGRA}) {
    SmallProblem p(technique, {1.0, 1.0}, rosenbrock, rosenbrock_gradient);
    EXPECT_EQ(p.run(), code_absgconv);
    EXPECT_EQ(p.str.nitr, 0.0);
    EXPECT_TRUE(p.told(549, 607));
  }
}

// A first test that finds nothing predicted yet must not call it converged.
TEST(Termination, FirstIterationIsNotTakenForConvergence)
{
  for (const int technique : {DUQUAN, QUANEW, CONGRA, DBLDOG}) {
    SmallProblem p(technique, {-1.2, 1.0}, rosenbrock, rosenbrock_gradient);
    EXPECT_GT(p.run(), 0);
    EXPECT_GT(p.str.nitr, 10.0) << technique_name(technique);
    EXPECT_NEAR(p.str.crit, 0.0, 1e-6);
  }
}

TEST(Termination, LimitOnTheWayNamesThePendingCriterion)
{
  SmallProblem p(DUQUAN, {-1.2, 1.0}, rosenbrock, rosenbrock_gradient);
  p.str.toln[2] = 1000; // ABSGCONV must hold a thousand times
  p.str.agtl = 1e10;
  p.str.maxi = 4;
  EXPECT_EQ(p.run(), 103);
  EXPECT_TRUE(p.told(549, 611));
}

TEST(Termination, RestartEveryIterationIsSteepestDescent)
{
  SmallProblem p(DUQUAN, {0.9, 0.8}, rosenbrock, rosenbrock_gradient);
  p.str.nres = 1.0;
  p.str.maxi = 20;
  p.run();
  EXPECT_GE(p.str.ires, 15);
  EXPECT_EQ(p.str.nhup, 0);
}

TEST(History, RowsAndColumnsBelongToTheTechnique)
{
  struct Case {
    int technique, layout;
    const char* last;
  };
  for (const Case& c :
       {Case{TRUREG, 31, "Radius"}, Case{NRRIDG, 18, "Ridge"}, Case{NEWRAP, 23, "Alpha"}, Case{DBLDOG, 15, "Slope"},
        Case{DUQUAN, 23, "Alpha"}, Case{CONGRA, 23, "Alpha"}, Case{NMSIMP, 28, "Size"}}) {
    SmallProblem p(c.technique, {-1.2, 1.0}, rosenbrock, rosenbrock_gradient);
    p.str.dbug = 2;
    const int code = p.run();
    ASSERT_GT(p.history.size(), 3u);
    EXPECT_TRUE(p.history.front().start);
    EXPECT_EQ(p.history.front().decrease, largest);
    for (std::size_t i = 1; i < p.history.size(); ++i) {
      EXPECT_EQ(p.history[i].layout, c.layout);
      EXPECT_EQ(p.history[i].iteration, static_cast<long>(i)) << "one row for each iteration, none twice";
      EXPECT_GE(p.history[i].decrease, 0.0);
    }
    EXPECT_EQ(p.history.size(), static_cast<std::size_t>(p.str.nitr) + 1) << technique_name(c.technique) << " " << code;
    const char* const* columns = history_columns(c.layout);
    EXPECT_STREQ(columns[0], "Iter");
    while (columns[1] != nullptr) ++columns;
    EXPECT_STREQ(*columns, c.last);
    SmallProblem quiet(c.technique, {-1.2, 1.0}, rosenbrock, rosenbrock_gradient);
    quiet.run();
    EXPECT_TRUE(quiet.history.empty());
  }
}

TEST(DifferenceSwitch, ForwardGoesOverToCentralBeforeItStops)
{
  SmallProblem p(DUQUAN, {-1.2, 1.0}, rosenbrock);
  p.str.fidi = 3;
  EXPECT_GT(p.run(), 0);
  EXPECT_EQ(p.str.fidi, 2);
  EXPECT_NEAR(p.str.crit, 0.0, 1e-8);
  SmallProblem forward(DUQUAN, {-1.2, 1.0}, rosenbrock);
  forward.str.fidi = 1;
  forward.run();
  EXPECT_EQ(forward.str.fidi, 1) << "FD=FORWARD means what it says";
}
