// Parameters that the data know by their sum or their product alone: wherever on the ridge a technique stops, at its
// ends too, they are named and have no standard error, and the others have theirs.

#include "system/session.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <tuple>

namespace torvale::tests {

namespace {

struct Ridge {
  const char* name;
  int size; // records of a subject
  const char* model;
  std::vector<std::string> ridge, others;
  double power; // of the response's unit in a parameter of the ridge
};

const Ridge ridges[] = {
    {"one record",
     1,
     "MODEL w ~ NORMAL(b0 + b1*x + u, s2); RANDOM u ~ NORMAL(0, s2u) SUBJECT=id;",
     {"s2u", "s2"},
     {"b0", "b1"},
     2},
    {"two effects",
     4,
     "MODEL w ~ NORMAL(b0 + b1*x + u + v, s2); RANDOM u v ~ NORMAL([0, 0], [s2u, 0, s2v]) SUBJECT=id;",
     {"s2u", "s2v"},
     {"b0", "b1", "s2"},
     2},
    {"sum",
     4,
     "MODEL w ~ NORMAL(b0 + b1*x + u, s2a + s2b); RANDOM u ~ NORMAL(0, s2) SUBJECT=id;",
     {"s2a", "s2b"},
     {"b0", "b1", "s2"},
     2},
    {"sum in G",
     4,
     "MODEL w ~ NORMAL(b0 + b1*x + u, s2); RANDOM u ~ NORMAL(0, s2a + s2b) SUBJECT=id;",
     {"s2a", "s2b"},
     {"b0", "b1", "s2"},
     2},
    {"product", 1, "MODEL w ~ NORMAL(b0 + b1*x, p*q);", {"p", "q"}, {"b0", "b1"}, 1}};

std::string data(int size)
{
  std::string csv = "id,x,y\n";
  for (int i = 0; i < 20 * (size > 1 ? 2 : 1); ++i) {
    const int effect = size > 1 ? (i / size * 5 % 7) * 2 : 0;
    csv += std::to_string(i / size) + "," + std::to_string(i * 7 % 11 - 5) + "," +
           std::to_string((i * i * 3 + i) % 13 + effect) + "\n";
  }
  return csv;
}

std::string program(const Ridge& ridge, const std::string& bound, double first, double second, double unit)
{
  char parms[200];
  const double u = std::pow(unit, ridge.power);
  std::snprintf(parms, sizeof parms, "PARMS b0=0 b1=0 %s=%.17g %s=%.17g", ridge.ridge[0].c_str(), first * u,
                ridge.ridge[1].c_str(), second * u);
  std::string text = parms, bounds;
  for (const auto& name : ridge.others)
    if (name == "s2") text += " s2=" + std::to_string(unit * unit);
  for (const auto& name : {ridge.ridge[0], ridge.ridge[1]})
    if (!bound.empty()) bounds += (bounds.empty() ? "BOUNDS " : ", ") + name + bound;
  return text + "; " + bounds + (bounds.empty() ? " " : "; ") + "w = y*" + std::to_string(unit) + "; " + ridge.model +
         " RUN;";
}

} // namespace

TEST(Ridges, HaveNoStandardErrors)
{
  for (const auto& ridge : ridges) {
    const TemporaryFile file("ridge.csv", data(ridge.size));
    for (const std::string technique : {"", "TECHNIQUE=NEWRAP", "TECHNIQUE=TRUREG"})
      for (const std::string bound : {"", ">=0"})
        for (const auto& [first, second, unit] : {std::tuple(40.0, 0.01, 1.0), std::tuple(1000.0, 1.0, 1e6)}) {
          const auto run = run_text("TORVALE DATA='" + file.path() + "' " + technique + "; " +
                                    program(ridge, bound, first, second, unit));
          const auto where = std::string(ridge.name) + " " + technique + " " + bound + " " + std::to_string(first) +
                             " " + std::to_string(unit);
          EXPECT_EQ(run.outcome.exit_code, 6) << where << run.log;
          for (const auto& name : ridge.ridge)
            EXPECT_TRUE(std::isnan(run.number("ParameterEstimates", name, "StandardError"))) << where << name;
          for (const auto& name : ridge.others)
            EXPECT_GT(run.number("ParameterEstimates", name, "StandardError"), 0.0) << where << name;
        }
  }
}

// A log likelihood that the program writes out has a variance that nobody knows for one: it may end next to 0, where
// its derivatives are rounding and a step to one side cannot be evaluated, and has no bound there.
TEST(Ridges, EndWhereEvaluationsDo)
{
  const TemporaryFile file("ridge.csv", data(1));
  const Ridge ridge{"written out",
                    1,
                    "d = w - b0 - b1*x - u; ll = -.5*log(6.28318530717958648*s2) - .5*d*d/s2; MODEL w ~ GENERAL(ll);"
                    "RANDOM u ~ NORMAL(0, s2u) SUBJECT=id;",
                    {"s2u", "s2"},
                    {"b0", "b1"},
                    2};
  const auto expect_ridge = [&](const std::string& technique, const std::string& bound, double first, double second,
                                double unit) {
    const auto run = run_text("TORVALE DATA='" + file.path() + "' TECHNIQUE=" + technique + "; " +
                              program(ridge, bound, first, second, unit));
    const auto where = technique + " " + bound + " " + std::to_string(unit);
    EXPECT_EQ(run.outcome.exit_code, 6) << where << run.log;
    for (const auto& name : ridge.ridge)
      EXPECT_TRUE(std::isnan(run.number("ParameterEstimates", name, "StandardError"))) << where << name;
    EXPECT_NEAR(run.number("ParameterEstimates", "b0", "StandardError"), 0.8623 * unit, 1e-3 * unit) << where;
  };
  for (const std::string technique : {"DBLDOG", "NRRIDG", "NEWRAP"})
    for (const std::string bound : {"", ">=0"})
      for (const double unit : {1.0, 40.0}) expect_ridge(technique, bound, 40.0, 0.01, unit);
  // At a strict bound a gradient of rounding presses; what a step inside changes does not.
  expect_ridge("TRUREG", ">0", 81.54, 3.02, 40.0);
  expect_ridge("DBLDOG", ">0", 94.33, 0.94, 40.0);
}

// A parameter at its bound that is pressed on by little is no end of a ridge: a step inside rises.
TEST(Ridges, SlightlyPressedBoundIsNone)
{
  const TemporaryFile file("rational.csv",
                           "x,y\n"
                           "1.2732,0.9461\n1.4276,1.0510\n2.4218,1.2397\n3.3154,1.3307\n3.4476,1.3827\n3.5333,1.3192\n"
                           "3.5750,1.3648\n4.5946,1.3898\n5.7492,1.4939\n6.4976,1.4625\n6.7124,1.5599\n7.1739,1.4989\n"
                           "7.3984,1.5254\n7.7225,1.5808\n8.4507,1.5032\n8.7687,1.5547\n9.0072,1.6350\n9.3527,1.5887\n"
                           "9.7386,1.5160\n");
  const auto run = run_text("TORVALE DATA='" + file.path() +
                            "'; PARMS a=0.19 b=3.4 c=4 d=0.38 s2=1.57; BOUNDS c>=0, d>=0;"
                            "mu = a*(x*x + b*x)/(x*x + c*x + d); MODEL y ~ NORMAL(mu, s2); RUN;");
  EXPECT_EQ(run.outcome.exit_code, 0) << run.log;
  EXPECT_EQ(run.number("ParameterEstimates", "d", "Estimate"), 0.0);
  EXPECT_NEAR(run.number("ParameterEstimates", "a", "StandardError"), 0.0422, 1e-3);
}

// A start between 0 and the tolerance of a bound there is a start like any other, and an estimate so near its bound
// stays where it was found unless the bound is as good.
TEST(Ridges, SmallUnitsDoNotPutVariancesOnTheirBounds)
{
  const TemporaryFile file("ridge.csv", data(4));
  const std::string model = "MODEL w ~ NORMAL(b0 + b1*x + u, s2); RANDOM u ~ NORMAL(0, s2u) SUBJECT=id; RUN;";
  const auto fit = [&](const std::string& unit, const std::string& variance) {
    return run_text("TORVALE DATA='" + file.path() + "'; PARMS b0=0 b1=0 s2u=" + variance + " s2=" + variance +
                    "; BOUNDS s2u>=0, s2>=0; w = y*" + unit + "; " + model);
  };
  const auto large = fit("1", "1"), small = fit("1e-5", "1e-10");
  EXPECT_EQ(large.outcome.exit_code, 0) << large.log;
  EXPECT_EQ(small.outcome.exit_code, 0) << small.log;
  for (const std::string name : {"s2u", "s2"}) {
    const double estimate = large.number("ParameterEstimates", name, "Estimate");
    EXPECT_GT(estimate, 1.0) << name;
    EXPECT_NEAR(small.number("ParameterEstimates", name, "Estimate"), 1e-10 * estimate, 1e-13 * estimate) << name;
  }
}

// Two effects of a count that enter by their sum: points that follow each effect give the ridge a curvature, which more
// points take away.
TEST(Ridges, BrokenByThePointsOfIntegrals)
{
  std::string csv = "id,x,y,one,few\n"; // one, few: inner levels, in each subject one, or in three of them two
  const int level[] = {0, 1, 2, 3, 4, 2, 6, 1, 3, 8, 2, 1};
  for (int i = 0; i < 24; ++i)
    for (int j = 0; j < 4; ++j)
      csv += std::to_string(i) + "," + std::to_string(j) + "," + std::to_string(level[i / 2] + (i * 3 + j * 5) % 4) +
             ",0," + std::to_string(i < 3 ? j / 2 : 0) + "\n";
  const TemporaryFile file("counts.csv", csv);
  const auto fit = [&](const std::string& options, const std::string& model) {
    return run_text("TORVALE DATA='" + file.path() + "' " + options + "; " + model + " SUBJECT=id; RUN;");
  };
  const std::string two =
      "PARMS b0=1 s1=.3 s2=.2; MODEL y ~ POISSON(exp(b0+u+v)); RANDOM u v ~ NORMAL([0,0],[s1,0,s2])";
  const auto one = fit("QPOINTS=15", "PARMS b0=1 s=.3; MODEL y ~ POISSON(exp(b0+u)); RANDOM u ~ NORMAL(0,s)");
  // (QPOINTS=7 of TRUREG ends where one of them vanishes, QPOINTS=9 between the ends.)
  for (const std::string options : {"", "QPOINTS=3", "QPOINTS=5", "QPOINTS=7 TECHNIQUE=TRUREG", "QPOINTS=9"}) {
    const auto run = fit(options, two);
    EXPECT_EQ(run.outcome.exit_code, 6) << options << run.log;
    for (const char* const name : {"s1", "s2"})
      EXPECT_TRUE(std::isnan(run.number("ParameterEstimates", name, "StandardError"))) << options << name;
    EXPECT_NEAR(run.number("ParameterEstimates", "b0", "StandardError"),
                one.number("ParameterEstimates", "b0", "StandardError"), 1e-3)
        << options;
  }
  // Effects that the data tell apart stay what they are.
  const auto apart =
      fit("QPOINTS=5",
          "PARMS b0=1 s1=.3 s2=.2; MODEL y ~ POISSON(exp(b0+u+v*(x-1.5))); RANDOM u v ~ NORMAL([0,0],[s1,0,s2])");
  EXPECT_GT(apart.number("ParameterEstimates", "s1", "StandardError"), 0.0) << apart.log;
  // Nested levels are one where each subject has one of the inner ones, and two where a few have more.
  for (const auto& [inner, code] : {std::pair("one", 6), std::pair("few", 0)})
    for (const std::string options : {"QPOINTS=3", "QPOINTS=5", "QPOINTS=7 TECHNIQUE=TRUREG"}) {
      const auto run = run_text("TORVALE DATA='" + file.path() + "' " + options +
                                "; PARMS b0=1 s1=.3 s2=.2; BOUNDS s1>=0, s2>=0; MODEL y ~ POISSON(exp(b0+u+v));"
                                "RANDOM u ~ NORMAL(0,s1) SUBJECT=id; RANDOM v ~ NORMAL(0,s2) SUBJECT=" +
                                inner + "(id); RUN;");
      EXPECT_EQ(run.outcome.exit_code, code) << options << inner << run.log;
    }
}

} // namespace torvale::tests
