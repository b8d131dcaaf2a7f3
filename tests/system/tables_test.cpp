// The tables of a fit: statements that add to them, BY groups, grids, and what JSON keeps.

#include "system/session.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>

namespace torvale::tests {

namespace {

TEST(Tables, EstimateFollowsTheDeltaMethod)
{
  std::string program = example("fixed_poisson", "COV ECOV ECORR EDER");
  program.insert(program.find("RUN;"), "ESTIMATE 'rate' exp(b0 + woolB);\nESTIMATE 'sum' b0 + woolB ALPHA=0.1 DF=7;\n"
                                       "CONTRAST 'tension' tensM, tensH;\nCONTRAST 'twice' tensM, tensM;\n");
  const auto run = run_text(program);
  ASSERT_EQ(run.outcome.exit_code, 0) << run.log;
  const double sum = run.number("AdditionalEstimates", "sum", "Estimate"),
               rate = run.number("AdditionalEstimates", "rate", "Estimate");
  EXPECT_NEAR(rate, std::exp(sum), 1e-12 * rate);
  EXPECT_NEAR(run.number("AdditionalEstimates", "rate", "StandardError"),
              rate * run.number("AdditionalEstimates", "sum", "StandardError"), 1e-9 * rate);
  EXPECT_EQ(run.number("AdditionalEstimates", "sum", "DF"), 7);
  EXPECT_EQ(run.number("AdditionalEstimates", "rate", "DF"), 54);
  const auto cov = run.column("CovMatParmEst", "b0"), cov_b = run.column("CovMatParmEst", "woolB");
  EXPECT_NEAR(std::pow(run.number("AdditionalEstimates", "sum", "StandardError"), 2), cov[0] + 2 * cov[1] + cov_b[1],
              1e-12);
  EXPECT_EQ(run.number("Contrasts", "tension", "NumDF"), 2);
  EXPECT_EQ(run.number("Contrasts", "twice", "NumDF"), 1); // the second row depends on the first
  EXPECT_EQ(run.column("CorrMatAddEst", "Corr1")[0], 1.0);
  EXPECT_NEAR(run.column("DerAddEst", "Der b0")[0], rate, 1e-12 * rate);
}

TEST(Tables, GridVariesTheFirstParameterFastestAndBestKeepsTheLowest)
{
  const std::string model = "mu = exp(b0 + b1*(wool='B'));\nMODEL breaks ~ POISSON(mu);\nRUN;";
  const auto all = run_text("TORVALE DATA=warpbreaks;\nPARMS b0=2 TO 4 b1=-0.2 0;\n" + model);
  ASSERT_EQ(all.outcome.exit_code, 0) << all.log;
  EXPECT_EQ(all.column("Parameters", "b0"), (std::vector<double>{2, 3, 4, 2, 3, 4}));
  EXPECT_EQ(all.column("Parameters", "b1"), (std::vector<double>{-0.2, -0.2, -0.2, 0, 0, 0}));
  const auto best = run_text("TORVALE DATA=warpbreaks;\nPARMS b0=2 TO 4 b1=-0.2 0 / BEST=2;\n" + model);
  const auto objective = best.column("Parameters", "NegLogLike");
  ASSERT_EQ(objective.size(), 2u);
  EXPECT_LT(objective[0], objective[1]);
  EXPECT_EQ(
      run_text("TORVALE DATA=warpbreaks;\nPARMS b0=0 TO 0.3 BY 0.1;\nmu=exp(b0);MODEL breaks ~ POISSON(mu);\nRUN;")
          .column("Parameters", "b0")
          .size(),
      4u);
}

TEST(Tables, GroupsAreFittedOneByOne)
{
  const std::string model = "PARMS b0=3;\nmu = exp(b0);\nMODEL breaks ~ POISSON(mu);\n";
  const auto by = run_text("TORVALE DATA=warpbreaks;\n" + model + "BY wool;\nRUN;");
  ASSERT_EQ(by.outcome.exit_code, 0) << by.log;
  ASSERT_EQ(by.outcome.results.steps[0].groups.size(), 2u);
  const auto a = run_text("TORVALE DATA=warpbreaks(WHERE=(wool='B'));\n" + model + "RUN;");
  EXPECT_EQ(by.number("ParameterEstimates", "b0", "Estimate", 1), a.number("ParameterEstimates", "b0", "Estimate"));
}

// Three parameters, one bound active, one combination that the data cannot tell apart.
TEST(Tables, BoundsAndSingularHessiansAreSaid)
{
  const auto bound =
      run_text("TORVALE DATA=warpbreaks;\nPARMS b0=3 b1=0.5;\nBOUNDS b1 >= 0;\nmu = exp(b0 + b1*(wool='B'));\n"
               "MODEL breaks ~ POISSON(mu);\nRUN;");
  ASSERT_EQ(bound.outcome.exit_code, 0) << bound.log;
  EXPECT_EQ(bound.number("ParameterEstimates", "b1", "Estimate"), 0.0);
  EXPECT_TRUE(std::isnan(bound.number("ParameterEstimates", "b1", "StandardError")));
  ASSERT_NE(bound.table("ParameterEstimates")->column("ActiveBC"), host::Table::npos);

  const auto singular =
      run_text("TORVALE DATA=warpbreaks;\nPARMS b0=3 b1=0;\nmu = exp(b0 + b1);\nMODEL breaks ~ POISSON(mu);\nRUN;");
  EXPECT_TRUE(singular.said(503, 271)) << singular.log;
  EXPECT_NE(singular.table("CovMatParmEst"), nullptr); // unasked
}

TEST(Tables, JsonKeepsEveryDigit)
{
  const auto run = run_text(example("theoph", "QPOINTS=1"));
  const auto json = nlohmann::json::parse(host::results_json(run.outcome.results));
  const auto& tables = json["steps"][0]["groups"][0]["tables"];
  bool seen = false;
  for (const auto& t : tables) {
    if (t["name"] != "ParameterEstimates") continue;
    seen = true;
    EXPECT_EQ(t["path"], "Stat.TVL.ParameterEstimates");
    EXPECT_EQ(t["rows"][0][1].get<double>(), run.column("ParameterEstimates", "Estimate")[0]);
  }
  EXPECT_TRUE(seen);
}

// Without gradients by subject there is no sandwich: the message says so, and the model-based covariance stands.
TEST(Tables, RobustCovarianceNeedsGradientsBySubject)
{
  const auto plain = run_text(example("cbpp", "QPOINTS=3 FD"));
  const auto robust = run_text(example("cbpp", "QPOINTS=3 FD EMPIRICAL"));
  EXPECT_TRUE(robust.said(503, 142)) << robust.log;
  EXPECT_EQ(robust.column("ParameterEstimates", "StandardError"), plain.column("ParameterEstimates", "StandardError"));
}

} // namespace

} // namespace torvale::tests
