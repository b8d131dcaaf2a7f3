// Whole fits from the shipped starting values against reference estimates, with the default criteria and with strict
// ones.

#include "system/session.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace torvale::tests {

namespace {

struct Bars {
  const char* options;   // convergence criteria
  double loglik;         // absolute, of -2 log likelihood
  double estimate;       // in standard errors
  double standard_error; // relative
};

// What a confirmed minimum promises: a gain of 1e-6 at most, estimates within a thousandth of their standard errors.
constexpr Bars default_bars{"", 1e-6, 1e-3, 2e-3};
constexpr Bars strict_bars{"GCONV=1e-14 FCONV=0 ABSGCONV=0 MAXITER=500", 2e-5, 1e-5, 1e-4};

class ReferenceFits : public testing::TestWithParam<const char*> {};

void compare(const std::string& name, const nlohmann::json& fit, const Bars& bars)
{
  std::string options = bars.options;
  if (!fit["points_per_dimension"].is_null())
    options += " QPOINTS=" + std::to_string(fit["points_per_dimension"].get<int>());
  if (fit["adaptive"] == "no") options += " NOAD";
  SCOPED_TRACE(name + " " + options);
  const auto run = run_text(example(name, options));
  ASSERT_EQ(run.outcome.exit_code, 0) << run.log;
  const auto statistics = run.column("FitStatistics", "Value");
  ASSERT_EQ(statistics.size(), 4u);
  const auto& results = fit["results"];
  EXPECT_NEAR(statistics[0], results["minus2loglik"].get<double>(), bars.loglik);
  EXPECT_NEAR(statistics[1], results["aic"].get<double>(), bars.loglik);
  EXPECT_NEAR(statistics[2], results["aicc"].get<double>(), bars.loglik);
  EXPECT_NEAR(statistics[3], results["bic"].get<double>(), bars.loglik);
  for (const auto& [parameter, value] : results["estimates"].items()) {
    const double error = results["standard_errors"][parameter].get<double>();
    EXPECT_NEAR(run.number("ParameterEstimates", parameter, "Estimate"), value.get<double>(), bars.estimate * error)
        << parameter;
    EXPECT_NEAR(run.number("ParameterEstimates", parameter, "StandardError"), error, bars.standard_error * error)
        << parameter;
  }
}

TEST_P(ReferenceFits, AgreesWithTheReference)
{
  const std::string name = GetParam();
  const auto reference = nlohmann::json::parse(read_text(source_file("tests/data/reference/" + name + ".json")));
  for (const auto& fit : reference["fits"]) {
    const std::string method = fit["method"];
    if (!method.starts_with("Gauss-Hermite") && !method.starts_with("closed form")) continue;
    if (name == "orange" && fit["adaptive"] == "no") continue; // many local minima: only its evaluation is compared
    compare(name, fit, default_bars);
    compare(name, fit, strict_bars);
  }
}

// Printed digits are those of the minimum, however a technique comes near it.
TEST(ReferenceFit, TechniquesEndAtTheSameDigits)
{
  const auto reference = nlohmann::json::parse(read_text(source_file("tests/data/reference/cbpp.json")));
  for (const auto* technique : {"CONGRA", "DBLDOG", "TRUREG", "NRRIDG", "NMSIMP"}) {
    const std::string options = std::string("TECHNIQUE=") + technique;
    compare("cbpp", reference["fits"][1], {options.c_str(), 1e-6, 1e-3, 2e-3});
  }
}

INSTANTIATE_TEST_SUITE_P(Models, ReferenceFits,
                         testing::Values("theoph", "orange", "sleepstudy", "cbpp", "epil", "fixed_gamma",
                                         "fixed_negbin", "fixed_poisson", "fixed_t4", "nested_linear", "nested_logit",
                                         "nested_count"),
                         [](const auto& tested) { return std::string(tested.param); });

} // namespace

} // namespace torvale::tests
