// The ways of integrating side by side on generated data: those that have the same limit agree.

#include "integration/model_family.h"
#include "integration/objective.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace torvale::tests {

namespace {

double value_of(const ModelText& text, const Rule& rule, const std::vector<double>& theta, double qtol = 1e-4)
{
  const auto n = make_run(text, rule);
  n->qtol = qtol;
  return objective(*n, theta);
}

// The family's models for first order: the names of mean and variance.
ModelText linear(int effects, int subjects)
{
  ModelText text = regression(Response::normal, effects, subjects, true);
  text.assignments.insert(text.assignments.begin() + 1, {"var", Term("s2")});
  return text;
}

} // namespace

// Where the mean is linear the integral is a normal density: one adaptive point, both first orders and the trapezoidal
// rule have it.
TEST(Methods, AgreeOnLinearModels)
{
  for (int effects = 1; effects <= 3; ++effects)
    for (unsigned seed = 1; seed <= 20; ++seed) {
      SCOPED_TRACE(testing::Message() << effects << " " << seed);
      const ModelText text = linear(effects, 3 + static_cast<int>(seed));
      const auto theta = parameters(text, seed);
      const double exact = value_of(text, {true, true, 1}, theta);
      const double limit = 1e-11 * (1.0 + std::abs(exact));
      EXPECT_NEAR(value_of(text, {true, true, 5}, theta), exact, limit);
      EXPECT_NEAR(value_of(text, {false, false, 0, 1}, theta), exact, limit);
      EXPECT_NEAR(value_of(text, {true, false, 0, 1}, theta), exact, limit);
      if (effects == 1) {
        EXPECT_NEAR(value_of(text, {true, false, 0, 2}, theta, 1e-10), exact, limit);
      }
    }
}

// Every distribution, subject by subject: the trapezoidal rule against quadrature, where 31 points and 51 agree.
TEST(Methods, QuadratureIsTheIntegral)
{
  int compared = 0;
  for (const Response response : responses)
    for (unsigned seed = 1; seed <= 18; ++seed) {
      const ModelText text = regression(response, 1, 6);
      const auto theta = parameters(text, 100 + seed);
      const auto rule = make_run(text, {true, true, 31}), finer = make_run(text, {true, true, 51});
      const auto line = make_run(text, {.adaptive = true, .adscale = false, .points = 0, .method = 2});
      line->qtol = 1e-10;
      ASSERT_LT(objective(*rule, theta), model::failure_objective);
      objective(*finer, theta);
      ASSERT_LT(objective(*line, theta), model::failure_objective) << name_of(response);
      for (std::size_t s = 0; s < rule->slot_value.size(); ++s) {
        const double v = finer->slot_value[s];
        if (std::abs(rule->slot_value[s] - v) > 1e-11 * (1.0 + std::abs(v))) continue;
        ++compared;
        EXPECT_NEAR(line->slot_value[s], v, 1e-10 * (1.0 + std::abs(v)))
            << name_of(response) << " " << seed << " " << s;
      }
    }
  EXPECT_GT(compared, 500);
}

// A discrete distribution at the points of a Gauss-Hermite rule that does not adapt is that rule: its mean is 0, so the
// derived point is the last of the rule.
TEST(Methods, SupportPointsCanBeARule)
{
  for (const Response response : {Response::binary, Response::poisson, Response::gamma}) {
    ModelText text = regression(response, 1, 30, true);
    text.prior = {Term(0.0), Term("g11")};
    const auto theta = parameters(text, 7);
    const auto rule = make_run(text, {false, false, 5});
    const double expected = objective(*rule, theta, true);
    const auto gradient = rule->objgrad;
    ModelText classes = text;
    classes.prior.clear();
    for (std::size_t t = 0; t < 4; ++t) {
      classes.prior.push_back(Term::call("sqrt", {Term(2.0) * "g11"}) * rule->absc[t]);
      classes.prior.emplace_back(std::exp(rule->herm[t]) / 1.7724538509055160273);
    }
    const auto n = make_run(classes, {.adaptive = false, .adscale = false, .points = 0, .method = 4});
    EXPECT_NEAR(objective(*n, theta, true), expected, 1e-12 * std::abs(expected));
    for (std::size_t j = 0; j < theta.size(); ++j)
      EXPECT_NEAR(n->objgrad[j], gradient[j], 1e-10 * (1.0 + std::abs(gradient[j]))) << j;
  }
}

} // namespace torvale::tests
