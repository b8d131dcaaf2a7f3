// The checks of a step's statements, in their order: each has a program that fails by it alone, and where a program
// fails two of them the earlier one ends the step and the later one says nothing.

#include "system/session.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace torvale::tests {

namespace {

// The parts of a program, right as they stand.
struct Parts {
  std::string data = "DATA=epil", tolerance, seed, method, technique;
  std::string by;
  std::string model = "MODEL y ~ NORMAL(mu, s2);";
  std::string parms = "PARMS b0=8 v=10 s2=50;", second_parms;
  std::string random = "RANDOM u ~ NORMAL(0, v) SUBJECT=subject;", second_random;
  std::string mcmc, replicate, bounds, estimate, contrast;

  std::string program() const
  {
    std::string text = "TORVALE " + data + " " + tolerance + " " + seed + " " + method + " " + technique + ";\n";
    for (const std::string* part : {&by, &parms, &second_parms}) text += *part + "\n";
    text += "mu = b0 + u;\n";
    for (const std::string* part : {&model, &random, &second_random, &mcmc, &replicate, &bounds, &estimate, &contrast})
      text += *part + "\n";
    return text + "RUN;\n";
  }
};

using Change = std::pair<std::string Parts::*, const char*>;

struct Check {
  const char* name;
  int number; // of group 503
  int return_code;
  std::vector<Change> changes; // of the parts
};

const std::vector<Check>& checks()
{
  static const char* const two_effects = "RANDOM u w ~ NORMAL([0,0],[v,0,v]) SUBJECT=subject;";
  static const std::vector<Check> all = {
      {"NoDataSet", 1, 1008, {{&Parts::data, ""}}},
      {"ToleranceTooSmall", 134, 1012, {{&Parts::tolerance, "QTOL=1e-16"}}},
      {"SeedTooLarge", 140, 3000, {{&Parts::seed, "SEED=9007199254740992"}}},
      {"NoModel", 2, 3000, {{&Parts::model, ""}}},
      {"TwoModels", 12, 3000, {{&Parts::model, "MODEL y ~ NORMAL(mu, s2); MODEL base ~ NORMAL(b0, 1);"}}},
      {"ResponseOfCharacters", 39, 3000, {{&Parts::model, "MODEL trt ~ NORMAL(mu, s2);"}}},
      {"TwoParms", 12, 3000, {{&Parts::second_parms, "PARMS c=1;"}}},
      {"ParameterTwice", 237, 1012, {{&Parts::parms, "PARMS b0=8 v=10 s2=50 b0=1;"}}},
      {"ParameterWithoutValue", 235, 1012, {{&Parts::parms, "PARMS b0=8 v=10 s2;"}}},
      {"TwoMcmc", 12, 3000, {{&Parts::mcmc, "MCMC SAMPLES=1; MCMC SAMPLES=2;"}}},
      {"FirstOrderWithoutRandom",
       331,
       3000,
       {{&Parts::random, ""}, {&Parts::second_random, ""}, {&Parts::method, "METHOD=FIRO"}}},
      {"EmpiricalWithoutRandom",
       141,
       3000,
       {{&Parts::random, ""}, {&Parts::second_random, ""}, {&Parts::method, "EMPIRICAL"}}},
      {"FirstOrderWithLevels",
       501,
       3000,
       {{&Parts::second_random, "RANDOM w ~ NORMAL(0, v) SUBJECT=period(subject);"}, {&Parts::method, "METHOD=FIRO"}}},
      {"TriangleIncomplete", 15, 1012, {{&Parts::random, "RANDOM u ~ NORMAL(0, v, v) SUBJECT=subject;"}}},
      {"SubjectUnknown", 9, 3000, {{&Parts::random, "RANDOM u ~ NORMAL(0, v) SUBJECT=nobody;"}}},
      {"EffectAtTwoLevels", 506, 3000, {{&Parts::second_random, "RANDOM u ~ NORMAL(0, v) SUBJECT=period(subject);"}}},
      {"LevelsNotNested", 504, 3000, {{&Parts::second_random, "RANDOM w ~ NORMAL(0, v) SUBJECT=period;"}}},
      {"TrapezoidOfTwoEffects",
       23,
       1012,
       {{&Parts::random, two_effects}, {&Parts::second_random, ""}, {&Parts::method, "METHOD=HARDY"}}},
      {"TwoReplicates", 12, 3000, {{&Parts::replicate, "REPLICATE base; REPLICATE age;"}}},
      {"ReplicateUnknown", 22, 3000, {{&Parts::replicate, "REPLICATE nobody;"}}},
      {"BoundsCross", 9310, 1012, {{&Parts::bounds, "BOUNDS b0 > 2, b0 < 1;"}}},
      {"BoundBetweenParameters", 251, 1012, {{&Parts::bounds, "BOUNDS b0 < v;"}}},
      {"BoundOfNoParameter", 252, 1012, {{&Parts::bounds, "BOUNDS 0 < nobody;"}}},
      {"GridTooLarge", 500, 1012, {{&Parts::parms, "PARMS b0=1 to 100000 by 1 v=1 to 100000 by 1 s2=50;"}}},
      {"ResponseUnknown", 5, 3000, {{&Parts::model, "MODEL nowhere ~ NORMAL(mu, s2);"}}},
      {"EstimateOfEffect", 33, 3000, {{&Parts::estimate, "ESTIMATE 'e' b0 + u;"}}},
      {"ContrastOfData", 38, 3000, {{&Parts::contrast, "CONTRAST 'c' b0*base;"}}},
      {"PredictionOfNothing", 9454, 3000, {{&Parts::estimate, "PREDICT bse OUT=nowhere;"}}},
      {"ReplicateOfParameters", 9450, 3000, {{&Parts::replicate, "many = base*s2; REPLICATE many;"}}},
  };
  return all;
}

Run run_of(std::initializer_list<const Check*> failed)
{
  Parts parts;
  for (const Check* const check : failed)
    for (const auto& [part, text] : check->changes) parts.*part = text;
  return run_text(parts.program());
}

bool share_a_part(const Check& a, const Check& b)
{
  return std::any_of(a.changes.begin(), a.changes.end(), [&](const Change& x) {
    return std::any_of(b.changes.begin(), b.changes.end(), [&](const Change& y) { return x.first == y.first; });
  });
}

} // namespace

TEST(StatementChecks, EachHasAProgram)
{
  EXPECT_EQ(run_text(Parts().program()).outcome.exit_code, 0);
  for (const Check& check : checks()) {
    const auto run = run_of({&check});
    EXPECT_TRUE(run.said(503, check.number)) << check.name << "\n" << run.log;
    EXPECT_EQ(run.outcome.results.steps.at(0).return_code, check.return_code) << check.name << "\n" << run.log;
  }
}

TEST(StatementChecks, TheEarlierOneHidesTheLater)
{
  int pairs = 0;
  for (std::size_t i = 0; i < checks().size(); ++i)
    for (std::size_t j = i + 1; j < checks().size(); ++j) {
      const Check &first = checks()[i], &second = checks()[j];
      if (share_a_part(first, second)) continue;
      ++pairs;
      const auto run = run_of({&first, &second});
      EXPECT_TRUE(run.said(503, first.number)) << first.name << " and " << second.name << "\n" << run.log;
      EXPECT_TRUE(first.number == second.number || !run.said(503, second.number))
          << first.name << " and " << second.name << "\n"
          << run.log;
      EXPECT_EQ(run.outcome.results.steps.at(0).return_code, first.return_code) << first.name << " and " << second.name;
    }
  EXPECT_GT(pairs, 250);
}

// A likelihood that a constant argument leaves without a value is no matter of the effect alone, and the words say so.
TEST(StatementChecks, ArgumentsOutOfRange)
{
  Parts unused, zero;
  unused.model = "MODEL y ~ NORMAL(b0, s2);";
  zero.model = "MODEL y ~ NORMAL(mu, 0);";
  const auto plain = run_text(unused.program()), range = run_text(zero.program());
  EXPECT_TRUE(plain.said(503, 10) && range.said(503, 10)) << plain.log << range.log;
  EXPECT_EQ(plain.log.find("out of its range"), std::string::npos) << plain.log;
  EXPECT_NE(range.log.find("argument of the distribution"), std::string::npos) << range.log;
}

} // namespace torvale::tests
