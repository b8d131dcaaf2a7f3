#include "small_problem.h"

#include <gmock/gmock.h>

#include <cmath>
#include <random>

using namespace torvale::optimizer;
using torvale::test::SmallProblem;
using Vector = std::vector<double>;

namespace {

constexpr double nan_value = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

double bowl(const Vector& x)
{
  return (x[0] - 1.0) * (x[0] - 1.0) + 10.0 * (x[1] + 2.0) * (x[1] + 2.0) + 3.0;
}
Vector bowl_gradient(const Vector& x)
{
  return {2.0 * (x[0] - 1.0), 20.0 * (x[1] + 2.0)};
}

const std::vector<int> all_techniques = {TRUREG, NEWRAP, NRRIDG, NRLINS, DBLDOG,
                                         QUANEW, DUQUAN, CONGRA, NMSIMP, NMSIM2};
const std::vector<int> gradient_techniques = {TRUREG, NEWRAP, NRRIDG, DBLDOG, QUANEW, DUQUAN, CONGRA};

SmallProblem problem(int technique, Vector start, SmallProblem::Value f, SmallProblem::Gradient g = nullptr)
{
  return SmallProblem(technique, std::move(start), std::move(f), std::move(g));
}

} // namespace

TEST(Failures, ObjectiveThatFailsAtTheStartEndsBeforeStageTwo)
{
  for (const int technique : all_techniques) {
    for (const double bad : {nan_value, infinity, 1.2e77}) {
      auto p = problem(
          technique, {0, 0}, [&](const Vector&) { return bad; }, bowl_gradient);
      p.str.fail = 1.1579208923731792e+77;
      EXPECT_EQ(p.run(), code_start_objective);
      EXPECT_TRUE(is_missing(p.str.crit) && is_missing(p.str.grad[0]));
      EXPECT_TRUE(p.told(549, 4) && p.told(549, 131));
    }
  }
}

TEST(Failures, NonzeroReturnIsAFailureWhateverTheValue)
{
  auto p = problem(DUQUAN, {0, 0}, bowl, bowl_gradient);
  p.fail = [](int) { return 1; };
  EXPECT_EQ(p.run(), code_start_objective);
}

TEST(Failures, GradientThatFailsAtTheStart)
{
  auto p = problem(DUQUAN, {0, 0}, bowl, [](const Vector&) { return Vector{nan_value, 0.0}; });
  EXPECT_EQ(p.run(), code_start_derivative);
  EXPECT_TRUE(p.told(549, 132));
}

// Half of the plane fails, and the minimum lies just inside: every technique must back off and still arrive.
TEST(Failures, FailingHalfSpaceIsBackedOffFrom)
{
  for (const int technique : all_techniques) {
    const auto f = [](const Vector& x) { return x[0] > 1.05 ? nan_value : bowl(x); };
    auto p = problem(technique, {-30.0, 5.0}, f, bowl_gradient);
    const int code = p.run();
    EXPECT_GT(code, 0) << technique_name(technique);
    EXPECT_NEAR(p.str.crit, 3.0, technique >= NMSIMP ? 1e-5 : 1e-6) << technique_name(technique);
    EXPECT_LT(p.str.nfct, 1000) << technique_name(technique);
  }
}

// The minimum of the objective lies beyond the wall: the run must end, at the wall or with a failure code, soon.
TEST(Failures, WallBeforeTheMinimumEndsTheRun)
{
  for (const int technique : all_techniques) {
    auto p = problem(
        technique, {-3.0, 5.0}, [](const Vector& x) { return x[0] > 0.5 ? infinity : bowl(x); }, bowl_gradient);
    const int code = p.run();
    // A simplex creeps up to the wall for as long as it may.
    const bool creeps = technique >= NMSIMP && code == code_limit;
    EXPECT_TRUE(creeps || code == code_no_progress || code == code_objective || (code > 0 && code <= 9))
        << technique_name(technique) << " " << code;
    EXPECT_LT(p.str.crit, 200.0) << technique_name(technique);
    EXPECT_LT(p.str.nfct, 3500) << technique_name(technique);
    EXPECT_LE(p.str.x[0], 0.5);
  }
}

TEST(Failures, RandomFailuresDoNotStopARun)
{
  for (const int technique : all_techniques) {
    std::mt19937 random(7);
    auto p = problem(technique, {-30.0, 5.0}, bowl, bowl_gradient);
    // The start and the final evaluation must succeed: those failures are told, not backed off from.
    p.fail = [&](int) { return p.str.indf == purpose_iteration && random() % 10 == 0 ? 1 : 0; };
    const int code = p.run();
    EXPECT_GE(code, code_no_progress) << technique_name(technique);
    EXPECT_NEAR(p.str.crit, 3.0, 1e-4) << technique_name(technique) << " code " << code;
  }
}

TEST(Failures, FinalEvaluationThatFailsIsTold)
{
  auto p = problem(DUQUAN, {0, 0}, bowl, bowl_gradient);
  p.fail = [&](int) { return p.str.indf == purpose_final ? 1 : 0; };
  EXPECT_EQ(p.run(), code_objective);
  EXPECT_TRUE(is_missing(p.str.crit));
}

TEST(Failures, GradientThatFailsOnTheWayIsCutOrTold)
{
  for (const int technique : gradient_techniques) {
    const auto g = [](const Vector& x) { return x[0] > 0.9 ? Vector{nan_value, nan_value} : bowl_gradient(x); };
    auto p = problem(technique, {-3.0, 5.0}, bowl, g);
    const int code = p.run();
    EXPECT_TRUE(code == code_no_progress || code == code_gradient || code == code_hessian || code == code_objective ||
                code > 0)
        << technique_name(technique) << " " << code;
    EXPECT_LT(p.str.nfct, 2000);
  }
}

TEST(Failures, UnboundedObjectiveEndsWithAMessage)
{
  for (const int technique : all_techniques) {
    if (technique == DBLDOG) continue; // a linear objective teaches its matrix nothing: equal steps up to MAXITER
    auto p = problem(
        technique, {1.0, 1.0}, [](const Vector& x) { return -x[0] - 2.0 * x[1]; },
        [](const Vector&) {
          return Vector{-1.0, -2.0};
        });
    const int code = p.run();
    EXPECT_EQ(code, code_objective) << technique_name(technique);
    EXPECT_LT(p.str.crit, -1e4) << technique_name(technique);
    const auto told = std::count(p.messages.begin(), p.messages.end(), 549040);
    EXPECT_EQ(told, 1) << technique_name(technique);
  }
  auto p = problem(
      DUQUAN, {1.0}, [](const Vector& x) { return -std::exp(x[0]); },
      [](const Vector& x) { return Vector{-std::exp(x[0])}; });
  EXPECT_EQ(p.run(), code_objective);
}

TEST(Failures, PlateauIsAStationaryPoint)
{
  for (const int technique : gradient_techniques) {
    auto p = problem(
        technique, {0.3, 0.4}, [](const Vector&) { return 5.0; },
        [](const Vector&) {
          return Vector{0.0, 0.0};
        });
    EXPECT_EQ(p.run(), code_absgconv) << technique_name(technique);
    EXPECT_EQ(p.str.nitr, 0.0);
  }
  for (const int technique : {NMSIMP, NMSIM2}) {
    auto p = problem(technique, {0.3, 0.4}, [](const Vector&) { return 5.0; });
    EXPECT_GT(p.run(), 0) << technique_name(technique);
    EXPECT_LT(p.str.nfct, 200);
  }
}

TEST(Failures, TimeLimitAndStopRequestAreHonoured)
{
  static double now;
  const auto rosenbrock = [](const Vector& x) {
    now += 1.0; // each call takes a second
    return 100.0 * std::pow(x[1] - x[0] * x[0], 2) + std::pow(1.0 - x[0], 2);
  };
  const auto gradient = [](const Vector& x) {
    return Vector{-400.0 * x[0] * (x[1] - x[0] * x[0]) - 2.0 * (1.0 - x[0]), 200.0 * (x[1] - x[0] * x[0])};
  };
  for (const int technique : all_techniques) {
    now = 1000.0;
    auto p = problem(technique, {-1.2, 1.0}, rosenbrock, gradient);
    p.str.clock = [](MINSTR*) { return now; };
    p.str.upti = 7.0;
    EXPECT_EQ(p.run(), code_time) << technique_name(technique);
    EXPECT_TRUE(p.told(549, 2));
    EXPECT_LT(p.str.mtim, 60.0) << technique_name(technique);

    auto q = problem(technique, {-1.2, 1.0}, rosenbrock, gradient);
    q.fail = [&](int call) {
      if (call == 6) q.str.stop = 1;
      return 0;
    };
    EXPECT_EQ(q.run(), code_objective) << technique_name(technique);
    EXPECT_LE(q.str.nfct, 25) << technique_name(technique);
  }
}

TEST(Failures, LimitsOfZeroStillEvaluateTheReturnedPoint)
{
  auto p = problem(DUQUAN, {0, 0}, bowl, bowl_gradient);
  p.str.maxi = 0.0;
  EXPECT_EQ(p.run(), code_limit);
  EXPECT_EQ(p.str.crit, bowl({0, 0}));
  EXPECT_EQ(p.str.grad[0], -2.0);
  auto q = problem(DUQUAN, {0, 0}, bowl, bowl_gradient);
  q.str.upti = 0.0;
  EXPECT_EQ(q.run(), code_time);
}

// Relative noise: with FDIGITS told, the result is as good as the noise allows.
TEST(Noise, DifferencesReachTheNoiseLevel)
{
  for (const double digits : {6.0, 8.0, 10.0}) {
    const double noise = std::pow(10.0, -digits);
    const auto noisy = [noise](const Vector& x) {
      // A fixed but erratic function of the point: the same point gives the same value.
      const double erratic = std::sin(1e7 * (x[0] + 1.7 * x[1]) + 3e6 * x[2]);
      const double f = 10.0 + std::pow(x[0] - 1.0, 2) + 2.0 * std::pow(x[1] + x[0], 2) +
                       0.5 * std::pow(x[2] - x[1], 2) + 0.1 * std::pow(x[0] - 1.0, 4);
      return f * (1.0 + noise * erratic);
    };
    for (const int technique : {DUQUAN, QUANEW, DBLDOG, TRUREG, CONGRA}) {
      for (const int difference : {2, 3}) {
        auto p = problem(technique, {-2.0, 3.0, 4.0}, noisy);
        p.str.fidi = difference;
        p.str.fdig = digits;
        p.run();
        EXPECT_LT(p.str.crit - 10.0, 300.0 * noise * 10.0)
            << technique_name(technique) << " FD " << difference << " digits " << digits;
        EXPECT_LT(p.str.nfct, 3000);
      }
    }
  }
}

TEST(OptimalityCheck, LeavesASaddleThatTheGradientCannotSee)
{
  // At (0, 0) the gradient vanishes and the Hessian is diag(2, -2): minima at (0, +-1/sqrt(2)).
  const auto f = [](const Vector& x) { return x[0] * x[0] - x[1] * x[1] + std::pow(x[1], 4); };
  const auto g = [](const Vector& x) { return Vector{2.0 * x[0], -2.0 * x[1] + 4.0 * std::pow(x[1], 3)}; };
  for (const int technique : gradient_techniques) {
    auto blind = problem(technique, {0.0, 0.0}, f, g);
    EXPECT_EQ(blind.run(), code_absgconv);
    EXPECT_EQ(blind.str.crit, 0.0) << "the check is off unless asked for";
    auto p = problem(technique, {0.0, 0.0}, f, g);
    p.str.rtop = 0.1;
    EXPECT_GT(p.run(), 0) << technique_name(technique);
    EXPECT_NEAR(p.str.crit, -0.25, 1e-8) << technique_name(technique);
  }
}

// An objective that gets its derivatives in the same pass may leave them in the record at every call, trial points
// included.
TEST(Contract, ObjectiveMayWriteItsDerivativesAtEveryCall)
{
  static const auto rosenbrock = [](MINSTR* s) {
    const double a = s->x[0], b = s->x[1], r = b - a * a;
    ++s->nfct;
    s->crit = 100.0 * r * r + (1.0 - a) * (1.0 - a);
    s->grad[0] = -400.0 * a * r - 2.0 * (1.0 - a);
    s->grad[1] = 200.0 * r;
    if (s->ider < 4) return 0;
    s->hess[0] = 1200.0 * a * a - 400.0 * b + 2.0;
    s->hess[1] = -400.0 * a;
    s->hess[2] = 200.0;
    return 0;
  };
  for (const int technique : gradient_techniques) {
    MINSTR str;
    tvlopti(&str);
    str.nvar = 2;
    str.tech = technique;
    str.gchk = 3;
    str.usfct = rosenbrock;
    str.usgrd = [](MINSTR* s) { return ++s->ngrd, 0; };
    str.ushes = [](MINSTR* s) { return ++s->nhes, 0; };
    tvlopta(&str);
    str.x[0] = -1.2, str.x[1] = 1.0;
    ASSERT_EQ(tvloptc(&str), 0);
    ASSERT_EQ(znlpdrv(&str, 1, 0, 0, 0), 0);
    EXPECT_GT(znlpdrv(&str, 2, 0, 0, 0), 0) << technique_name(technique);
    EXPECT_NEAR(str.crit, 0.0, 1e-9) << technique_name(technique);
    EXPECT_LT(str.nfct, 200) << technique_name(technique);
  }
}

TEST(GradientCheck, TellsARightGradientFromAWrongOne)
{
  auto right = problem(DUQUAN, {3.0, 4.0}, bowl, bowl_gradient);
  right.str.gchk = 3;
  static std::vector<GradientCheckRow> rows;
  rows.clear();
  right.str.check_row = [](MINSTR*, const GradientCheckRow& row) { rows.push_back(row); };
  EXPECT_GT(right.run(), 0);
  EXPECT_TRUE(right.told(549, 180) && !right.told(549, 181));
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_TRUE(rows[0].agrees && rows[1].agrees);
  EXPECT_EQ(rows[1].analytic, 120.0);

  for (const int kind : {2, 3}) {
    auto wrong = problem(DUQUAN, {3.0, 4.0}, bowl, [](const Vector& x) {
      return Vector{2.0 * (x[0] - 1.0), 19.9 * (x[1] + 2.0)};
    });
    wrong.str.gchk = kind;
    wrong.prepare();
    EXPECT_EQ(znlpdrv(&wrong.str, 1, 0, 0, 0), 0) << "a wrong gradient is told, not fatal";
    EXPECT_TRUE(wrong.told(549, 181) && !wrong.told(549, 180));
  }
}
