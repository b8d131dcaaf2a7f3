// The objective and its gradient at the starting values, for every model, rule and number of points of the reference
// results.

#include "system/session.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace torvale::tests {

namespace {

// The options that select a rule of the reference; empty for rules that the program does not have.
std::string rule_options(const std::string& scale)
{
  if (scale == "inverse Hessian at the mode, lower Cholesky") return " ";
  if (scale.starts_with("points centred at the mode, scaled by the lower Cholesky factor of G")) return "NOADSCALE";
  if (scale.starts_with("points centred at zero")) return "NOAD";
  return "";
}

class ReferenceEvaluation : public testing::TestWithParam<const char*> {};

TEST_P(ReferenceEvaluation, ObjectiveAndGradientAtTheStart)
{
  const std::string name = GetParam();
  const auto reference = nlohmann::json::parse(read_text(source_file("tests/data/reference/" + name + ".json")));
  int compared = 0;
  for (const auto& entry : reference["at_start"]) {
    if (entry["method"] != "quadrature") continue;
    std::string options = "TECHNIQUE=NONE";
    if (!entry["scale"].is_null()) {
      const std::string rule = rule_options(entry["scale"]);
      if (rule.empty()) continue;
      options += " " + rule + " QPOINTS=" + std::to_string(entry["points_per_dimension"].get<int>());
    }
    SCOPED_TRACE(name + " " + options);
    const auto run = run_text(example(name, options));
    const auto objective = run.column("Parameters", "NegLogLike");
    ASSERT_EQ(objective.size(), 1u) << run.log;
    EXPECT_NEAR(objective[0], entry["objective"].get<double>(), 1e-10 * std::abs(entry["objective"].get<double>()));
    double largest = 0.0;
    for (const auto& [parameter, value] : entry["gradient"].items())
      largest = std::max(largest, std::abs(value.get<double>()));
    for (const auto& [parameter, value] : entry["gradient"].items())
      EXPECT_NEAR(run.number("ParameterEstimates", parameter, "Gradient"), value.get<double>(),
                  1e-8 * std::max(1.0, largest))
          << parameter;
    ++compared;
  }
  EXPECT_GT(compared, 0);
}

INSTANTIATE_TEST_SUITE_P(Models, ReferenceEvaluation,
                         testing::Values("theoph", "orange", "sleepstudy", "cbpp", "epil", "fixed_gamma",
                                         "fixed_negbin", "fixed_poisson", "fixed_t4", "nested_linear",
                                         "nested_logit", "nested_count"),
                         [](const auto& tested) { return std::string(tested.param); });

} // namespace

} // namespace torvale::tests
