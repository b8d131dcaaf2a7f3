// Several RANDOM statements as a user writes them: what is refused, what is ignored, which subjects there are.

#include "system/session.h"

#include <gtest/gtest.h>

#include <cmath>

namespace torvale::tests {

namespace {

constexpr const char* first = "RANDOM u ~ NORMAL(0, v1) SUBJECT=farm;\n";
constexpr const char* second = "RANDOM v ~ NORMAL(0, v2) SUBJECT=field(farm);\n";
constexpr const char* third = "RANDOM w ~ NORMAL(0, v3) SUBJECT=plot(field farm);\n";

std::string farm_model(const std::string& random, const std::string& options = "QPOINTS=1",
                       const std::string& extra = "")
{
  return "TORVALE DATA=nested_count " + options +
         ";\nPARMS b0=1 b1=0.3 v1=0.4 v2=0.3 v3=0.2;\nBOUNDS v1 > 0, v2 > 0, v3 > 0;\n"
         "mu = exp(b0 + b1*x + u + v + w);\nMODEL count ~ POISSON(mu);\n" +
         random + extra + "RUN;\n";
}

Run run_with(const std::string& csv, const std::string& options)
{
  const TemporaryFile data("nested.csv", csv);
  return run_text(farm_model(std::string(first) + second + third, options), "examples", 0,
                  {{"nested_count", data.path()}});
}

TEST(NestedLevels, WhatIsNotAChainIsRefused)
{
  const std::string good = std::string(first) + second;
  const std::pair<std::string, int> wrong[] = {
      {good + "RANDOM w ~ NORMAL(0, v3) SUBJECT=plot(field);\n", 504},       // two of the same depth
      {good + "RANDOM w ~ NORMAL(0, v3) SUBJECT=plot(field x);\n", 504},     // x is no level
      {good + "RANDOM w ~ NORMAL(0, v3) SUBJECT=plot(farm farm);\n", 504},   // field is missing
      {good + "RANDOM w ~ NORMAL(0, v3) SUBJECT=field(field farm);\n", 504}, // inside itself
      {std::string(second) + third + "RANDOM u ~ NORMAL(0, v1) SUBJECT=farm(plot);\n", 504},
      {good + "RANDOM u w ~ NORMAL([0,0], [v3,0,v3]) SUBJECT=plot(field farm);\n", 506},
      {good + "RANDOM w ~ NORMAL(u, v3) SUBJECT=plot(field farm);\n", 303},
      {good + "RANDOM w ~ NORMAL(0, v3) SUBJECT=plt(field farm);\n", 9},
      {good + third + "REPLICATE x;\n", 503}};
  for (const auto& [random, number] : wrong) {
    const auto run = run_text(farm_model(random));
    EXPECT_TRUE(run.said(503, number)) << random << run.log;
    EXPECT_NE(run.outcome.exit_code, 0) << random;
  }
  EXPECT_TRUE(run_text(farm_model(good + third, "METHOD=ISAMP")).said(503, 501));
}

// Parents in any order, statements in any order, with or without stars.
TEST(NestedLevels, OrderOfStatementsAndParentsDoesNotMatter)
{
  const auto plain = run_text(farm_model(std::string(first) + second + third));
  const auto other =
      run_text(farm_model("RANDOM w ~ NORMAL(0, v3) SUBJECT=plot(FARM*field);\n" + std::string(first) + second,
                          "QPOINTS=1 EBSTEPS=9 EBSUBSTEPS=3 EBSSFRAC=0.5 EBSSTOL=1 EBTOL=1 EBOPT NOSORTSUB"));
  ASSERT_EQ(plain.outcome.exit_code, 0) << plain.log;
  for (const int number : {511, 512, 513, 514, 515, 516, 752}) EXPECT_TRUE(other.said(503, number)) << number;
  EXPECT_EQ(plain.column("ParameterEstimates", "Estimate"), other.column("ParameterEstimates", "Estimate"));
}

TEST(NestedLevels, TablesOfSubjects)
{
  const auto run = run_text(farm_model(std::string(first) + second + third, "QPOINTS=1 REOBSINFO TECHNIQUE=NONE"));
  const auto* levels = run.table("REParameters");
  ASSERT_NE(levels, nullptr) << run.log;
  EXPECT_EQ(run.column("REParameters", "NSub"), (std::vector<double>{6, 12, 24}));
  EXPECT_EQ(run.number("REParameters", "farm", "NSub"), 6);
  const auto observations = run.column("REObsInfo", "NObs");
  ASSERT_EQ(observations.size(), 6u + 12u + 24u);
  double rows = 0;
  for (std::size_t k = 18; k < observations.size(); ++k) rows += observations[k];
  EXPECT_EQ(rows, 72);
  EXPECT_EQ(run.number("Dimensions", "Subjects (field)", "Value"), 12);
}

// The same inner values under two parents are two subjects, whatever the numbers look like in print; unsorted rows are
// put in order.
TEST(NestedLevels, InnerSubjectsBelongToOneParent)
{
  const auto lines = [] {
    std::vector<std::string> out;
    const std::string text = read_text(source_file("examples/nested_count.csv"));
    for (std::size_t from = 0, to; (to = text.find('\n', from)) != std::string::npos; from = to + 1)
      out.push_back(text.substr(from, to - from));
    return out;
  }();
  std::string shuffled = lines[0] + "\n";
  for (std::size_t k = 1; k < lines.size(); ++k) { // 1000001, 1000002, ... are one text in six digits
    const std::string& line = lines[1 + (k * 29) % (lines.size() - 1)];
    shuffled += std::to_string(1000000 + std::stoi(line)) + line.substr(line.find(',')) + "\n";
  }
  ASSERT_EQ((lines.size() - 1) % 29, 72u % 29u);
  const auto plain =
      run_text(farm_model(std::string(first) + second + third, "QPOINTS=3 GCONV=1e-13 FCONV=0 ABSGCONV=0"));
  const auto other = run_with(shuffled, "QPOINTS=3 GCONV=1e-13 FCONV=0 ABSGCONV=0");
  ASSERT_EQ(other.outcome.exit_code, 0) << other.log;
  EXPECT_EQ(other.number("Dimensions", "Subjects (plot)", "Value"), 24);
  const auto a = plain.column("ParameterEstimates", "Estimate"), b = other.column("ParameterEstimates", "Estimate"),
             e = plain.column("ParameterEstimates", "StandardError");
  for (std::size_t j = 0; j < a.size(); ++j) EXPECT_NEAR(a[j], b[j], 1e-5 * e[j]);
}

TEST(NestedLevels, MissingValuesAndUnusableSubjects)
{
  const std::string csv = read_text(source_file("examples/nested_count.csv"));
  EXPECT_TRUE(run_with(csv + "7,,1,0.5,2\n", "QPOINTS=1").said(503, 28)); // no field
  const auto plain = run_with(csv, "QPOINTS=1 TECHNIQUE=NONE");
  // A farm, and a plot of another farm, all of whose responses are missing.
  const auto more = run_with(csv + "7,1,1,0.5,.\n7,2,1,0.1,.\n1,1,9,0.5,.\n", "QPOINTS=1 TECHNIQUE=NONE");
  EXPECT_EQ(more.column("FitStatistics", "Value")[0], plain.column("FitStatistics", "Value")[0]) << more.log;
  EXPECT_EQ(more.number("Dimensions", "Subjects (farm)", "Value"), 6);
}

// The sandwich and differences of the objective: both roads exist for nested models.
TEST(NestedLevels, EmpiricalAndDifferences)
{
  const std::string random = std::string(first) + second + third;
  const auto plain = run_text(farm_model(random, "QPOINTS=1"));
  const auto robust = run_text(farm_model(random, "QPOINTS=1 EMPIRICAL"));
  EXPECT_FALSE(robust.said(503, 142)) << robust.log;
  EXPECT_NE(robust.column("ParameterEstimates", "StandardError"), plain.column("ParameterEstimates", "StandardError"));
  const auto differences = run_text(farm_model(random, "QPOINTS=1 FD FDHESSIAN"));
  EXPECT_TRUE(differences.said(503, 361)) << differences.log;
  EXPECT_NEAR(differences.column("FitStatistics", "Value")[0], plain.column("FitStatistics", "Value")[0], 1e-4);
}

// EBMTOL= is a length in the unit of the effects; how well their modes are known must not depend on that unit.
TEST(NestedLevels, ModesByTurnsAreTheJointModesInEveryUnit)
{
  for (const double unit : {1.0, 1e-6}) {
    const std::string u = std::to_string(unit),
                      model = "; BOUNDS v0 > 0, vw > 0, s2 > 0; y = " + u + "*score;\n" + "MODEL y ~ NORMAL(" + u +
                              "*(b0 + b1*week) + u + w, s2*" + u + "**2);\nRANDOM u ~ NORMAL(0, v0*" + u +
                              "**2) SUBJECT=clinic;\nRANDOM w ~ NORMAL(0, vw*" + u + "**2) SUBJECT=ward(clinic);\nRUN;";
    const std::string head = "TORVALE DATA=nested_linear QPOINTS=1 ", parms = "PARMS b0=48 b1=2 v0=10 vw=5 s2=2";
    const auto joint = run_text(head + ";" + parms + model), turns = run_text(head + "EBITER;" + parms + model);
    EXPECT_NEAR(turns.column("FitStatistics", "Value")[0], joint.column("FitStatistics", "Value")[0], 1e-8) << unit;
    for (const char* const column : {"Estimate", "StandardError"}) {
      const auto expected = joint.column("ParameterEstimates", column),
                 found = turns.column("ParameterEstimates", column);
      ASSERT_EQ(found.size(), 5u) << turns.log;
      for (std::size_t i = 0; i < 5; ++i) EXPECT_NEAR(found[i] / expected[i], 1.0, 1e-6) << unit << column << i;
    }
  }
}

} // namespace

} // namespace torvale::tests
