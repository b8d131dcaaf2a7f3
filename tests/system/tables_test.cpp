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

double largest_number(const Run& run)
{
  double largest = 0.0;
  for (const auto& group : run.outcome.results.steps[0].groups)
    for (const auto& table : group.tables)
      for (const auto& row : table.rows())
        for (const auto& cell : row)
          if (cell.number() != nullptr && std::abs(*cell.number()) > largest) largest = std::abs(*cell.number());
  return largest;
}

// A standard error is as large as it is, in whatever units; where there is none nothing is derived from it.
TEST(Tables, SmallStandardErrorsAreShownAsTheyAre)
{
  std::string lines = "y,x\n";
  for (int i = 0; i < 12; ++i)
    lines += std::to_string(3 + 0.5 * i + (i % 3 - 1) * 0.7) + "," + std::to_string(i) + "\n";
  const TemporaryFile data("units.csv", lines);
  const auto fit = [&](const std::string& start, const std::string& level) {
    return run_text("TORVALE DATA=d COV CORR ECOV ECORR;\nPARMS a=" + start + " b=0.5;\nm = " + level +
                        " + b*x;\nMODEL y ~ NORMAL(m, 1);\nESTIMATE 'double' 2*a;\nESTIMATE 'nothing' 0*a;\n"
                        "CONTRAST 'none' 0*a;\nRUN;",
                    "examples", 0, {{"d", data.path()}});
  };
  const auto one = fit("3", "a"), other = fit("3e-9", "a*1e9");
  ASSERT_EQ(one.outcome.exit_code, 0) << one.log;
  ASSERT_EQ(other.outcome.exit_code, 0) << other.log;
  const double error = one.number("AdditionalEstimates", "double", "StandardError");
  EXPECT_NEAR(other.number("AdditionalEstimates", "double", "StandardError"), 1e-9 * error, 1e-12 * error);
  EXPECT_NEAR(other.number("AdditionalEstimates", "double", "tValue"),
              one.number("AdditionalEstimates", "double", "tValue"), 1e-4);
  for (const char* column : {"StandardError", "tValue", "Probt", "Lower", "Upper"})
    EXPECT_TRUE(std::isnan(one.number("AdditionalEstimates", "nothing", column))) << column;
  EXPECT_NEAR(other.number("ParameterEstimates", "a", "StandardError"), 0.5e-9 * error, 1e-12 * error);
  EXPECT_LT(largest_number(one), 1e6);
}

TEST(Tables, ParameterWithoutInfluenceIsNamed)
{
  const auto run = run_text("TORVALE DATA=sleepstudy;\nPARMS b0=300 s=2000 idle=2;\nm = b0;\n"
                            "IF days > 1e6 THEN m = idle;\nMODEL reaction ~ NORMAL(m, s);\nRUN;");
  EXPECT_TRUE(run.said(503, 271)) << run.log;
  EXPECT_NE(run.log.find("do not identify idle"), std::string::npos) << run.log;
  EXPECT_FALSE(run.said(503, 9431)) << run.log; // one cause, one message
  for (const char* column : {"StandardError", "tValue", "Probt", "Lower", "Upper"}) {
    EXPECT_TRUE(std::isnan(run.number("ParameterEstimates", "idle", column))) << column;
    EXPECT_FALSE(std::isnan(run.number("ParameterEstimates", "b0", column))) << column;
  }
  EXPECT_LT(largest_number(run), 1e8);
}

// A contrast whose expressions have no variance tests nothing, and does not say F = 0.
TEST(Tables, ContrastsOfNothingHaveNoTest)
{
  const auto run = run_text("TORVALE DATA=stackloss; PARMS b0=-40 b1=0.4 s2=10; BOUNDS b1 <= 0.5;"
                            "MODEL loss ~ NORMAL(b0 + b1*airflow, s2);"
                            "CONTRAST 'bound' b1 - 1; CONTRAST 'both' b1 - 1, b0; CONTRAST 'constant' 3 - 2; RUN;");
  EXPECT_EQ(run.outcome.exit_code, 0) << run.log;
  for (const char* label : {"bound", "constant"}) {
    EXPECT_EQ(run.number("Contrasts", label, "NumDF"), 0);
    EXPECT_TRUE(std::isnan(run.number("Contrasts", label, "FValue")));
    EXPECT_TRUE(std::isnan(run.number("Contrasts", label, "ProbF")));
  }
  EXPECT_EQ(run.number("Contrasts", "both", "NumDF"), 1);
  EXPECT_GT(run.number("Contrasts", "both", "FValue"), 0);
  EXPECT_TRUE(run.said(503, 9448));
}

// Expressions that drop out of a contrast cannot be tested, but they can make it impossible: that is said.
TEST(Tables, ContrastsThatContradictThemselves)
{
  const auto said = [](const std::string& expressions) {
    const auto run = run_text("TORVALE DATA=stackloss; PARMS b0=-40 b1=0.4 s2=10; BOUNDS b1 <= 0.5;"
                              "MODEL loss ~ NORMAL(b0 + b1*airflow, s2); CONTRAST 'c' " +
                              expressions + "; RUN;");
    EXPECT_EQ(run.number("Contrasts", "c", "NumDF"), expressions.find("s2") == std::string::npos ? 1 : 2) << run.log;
    return run.said(503, 9451);
  };
  EXPECT_TRUE(said("b0 + 10, 2*b0 + 21"));
  EXPECT_TRUE(said("b0, b1 - 1")); // at its bound
  EXPECT_TRUE(said("b0, s2 - 9, 3*b0 - s2 + 8"));
  EXPECT_FALSE(said("b0 + 10, 2*b0 + 20"));
  EXPECT_FALSE(said("b0, b1 - 0.5"));
  EXPECT_FALSE(said("b0, s2 - 9, 3*b0 - s2 + 9"));
}

// Two effects that the data cannot tell apart end with a correlation of 1: the fit says so, and what it computes from
// them has no standard error made of rounding. A matrix that the program itself makes singular is no news.
TEST(Tables, EffectsOfOneKindAreNamed)
{
  std::string rows = "id,x,y\n";
  for (int i = 0; i < 24; ++i)
    for (int k = 0; k < 5; ++k) {
      const double x = 0.5 * k, u = 0.7 * ((i * 7) % 11 - 5) / 3.0, e = 0.3 * ((i * 5 + k * 3) % 7 - 3) / 2.0;
      rows += std::to_string(i) + "," + std::to_string(x) + "," + std::to_string(1 + x + u * (1 + 0.8 * x) + e) + "\n";
    }
  const TemporaryFile data("one_kind.csv", rows);
  const std::string head = "TORVALE DATA='" + data.path() + "'; ";
  const auto run = run_text(head + "PARMS b0=1 b1=1 v1=0.5 c=0.1 v2=0.5 s2=0.3; BOUNDS v1>0, v2>0, s2>0;"
                                   "MODEL y ~ NORMAL(b0 + u + (b1 + w)*x, s2);"
                                   "RANDOM u w ~ NORMAL([0,0],[v1,c,v2]) SUBJECT=id; ESTIMATE 'r' c/sqrt(v1*v2); RUN;");
  EXPECT_EQ(run.outcome.exit_code, 0) << run.log;
  EXPECT_TRUE(run.said(503, 9452)) << run.log;
  EXPECT_NE(run.log.find("have the correlation 1."), std::string::npos) << run.log;
  EXPECT_NEAR(run.number("AdditionalEstimates", "r", "Estimate"), 1.0, 1e-6);
  EXPECT_TRUE(std::isnan(run.number("AdditionalEstimates", "r", "StandardError")));
  EXPECT_GT(run.number("ParameterEstimates", "v1", "StandardError"), 0.0);
  const auto fixed = run_text(head + "PARMS b0=1 b1=1 s2=0.3; BOUNDS s2>0; MODEL y ~ NORMAL(b0 + u + (b1 + w)*x, s2);"
                                     "RANDOM u w ~ NORMAL([0,0],[1,0.5,0.25]) SUBJECT=id; RUN;");
  EXPECT_FALSE(fixed.said(503, 9452)) << fixed.log;
}

TEST(Tables, FailedStartSaysThatNoModeWasSought)
{
  const auto run = run_text(example("cbpp", "EBSTEPS=0"));
  EXPECT_EQ(run.outcome.exit_code, 7);
  EXPECT_TRUE(run.said(503, 9447)) << run.log;
}

TEST(Tables, DegreesOfFreedomOfZeroAreTold)
{
  const TemporaryFile data("one.csv", "id,y\n1,2\n1,3\n1,5\n");
  const auto run =
      run_text("TORVALE DATA=d TECH=NONE;\nPARMS m=3 v=1;\nMODEL y ~ NORMAL(m+u,1);\nRANDOM u ~ NORMAL(0,v) "
               "SUBJECT=id;\nRUN;",
               "examples", 0, {{"d", data.path()}});
  EXPECT_TRUE(run.said(503, 9432)) << run.log;
}

TEST(Tables, DifferencesShowTheirGradient)
{
  const auto analytic = run_text(example("cbpp", "START")), differences = run_text(example("cbpp", "START FD"));
  ASSERT_EQ(differences.outcome.exit_code, 0) << differences.log;
  const auto expected = analytic.column("StartingValues", "Gradient"),
             found = differences.column("StartingValues", "Gradient");
  ASSERT_EQ(found.size(), expected.size());
  for (std::size_t i = 0; i < found.size(); ++i) EXPECT_NEAR(found[i], expected[i], 1e-4 * (1 + std::abs(expected[i])));
  const auto simplex = run_text(example("cbpp", "TECH=NMSIMP FD"));
  EXPECT_EQ(simplex.column("ParameterEstimates", "Gradient").size(), expected.size());
}

// The three subjects that the model serves worst, with the statement that fails.
TEST(Tables, FailedStartNamesTheWorstSubjects)
{
  std::string rows = "id,y,x\n";
  for (int id = 1; id <= 6; ++id)
    for (int k = 0; k < id; ++k) rows += std::to_string(id) + ",1," + std::to_string(id > 2 ? -1 : 1) + "\n";
  const TemporaryFile data("worst.csv", rows);
  const auto far = run_text("TORVALE DATA=d ITDETAILS;\nPARMS b=-800 v=1;\np = LOGISTIC(b*x+u);\n"
                            "MODEL y ~ BINARY(p);\nRANDOM u ~ NORMAL(0,v) SUBJECT=id;\nRUN;",
                            "examples", 0, {{"d", data.path()}});
  EXPECT_EQ(far.outcome.exit_code, 7) << far.log;
  int told = 0;
  for (const auto& m : far.outcome.results.steps[0].messages) told += m.number == 9437;
  EXPECT_EQ(told, 2) << far.log; // x is 1 for two of the subjects
  EXPECT_EQ(far.outcome.results.steps[0].messages.back().number, 232) << far.log;
}

// A mean that is 0 to machine precision is refused: the words show it, not only the response that could well be.
TEST(Tables, FailedStartShowsTheDistribution)
{
  const TemporaryFile data("small_mean.csv", "id,y,x\n1,2,0\n1,0,1\n2,3,0\n2,0,1\n");
  const auto run = run_text("TORVALE DATA=d;\nPARMS a=1 b=-50 v=1;\nMODEL y ~ POISSON(EXP(a + b*x + u));\n"
                            "RANDOM u ~ NORMAL(0,v) SUBJECT=id;\nRUN;",
                            "examples", 0, {{"d", data.path()}});
  EXPECT_EQ(run.outcome.exit_code, 7) << run.log;
  EXPECT_NE(run.log.find("y = 0 with Poisson("), std::string::npos) << run.log;
}

TEST(Tables, ModelWithoutParametersIsClean)
{
  const auto run = run_text("TORVALE DATA=sleepstudy;\nMODEL reaction ~ NORMAL(300, 3000);\nRUN;");
  EXPECT_EQ(run.outcome.exit_code, 0) << run.log;
  EXPECT_EQ(run.log.find("WARNING"), std::string::npos) << run.log;
  EXPECT_FALSE(std::isnan(run.number("FitStatistics", "-2 Log Likelihood", "Value")));
}

// The sandwich needs the subjects' gradients also where the fit goes by differences.
TEST(Tables, EmpiricalErrorsAreTheSameUnderDifferences)
{
  const auto analytic = run_text(example("cbpp", "EMPIRICAL")), differences = run_text(example("cbpp", "EMPIRICAL FD"));
  ASSERT_EQ(analytic.outcome.exit_code, 0) << analytic.log;
  ASSERT_EQ(differences.outcome.exit_code, 0) << differences.log;
  const auto expected = analytic.column("ParameterEstimates", "StandardError"),
             found = differences.column("ParameterEstimates", "StandardError");
  ASSERT_EQ(found.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_NEAR(found[i], expected[i], 1e-3 * expected[i]);
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

} // namespace

} // namespace torvale::tests
