// The verdict against fits whose state is known by construction.

#include "system/session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace torvale::tests {

namespace {

const host::FitSummary& summary(const tests::Run& run)
{
  return run.outcome.results.steps.at(0).groups.at(0).fit;
}

std::string finding(const tests::Run& run, const std::string& item)
{
  for (const auto& [name, words] : summary(run).findings)
    if (name == item) return words;
  return {};
}

// Forty data sets of each kind: x on a grid, y = 1 + slope x with noise; and a response of zeros and ones.
class KnownStates : public ::testing::TestWithParam<int> {
protected:
  void SetUp() override
  {
    std::mt19937 random(static_cast<unsigned>(GetParam()));
    std::normal_distribution<double> noise;
    std::uniform_real_distribution<double> unit(0.5, 2);
    const double slope = unit(random);
    std::string text = "x,y,z,s\n";
    for (int i = 0; i < 30; ++i) {
      const double x = (i - 14.5) / 10;
      text += std::to_string(x) + "," + std::to_string(1 + slope * x + 0.5 * noise(random)) + "," +
              std::to_string((x > 0) != (i % 5 == 0) ? 1 : 0) + "," + (x > 0 ? "1" : "0") +
              "\n"; // s is separated by x, z is not
    }
    file_ = std::make_unique<TemporaryFile>("verdict-" + std::to_string(GetParam()) + ".csv", text);
  }
  tests::Run fit(const std::string& statements, const std::string& options = "") const
  {
    return run_text("TORVALE DATA=d " + options + ";\n" + statements + "RUN;", "examples", 0, {{"d", file_->path()}});
  }

  std::unique_ptr<TemporaryFile> file_;
};

TEST_P(KnownStates, Converged)
{
  const tests::Run run = fit("PARMS b0=0 b1=0 s2=1;\nBOUNDS s2 > 0;\nMODEL y ~ NORMAL(b0 + b1*x, s2);\n");
  EXPECT_EQ(run.outcome.exit_code, 0) << run.log;
  EXPECT_EQ(summary(run).converged, std::optional<bool>(true));
  EXPECT_EQ(summary(run).standing, host::FitSummary::Standing::good) << summary(run).headline;
  EXPECT_EQ(finding(run, "Hessian"), "positive definite");
  for (const char* item :
       {"Flat direction", "Not identified", "At bounds", "Separation", "Vanished variance", "Warnings"})
    EXPECT_EQ(finding(run, item), "") << item;
}

TEST_P(KnownStates, FlatDirection)
{
  const tests::Run run = fit("PARMS b0=0 c=0 b1=0 s2=1;\nBOUNDS s2 > 0;\nMODEL y ~ NORMAL(b0 + c + b1*x, s2);\n");
  EXPECT_EQ(run.outcome.exit_code, 6) << run.log;
  EXPECT_EQ(summary(run).converged, std::optional<bool>(true));
  EXPECT_EQ(summary(run).standing, host::FitSummary::Standing::caution);
  const std::string direction = finding(run, "Flat direction"), names = finding(run, "Not identified");
  EXPECT_TRUE(direction.ends_with("b0 - c") || direction.ends_with("-b0 + c") || direction.ends_with("c - b0"))
      << direction;
  EXPECT_EQ(names, "b0, c");
  EXPECT_NE(finding(run, "Hessian").find("singular"), std::string::npos);
  // One cause, one message.
  const auto& messages = run.outcome.results.steps[0].messages;
  EXPECT_EQ(std::count_if(messages.begin(), messages.end(),
                          [](const auto& m) { return m.severity == host::Severity::warning; }),
            1)
      << run.log;
}

TEST_P(KnownStates, Separation)
{
  const tests::Run run = fit("PARMS b0=0 b1=0;\np = 1/(1 + exp(-b0 - b1*x));\nMODEL s ~ BINARY(p);\n");
  EXPECT_EQ(run.outcome.exit_code, 5) << run.log;
  EXPECT_EQ(summary(run).converged, std::optional<bool>(false));
  EXPECT_EQ(summary(run).standing, host::FitSummary::Standing::bad);
  EXPECT_NE(finding(run, "Separation").find("b1"), std::string::npos) << run.listing;
  const tests::Run overlapping = fit("PARMS b0=0 b1=0;\np = 1/(1 + exp(-b0 - b1*x));\nMODEL z ~ BINARY(p);\n");
  EXPECT_EQ(finding(overlapping, "Separation"), "");
  EXPECT_EQ(summary(overlapping).converged, std::optional<bool>(true)) << overlapping.log;
}

TEST_P(KnownStates, Bound)
{
  const tests::Run run = fit("PARMS b0=0 b1=-0.5 s2=1;\nBOUNDS b1 <= 0, s2 > 0;\nMODEL y ~ NORMAL(b0 + b1*x, s2);\n");
  EXPECT_EQ(run.outcome.exit_code, 0) << run.log;
  EXPECT_EQ(summary(run).converged, std::optional<bool>(true));
  EXPECT_EQ(summary(run).standing, host::FitSummary::Standing::caution);
  EXPECT_EQ(finding(run, "At bounds"), "b1");
  EXPECT_EQ(finding(run, "Not identified"), "");
}

TEST_P(KnownStates, StoppedEarly)
{
  const tests::Run run =
      fit("PARMS b0=-20 b1=10 s2=100;\nBOUNDS s2 > 0;\nMODEL y ~ NORMAL(b0 + b1*x, s2);\n", "MAXITER=1");
  EXPECT_EQ(run.outcome.exit_code, 5) << run.log;
  EXPECT_EQ(summary(run).converged, std::optional<bool>(false));
  EXPECT_EQ(summary(run).standing, host::FitSummary::Standing::bad);
  EXPECT_NE(finding(run, "Converged").find("no"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Forty, KnownStates, ::testing::Range(1, 41));

TEST(Verdict, NothingOptimizedIsNeitherYesNorNo)
{
  const tests::Run run = run_text(
      "TORVALE DATA=warpbreaks TECHNIQUE=NONE;\nPARMS b0=3;\nmu = exp(b0);\nMODEL breaks ~ POISSON(mu);\nRUN;");
  EXPECT_EQ(summary(run).converged, std::nullopt);
  EXPECT_TRUE(summary(run).present);
}

} // namespace

// A fit that stops with slopes left has the standard errors of the objective's own Hessian at its estimates, in
// whatever coordinates it was judged.
TEST(Verdict, StandardErrorsBelongToTheEstimates)
{
  const struct {
    std::string data, parameters, model;
  } fits[] = {
      {"cbpp", "b0=-1 s2=0.3",
       "MODEL incidence ~ BINOMIAL(size, 1/(1 + exp(-(b0 + u)))); RANDOM u ~ NORMAL(0, s2) SUBJECT=herd;"},
      {"sleepstudy", "b0=250 b1=10 v00=500 v01=0 v11=30 s2=600",
       "MODEL reaction ~ NORMAL(b0 + u0 + (b1 + u1)*days, s2);"
       "RANDOM u0 u1 ~ NORMAL([0,0], [v00,v01,v11]) SUBJECT=subject;"},
      {"nested_linear", "b0=48 b1=2 v0=10 vw=5 s2=2",
       "MODEL score ~ NORMAL(b0 + u + w + b1*week, s2);"
       "RANDOM u ~ NORMAL(0, v0) SUBJECT=clinic; RANDOM w ~ NORMAL(0, vw) SUBJECT=ward(clinic);"},
  };
  for (const auto& fit : fits) {
    const std::string head = "TORVALE DATA=" + fit.data + " QPOINTS=3 ";
    const auto run = run_text(head + "GCONV=0.1; PARMS " + fit.parameters + "; " + fit.model + " RUN;");
    const auto estimates = run.column("ParameterEstimates", "Estimate");
    const auto errors = run.column("ParameterEstimates", "StandardError");
    std::string there;
    for (std::size_t i = 0; i < estimates.size(); ++i) {
      char value[40];
      std::snprintf(value, sizeof value, "=%.17g ", estimates[i]);
      there += *run.table("ParameterEstimates")->rows()[i][0].text() + value;
    }
    const auto point = run_text(head + "TECHNIQUE=NONE FDHESSIAN=CENTRAL; PARMS " + there + "; " + fit.model + " RUN;");
    const auto expected = point.column("ParameterEstimates", "StandardError");
    ASSERT_EQ(expected.size(), errors.size()) << fit.data << point.log;
    for (std::size_t i = 0; i < errors.size(); ++i) EXPECT_NEAR(errors[i] / expected[i], 1.0, 1e-5) << fit.data << i;
  }
}

// A group that cannot start has nothing of the group before it: no covariance, no counts, its own starting values.
TEST(Verdict, AGroupThatCannotStartHasNothingOfTheOneBefore)
{
  const TemporaryFile file("verdict-groups.csv", "g,y\na,1\na,2\na,4\nb,1e200\nb,2e200\nc,1\nc,5\nc,4\n");
  const tests::Run run = run_text("TORVALE DATA=d; BY g; PARMS m=2 s2=1; BOUNDS s2 > 0; MODEL y ~ NORMAL(m, s2); RUN;",
                                  "examples", 0, {{"d", file.path()}});
  const auto& groups = run.outcome.results.steps.at(0).groups;
  ASSERT_EQ(groups.size(), 3u) << run.log;
  EXPECT_EQ(groups[0].fit.covariance.size(), 3u);
  EXPECT_EQ(groups[2].fit.covariance.size(), 3u);
  const host::FitSummary& failed = groups[1].fit;
  EXPECT_TRUE(failed.covariance.empty());
  EXPECT_EQ(failed.start, (std::vector<double>{2, 1}));
  for (const auto& [name, figure] : failed.figures) {
    if (name != "evaluations" && name != "iterations") continue;
    EXPECT_EQ(figure.as_number(), 0) << name;
  }
}

} // namespace torvale::tests
