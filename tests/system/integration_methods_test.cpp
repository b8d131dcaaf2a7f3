// The ways of integrating beside quadrature, against reference results.

#include "system/session.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace torvale::tests {

namespace {

using nlohmann::json;

constexpr const char* strict = " GCONV=1e-14 FCONV=0 ABSGCONV=0 MAXITER=500";

json reference_of(const std::string& name)
{
  return json::parse(read_text(source_file("tests/data/reference/" + name + ".json")));
}

void expect_start(const Run& run, const json& start)
{
  const auto objective = run.column("Parameters", "NegLogLike");
  ASSERT_EQ(objective.size(), 1u) << run.log;
  EXPECT_NEAR(objective[0], start["objective"].get<double>(), 1e-10 * std::abs(objective[0]));
  double largest = 1.0;
  for (const auto& [parameter, value] : start["gradient"].items())
    largest = std::max(largest, std::abs(value.get<double>()));
  for (const auto& [parameter, value] : start["gradient"].items())
    EXPECT_NEAR(run.number("ParameterEstimates", parameter, "Gradient"), value.get<double>(), 1e-8 * largest)
        << parameter;
}

// Limits are absolute for -2 log L, in standard errors for estimates, relative for these.
void expect_fit(const Run& run, const json& results, double loglik, double estimate, double error_limit)
{
  ASSERT_EQ(run.outcome.exit_code, 0) << run.log;
  const auto statistics = run.column("FitStatistics", "Value");
  std::size_t k = 0;
  for (const char* name : {"minus2loglik", "aic", "aicc", "bic"})
    EXPECT_NEAR(statistics[k++], results[name].get<double>(), loglik) << name;
  for (const auto& [parameter, value] : results["estimates"].items()) {
    const double error = results["standard_errors"][parameter].get<double>();
    EXPECT_NEAR(run.number("ParameterEstimates", parameter, "Estimate"), value.get<double>(), estimate * error)
        << parameter;
    EXPECT_NEAR(run.number("ParameterEstimates", parameter, "StandardError"), error, error_limit * error) << parameter;
  }
}

// Columns of numbers of a data set that is removed when the object goes.
class Output {
public:
  explicit Output(const std::string& name)
      : path_((std::filesystem::temp_directory_path() / (name + std::to_string(getpid()) + ".csv")).string())
  {
  }
  ~Output() { std::filesystem::remove(path_); }
  const std::string& path() const { return path_; }

  // Rows of fields as they stand; the first are the names.
  std::vector<std::vector<std::string>> rows() const
  {
    std::vector<std::vector<std::string>> result;
    std::ifstream file(path_);
    for (std::string line; std::getline(file, line);) {
      auto& fields = result.emplace_back();
      std::istringstream in(line + ",");
      for (std::string field; std::getline(in, field, ',');) fields.push_back(field);
    }
    return result;
  }

private:
  std::string path_;
};

} // namespace

TEST(SupportPointMethod, AgreesWithTheReference)
{
  const json reference = reference_of("mixture_logit");
  expect_start(run_text(example("mixture_logit", "TECHNIQUE=NONE")), reference["at_start"][0]);
  const auto& results = reference["fits"][0]["results"];
  const auto run = run_text(example("mixture_logit", ""));
  expect_fit(run, results, 2e-5, 0.01, 0.01);
  EXPECT_EQ(run.table("Dimensions")->rows().size(), 6u); // no row of quadrature points
  expect_fit(run_text(example("mixture_logit", strict)), results, 2e-8, 1e-5, 1e-4);
  expect_fit(run_text(example("mixture_logit", " FD")), results, 2e-5, 0.01, 0.01);
}

TEST(SupportPointMethod, PosteriorsAgreeWithTheReference)
{
  const auto posteriors = reference_of("mixture_logit")["fits"][0]["posterior"];
  for (const char* options : {"", " FD=CENTRAL"}) {
    const Output probabilities("probabilities"), effects("effects");
    std::string program = example("mixture_logit", options + std::string(strict));
    program.insert(program.find("SUBJECT=id") + 10,
                   " OUTP='" + probabilities.path() + "' OUT='" + effects.path() + "'");
    ASSERT_EQ(run_text(program).outcome.exit_code, 0);
    const auto p = probabilities.rows(), u = effects.rows();
    ASSERT_EQ(p.size(), 1 + 2 * posteriors.size());
    ASSERT_EQ(u.size(), 1 + posteriors.size());
    const double limit = *options == '\0' ? 1e-7 : 1e-5;
    for (std::size_t s = 0; s < posteriors.size(); ++s) {
      const auto& subject = posteriors[s];
      for (std::size_t t = 0; t < 2; ++t) { // id, Point, Estimate, StdErrPred
        EXPECT_NEAR(std::stod(p[1 + 2 * s + t][2]), subject["probabilities"][t].get<double>(), limit) << s;
        EXPECT_NEAR(std::stod(p[1 + 2 * s + t][3]), subject["standard_errors"][t].get<double>(), 10 * limit) << s;
      }
      EXPECT_NEAR(std::stod(u[1 + s][2]), subject["posterior_mean"]["z"].get<double>(), 10 * limit)
          << s; // id, Effect, Estimate
      EXPECT_NEAR(std::stod(u[1 + s][3]), subject["prediction_standard_error"]["z"].get<double>(), 10 * limit) << s;
    }
  }
}

// What cannot be: a probability that is impossible, another method beside the distribution, effects of the wrong kind.
TEST(SupportPointMethod, SaysWhatCannotBe)
{
  const auto with = [](const std::string& from, const std::string& to, const char* options = "") {
    std::string program = example("mixture_logit", options);
    program.replace(program.find(from), from.size(), to);
    return run_text(program);
  };
  EXPECT_TRUE(with("[z1, p1]", "[z1, p1 - 0.5]").said(503, 131));
  EXPECT_TRUE(with("[z1, p1]", "[z1, p1, 0.5]").said(503, 334));
  EXPECT_NE(with("z1", "z1", "METHOD=ISAMP").outcome.exit_code, 0);
  EXPECT_NE(with("z1", "z1", "METHOD=HARDY").outcome.exit_code, 0);
}

} // namespace torvale::tests
