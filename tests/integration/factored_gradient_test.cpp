// Gradients by factors and coefficients: the same numbers as parameter by parameter, for every rule and layout of
// lanes.

#include "engine/stages/native_stage.h"
#include "integration/model_family.h"
#include "integration/objective.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace torvale::tests {

namespace {

constexpr int covariates = 5;

// The regression with more covariates in its linear predictor.
ModelText many_covariates(Response response, int effects, int subjects)
{
  auto text = regression(response, effects, subjects);
  std::mt19937 random(99);
  std::normal_distribution<double> normal;
  const std::size_t rows = text.columns.front().second.size();
  for (auto& [name, value] : text.assignments) {
    if (name != "eta") continue;
    for (int k = 0; k < covariates; ++k) {
      const std::string c = "c" + std::to_string(k), z = "z" + std::to_string(k);
      value = value + Term(c.c_str()) * Term(z.c_str());
    }
  }
  for (int k = 0; k < covariates; ++k) {
    text.parameters.push_back("c" + std::to_string(k));
    std::vector<double> z(rows);
    for (double& v : z) v = 0.5 * normal(random);
    text.columns.emplace_back("z" + std::to_string(k), z);
  }
  return text;
}

std::vector<double> with_covariates(const ModelText& text, Response response, int effects)
{
  auto theta = parameters(regression(response, effects), 1);
  while (theta.size() < text.parameters.size()) theta.push_back(0.1 * (static_cast<double>(theta.size()) - 5.0));
  return theta;
}

} // namespace

TEST(FactoredGradient, EqualsTheGradientParameterByParameter)
{
  int effects = 0;
  for (const Response response : responses) {
    effects = effects % 3 + 1;
    for (const int subjects : {5, 50})
      for (const Rule& rule : {Rule{true, true, 4}, Rule{true, false, 3}, Rule{false, false, effects == 1 ? 20 : 4}}) {
        const auto text = many_covariates(response, effects, subjects);
        const auto theta = with_covariates(text, response, effects);
        const auto n = make_run(text, rule);
        ASSERT_TRUE(n->programs.factored) << name_of(response);
        ASSERT_TRUE(n->ctx[0]->batch.factored.in_use);
        ASSERT_LT(objective(*n, theta, true), model::failure_objective);
        const double value = n->objfun;
        const auto factored = n->objgrad;
        n->programs.factored = {};
        integration::size_contexts(*n);
        EXPECT_EQ(objective(*n, theta, true), value);
        double largest = 0.0;
        for (const double g : n->objgrad) largest = std::max(largest, std::abs(g));
        for (std::size_t j = 0; j < theta.size(); ++j)
          EXPECT_NEAR(factored[j], n->objgrad[j], 1e-11 * largest)
              << name_of(response) << effects << " " << subjects << " " << rule.points << " " << text.parameters[j];
      }
  }
}

TEST(FactoredGradient, AgreesWithDifferences)
{
  const auto text = many_covariates(Response::binary, 2, 20);
  auto theta = with_covariates(text, Response::binary, 2);
  const auto n = make_run(text, {true, true, 5});
  objective(*n, theta, true);
  const auto analytic = n->objgrad;
  integration::accept_modes(*n);
  for (std::size_t j = 0; j < theta.size(); ++j) {
    const double h = 1e-3, centre = theta[j];
    const auto central = [&](double width) {
      theta[j] = centre + width;
      const double up = objective(*n, theta);
      theta[j] = centre - width;
      return (up - objective(*n, theta)) / (2.0 * width);
    };
    const double difference = (4.0 * central(h) - central(2.0 * h)) / 3.0;
    theta[j] = centre;
    EXPECT_NEAR(analytic[j], difference, 1e-7 * (1.0 + std::abs(difference))) << text.parameters[j];
  }
}

TEST(FactoredGradient, SameBitsForThreadsAndWithoutMachineCode)
{
  for (const int points : {3, 20}) {
    const auto text = many_covariates(Response::poisson, 1, 200);
    const auto theta = with_covariates(text, Response::poisson, 1);
    const auto evaluated = [&](int threads) {
      const auto n = make_run(text, {true, true, points, 0, 0, threads});
      objective(*n, theta, true);
      return n->objgrad;
    };
    const auto expected = evaluated(1);
    for (const int threads : {2, 3, 7}) EXPECT_EQ(evaluated(threads), expected) << threads;
    engine::set_native(false);
    EXPECT_EQ(evaluated(1), expected);
    engine::set_native(true);
  }
}

} // namespace torvale::tests
