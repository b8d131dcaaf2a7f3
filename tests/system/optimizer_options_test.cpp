// Options of the optimizer: what is ignored or refused is told, and no combination of technique, derivatives and tables
// lacks the arrays that it works with.

#include "system/session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace torvale::tests {

TEST(OptimizerOptions, WhatIsIgnoredOrRefusedIsTold)
{
  struct Case {
    const char* options;
    int group, number, exit_code;
  };
  for (const Case& c :
       {Case{"TECHNIQUE=NRLINS", 352, 456, 0}, Case{"UPDATE=PB", 352, 463, 3},
        Case{"TECHNIQUE=DBLDOG UPDATE=PB", 352, 464, 3}, Case{"TECHNIQUE=CONGRA UPDATE=DBFGS", 352, 465, 3},
        Case{"TECHNIQUE=TRUREG UPDATE=DBFGS", 352, 466, 0}, Case{"HESCAL=2", 352, 467, 0},
        Case{"LCDEACT=0.5", 352, 468, 0}, Case{"TECHNIQUE=TRUREG LINESEARCH=3", 352, 469, 0},
        Case{"FD GRADCHECK", 352, 471, 0}, Case{"FD=CENTRAL FDHESSIAN=CENTRAL", 352, 472, 0},
        Case{"MINITER=7 MAXITER=3", 503, 330, 0}, Case{"TECHNIQUE=NEWRAP MAXFUNC=20", 503, 9400, 0}}) {
    const auto run = run_text(example("orange", c.options));
    EXPECT_TRUE(run.said(c.group, c.number)) << c.options << "\n" << run.log;
    EXPECT_EQ(run.outcome.exit_code, c.exit_code) << c.options << "\n" << run.log;
  }
}

// Forms of the covariance that a fit does not have leave it without errors, however the fit ended.
TEST(OptimizerOptions, FormsOfTheCovarianceThatAreNotThere)
{
  for (const std::string end : {"", "GCONV=0.1"}) {
    const auto run = run_text(example("cbpp", "QPOINTS=3 COVARIANCE=M " + end));
    EXPECT_EQ(run.outcome.exit_code, 6) << end << run.log;
    for (const double error : run.column("ParameterEstimates", "StandardError")) EXPECT_TRUE(std::isnan(error)) << end;
  }
}

// J and B divide the inverse Hessian by the number of observations, and say so; CFACTOR= stands in its place.
TEST(OptimizerOptions, DividedCovarianceIsTold)
{
  const auto whole = run_text(example("cbpp", "QPOINTS=3")),
             divided = run_text(example("cbpp", "QPOINTS=3 COVARIANCE=J")),
             factor = run_text(example("cbpp", "QPOINTS=3 COVARIANCE=B CFACTOR=1"));
  const double observations = 56.0;
  const auto error = [](const auto& run) { return run.column("ParameterEstimates", "StandardError").at(0); };
  EXPECT_TRUE(divided.said(503, 9453) && !whole.said(503, 9453) && !factor.said(503, 9453));
  EXPECT_NEAR(error(divided) * std::sqrt(observations), error(whole), 1e-6 * error(whole));
  EXPECT_NEAR(error(factor), error(whole), 1e-6 * error(whole));
}

// With a diagonal Hessian every error is that of the parameter's own curvature.
TEST(OptimizerOptions, DiagonalHessianHasTheCurvatures)
{
  const auto whole = run_text(example("cbpp", "QPOINTS=3 GCONV=1e-12 HESSIAN"));
  const auto diagonal = run_text(example("cbpp", "QPOINTS=3 GCONV=1e-12 DIAHES"));
  const auto errors = diagonal.column("ParameterEstimates", "StandardError");
  const auto names = whole.table("Hessian");
  ASSERT_NE(names, nullptr) << whole.log;
  for (std::size_t i = 0; i < errors.size(); ++i) {
    const std::string& parameter = *names->rows()[i][1].text();
    const double curvature = whole.column("Hessian", parameter)[i];
    EXPECT_NEAR(errors[i] * std::sqrt(curvature), 1.0, 1e-3) << parameter;
  }
}

// Of FD= and FDHESSIAN= the second counts, and the fit is the one with analytic gradients.
TEST(OptimizerOptions, GradientsAreAnalyticBesideDifferencesOfThem)
{
  const auto both = run_text(example("orange", "FD=CENTRAL FDHESSIAN=CENTRAL"));
  const auto one = run_text(example("orange", "FDHESSIAN=CENTRAL"));
  EXPECT_EQ(both.column("ParameterEstimates", "Estimate"), one.column("ParameterEstimates", "Estimate"));
  EXPECT_EQ(both.column("IterHistory", "Calls"), one.column("IterHistory", "Calls"));
}

// The outer products of the subjects' gradients are there already: no Hessian by differences before the first step.
TEST(OptimizerOptions, StartMetricCostsNoCalls)
{
  const auto plain = run_text(example("epil", "")), hessian = run_text(example("epil", "INHESSIAN"));
  const auto estimates = plain.column("ParameterEstimates", "Estimate"),
             errors = plain.column("ParameterEstimates", "StandardError"),
             others = hessian.column("ParameterEstimates", "Estimate");
  const auto parameters = static_cast<double>(estimates.size());
  EXPECT_LT(plain.column("IterHistory", "Calls").front(), parameters);
  EXPECT_GT(hessian.column("IterHistory", "Calls").front(), parameters);
  for (std::size_t k = 0; k < estimates.size(); ++k) EXPECT_NEAR(estimates[k], others[k], 0.02 * errors[k]) << k;
}

// The Hessian at the start, or as the metric of a continued run, is nothing that the technique itself may have.
TEST(OptimizerOptions, HessiansThatATechniqueDoesNotKeep)
{
  for (const char* options :
       {"START HESS TECHNIQUE=CONGRA", "PALL TECHNIQUE=NMSIMP", "PALL TECHNIQUE=NMSIM2", "PALL TECHNIQUE=DBLDOG",
        "PALL FD", "INHESSIAN=2 EMPIRICAL", "INHESSIAN=2 TECHNIQUE=QUANEW UPDATE=BFGS"}) {
    const auto run = run_text(example("sleepstudy", options));
    EXPECT_NE(run.table("ParameterEstimates"), nullptr) << options << "\n" << run.log;
    const bool asked = std::string(options).find("INHESSIAN") == std::string::npos;
    EXPECT_EQ(run.table("StartingHessian") != nullptr, asked) << options << "\n" << run.log;
  }
  for (const char* options : {"FD", "FD=CENTRAL", "FD=FORWARD"}) {
    const auto run = run_text(example("sleepstudy", options));
    EXPECT_EQ(run.outcome.exit_code, 0) << options << "\n" << run.log;
    EXPECT_NEAR(run.column("FitStatistics", "Value")[0], 1751.93934, 1e-4) << options;
  }
}

// A fit of several runs of the optimizer is one fit: its counts never fall back.
TEST(OptimizerOptions, CallsNeverFallBack)
{
  const auto run = run_text("TORVALE DATA=sleepstudy; PARMS b0=0 b1=0 s2u=100 s2=1; BOUNDS s2u > 0, s2 > 0;"
                            "MODEL reaction ~ NORMAL(b0 + u + b1*days, s2); RANDOM u ~ NORMAL(0, s2u) SUBJECT=subject;"
                            "RUN;");
  for (const char* column : {"Calls", "Iter"}) {
    const auto counts = run.column("IterHistory", column);
    EXPECT_TRUE(std::is_sorted(counts.begin(), counts.end())) << column << "\n" << run.listing;
  }
}

// A limit is one cause and one warning; a fit that has nothing left to gain before MINITER= says so.
TEST(OptimizerOptions, LimitsAreToldOnce)
{
  const auto limit = run_text(example("sleepstudy", "MAXITER=2"));
  EXPECT_TRUE(limit.said(549, 605)) << limit.log;
  EXPECT_FALSE(limit.said(549, 4)) << limit.log;
  const auto least = run_text(example("fixed_poisson", "MINITER=40"));
  EXPECT_EQ(least.outcome.exit_code, 0) << least.log;
  EXPECT_TRUE(least.said(503, 9417)) << least.log;
  EXPECT_FALSE(run_text(example("fixed_poisson", "MINITER=2")).said(503, 9417));
}

// Results that depend on the seed show it, and a seed of the clock is told; the others do not.
TEST(OptimizerOptions, SeedsOfTheClockAreTold)
{
  const std::string data = "TORVALE DATA=quine", draw = "noise = UNIFORM(0); ",
                    model = "PARMS b0=2; MODEL days ~ POISSON(EXP(b0)); RUN;";
  const auto draws = run_text(data + "; " + draw + model), plain = run_text(data + "; " + model),
             given = run_text(data + " SEED=5; " + draw + model);
  EXPECT_TRUE(draws.said(503, 9303)) << draws.log;
  EXPECT_TRUE(draws.outcome.results.steps.at(0).seed.has_value());
  EXPECT_FALSE(plain.said(503, 9303) || given.said(503, 9303));
  EXPECT_FALSE(plain.outcome.results.steps.at(0).seed.has_value());
}

} // namespace torvale::tests
