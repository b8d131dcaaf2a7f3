// The Hessian behind standard errors: of small models against references; where the parameters of a linear predictor
// are many and subjects small, put together subject by subject, against differences parameter by parameter.

#include "session.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <random>
#include <regex>

namespace torvale::tests {

namespace {

constexpr int covariates = 18;

// Clusters of one to four rows, in sites; a row without response, and counts about exp(0.2 + ...).
std::string clusters()
{
  std::mt19937 random(77);
  std::normal_distribution<double> normal;
  std::string csv = "site,id,y";
  for (int k = 1; k <= covariates; ++k) csv += ",x" + std::to_string(k);
  csv += "\n";
  for (int id = 1; id <= 150; ++id) {
    const double u = 0.6 * normal(random);
    for (int row = 0; row <= id % 4; ++row) {
      std::string x;
      double eta = 0.2 + u;
      for (int k = 1; k <= covariates; ++k) {
        const double v = std::round(100 * normal(random)) / 100;
        eta += 0.05 * (k % 3) * v;
        x += "," + std::to_string(v);
      }
      const int y = std::poisson_distribution<int>(std::exp(eta))(random);
      csv += std::to_string(id / 2) + "," + std::to_string(id) + "," + (id == 9 && row == 1 ? "." : std::to_string(y)) +
             x + "\n";
    }
  }
  return csv;
}

std::string covariates_fit(const std::string& options, const std::string& model, const std::string& random)
{
  std::string text = "TORVALE DATA=d GCONV=1e-12 " + options + "; PARMS b0=0", sum;
  for (int k = 1; k <= covariates; ++k) {
    text += " b" + std::to_string(k) + "=0";
    sum += " + b" + std::to_string(k) + "*x" + std::to_string(k);
  }
  return text + (random.find("s2") == std::string::npos ? "" : " s2=0.4") + "; eta = b0 + u" + sum + "; " + model +
         random + " RUN;";
}

void expect_equal_errors(const std::string& model, const std::string& random, const std::string& options,
                         double tolerance)
{
  const TemporaryFile data("d.csv", clusters());
  const auto fit = [&](const std::string& more) {
    return run_text(covariates_fit(options + more, model, random), "examples", 0, {{"d", data.path()}});
  };
  const auto own = fit(""), differences = fit(" FDHESSIAN=CENTRAL");
  ASSERT_EQ(own.outcome.exit_code, 0) << own.log;
  const auto a = own.column("ParameterEstimates", "StandardError"),
             b = differences.column("ParameterEstimates", "StandardError");
  const auto x = own.column("ParameterEstimates", "Estimate"), y = differences.column("ParameterEstimates", "Estimate");
  ASSERT_EQ(a.size(), covariates + (random.find("s2") == std::string::npos ? 1u : 2u)) << own.log;
  ASSERT_EQ(b.size(), a.size()) << differences.log;
  for (std::size_t j = 0; j < a.size(); ++j) {
    EXPECT_NEAR(a[j], b[j], tolerance * b[j]) << j;
    EXPECT_NEAR(x[j], y[j], 1e-6 * b[j]) << j;
  }
}

} // namespace

TEST(FitHessian, AdaptiveQuadrature)
{
  expect_equal_errors("mu = exp(eta); MODEL y ~ POISSON(mu);", " RANDOM u ~ NORMAL(0, s2) SUBJECT=id;", "QPOINTS=5",
                      1e-6);
}

// At the reference's own estimates, which have more digits than those of a fit.
TEST(FitHessian, SmallModels)
{
  for (const char* const name : {"theoph", "sleepstudy", "cbpp", "epil", "fixed_gamma", "nested_logit"}) {
    const auto reference =
        nlohmann::json::parse(read_text(source_file(std::string("tests/data/reference/") + name + ".json")));
    for (const auto& fit : reference["fits"]) {
      const std::string method = fit["method"];
      if (!method.starts_with("Gauss-Hermite") && !method.starts_with("closed form")) continue;
      std::string options = "TECHNIQUE=NONE", start = "PARMS";
      if (!fit["points_per_dimension"].is_null())
        options += " QPOINTS=" + std::to_string(fit["points_per_dimension"].get<int>());
      if (fit["adaptive"] == "no") options += " NOAD";
      for (const auto& [parameter, value] : fit["results"]["estimates"].items())
        start += " " + parameter + "=" + value.dump();
      SCOPED_TRACE(std::string(name) + " " + options);
      const auto run = run_text(std::regex_replace(example(name, options), std::regex("PARMS[^;]*"), start));
      for (const auto& [parameter, error] : fit["results"]["standard_errors"].items())
        EXPECT_NEAR(run.number("ParameterEstimates", parameter, "StandardError") / error.get<double>(), 1.0, 1e-8)
            << parameter;
    }
  }
}

// All parameters act through the predictor: no other one moves between the evaluations.
TEST(FitHessian, NothingButThePredictor)
{
  expect_equal_errors("mu = exp(eta); MODEL y ~ POISSON(mu);", " RANDOM u ~ NORMAL(0, 0.4) SUBJECT=id;", "QPOINTS=5",
                      1e-6);
}

// A parameter that acts beside the predictor too is none of those behind it.
TEST(FitHessian, ParametersThatActTwice)
{
  expect_equal_errors("mu = exp(eta); v = exp(b2); MODEL y ~ NORMAL(eta, v);", " RANDOM u ~ NORMAL(0, s2) SUBJECT=id;",
                      "QPOINTS=1", 1e-6);
}

TEST(FitHessian, ThreadsChangeNothing)
{
  const TemporaryFile data("d.csv", clusters());
  const std::string text = covariates_fit("QPOINTS=3", "p = 1/(1 + exp(-eta)); z = (y > 1); MODEL z ~ BINARY(p);",
                                          " RANDOM u ~ NORMAL(0, s2) SUBJECT=id;");
  const auto one = run_text(text, "examples", 1, {{"d", data.path()}}),
             three = run_text(text, "examples", 3, {{"d", data.path()}});
  EXPECT_EQ(one.column("ParameterEstimates", "StandardError"), three.column("ParameterEstimates", "StandardError"));
}

} // namespace torvale::tests
