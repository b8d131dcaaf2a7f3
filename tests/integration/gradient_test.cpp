// The analytic gradient of the integrated objective against differences of its values.

#include "integration/model_family.h"
#include "integration/objective.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>

namespace torvale::tests {

namespace {

// Central differences at three widths, extrapolated: error of order h^6.
std::vector<double> difference_gradient(model::NX& n, const std::vector<double>& theta)
{
  std::vector<double> g;
  const auto central = [&](std::size_t j, double h) {
    auto at = theta;
    at[j] = theta[j] + h;
    const double up = objective(n, at);
    at[j] = theta[j] - h;
    return (up - objective(n, at)) / (2.0 * h);
  };
  for (std::size_t j = 0; j < theta.size(); ++j) {
    const double h = 2e-3 * (0.1 + std::abs(theta[j]));
    const double wide = central(j, 2.0 * h), middle = central(j, h), narrow = central(j, h / 2.0);
    const double outer = (4.0 * middle - wide) / 3.0, inner = (4.0 * narrow - middle) / 3.0;
    g.push_back((16.0 * inner - outer) / 15.0);
  }
  return g;
}

void expect_gradient(const ModelText& text, const Rule& rule, const std::vector<double>& theta, const std::string& what, double limit = 1e-6)
{
  const auto n = make_run(text, rule);
  ASSERT_LT(objective(*n, theta, true), model::failure_objective) << what;
  const auto analytic = n->objgrad;
  integration::accept_modes(*n);
  const auto difference = difference_gradient(*n, theta);
  double largest = 0.0;
  for (const double g : difference) largest = std::max(largest, std::abs(g));
  for (std::size_t j = 0; j < theta.size(); ++j)
    EXPECT_NEAR(analytic[j], difference[j], limit * std::max(std::abs(difference[j]), 0.01 * largest)) << what << ", " << text.parameters[j];
}

struct Case {
  Response response;
  int effects;
};

class Gradients : public testing::TestWithParam<Case> {};

} // namespace

TEST_P(Gradients, AgreesWithDifferencesForEveryRule)
{
  const auto [response, effects] = GetParam();
  const auto text = regression(response, effects);
  const int points = effects == 3 ? 3 : 5;
  const std::pair<const char*, Rule> rules[] = {
      {"adaptive", {true, true, points}}, {"fixed scale", {true, false, points}}, {"not adaptive", {false, false, points}}};
  for (const auto& [name, rule] : rules)
    for (const unsigned seed : {1u, 2u})
      expect_gradient(text, rule, parameters(text, seed), std::string(name_of(response)) + " " + name);
}

INSTANTIATE_TEST_SUITE_P(Models, Gradients,
                         testing::ValuesIn([] {
                           std::vector<Case> cases;
                           for (const Response r : responses)
                             for (int effects = 1; effects <= 3; ++effects) cases.push_back({r, effects});
                           return cases;
                         }()),
                         [](const auto& instance) { return std::string(name_of(instance.param.response)) + std::to_string(instance.param.effects); });

// Two and three nested levels.
class NestedGradients : public testing::TestWithParam<Response> {};

TEST_P(NestedGradients, AgreeWithDifferencesForEveryRule)
{
  for (const int depth : {2, 3}) {
    const auto text = nested(GetParam(), depth);
    const std::pair<const char*, Rule> rules[] = {{"adaptive", {true, true, 3}},
                                                  {"one point", {true, true, 1}},
                                                  {"fixed scale", {true, false, 3}},
                                                  {"not adaptive", {false, false, 3}}};
    for (const auto& [name, rule] : rules)
      expect_gradient(text, rule, parameters(text, 1), std::string(name) + " " + std::to_string(depth), 1e-7);
  }
}

INSTANTIATE_TEST_SUITE_P(Models, NestedGradients, testing::ValuesIn(responses),
                         [](const auto& instance) { return std::string(name_of(instance.param)); });

TEST(NestedGradientCorners, SingularCovarianceAtEitherLevel)
{
  auto outer = nested(Response::poisson, 3);
  outer.parameters = {"b0", "b1", "s2", "mu0", "a", "c", "g33", "g44"};
  outer.levels[0].prior = {Term("mu0"), Term(0.0), Term("a") * "a", Term("a") * "c", Term("c") * "c"};
  auto inner = nested(Response::poisson, 3);
  inner.parameters = {"b0", "b1", "s2", "mu0", "g11", "g21", "g22", "g44"};
  inner.levels[1].prior = {Term("b1") * 0.2, Term(0.0)};
  for (const Rule& rule : {Rule{true, true, 3}, Rule{true, false, 3}, Rule{false, false, 3}}) {
    expect_gradient(outer, rule, {0.2, 0.3, 0.6, 0.1, 0.7, 0.4, 0.3, 0.2}, "perfect correlation", 1e-7);
    expect_gradient(inner, rule, {0.2, 0.3, 0.6, 0.1, 0.5, 0.1, 0.4, 0.2}, "a level without variance", 1e-7);
  }
}

// Arguments that differ between subjects, at both levels; many points of a leaf, taken in chunks.
TEST(NestedGradientCorners, ArgumentsThatReadDataAndChunksOfPoints)
{
  auto text = nested(Response::gamma, 2);
  auto group = text.columns[0];
  group.first = "group";
  for (double& g : group.second) g = static_cast<int>(g) % 2;
  text.columns.push_back(group);
  text.levels[0].prior[2] = Term("g11") * exp(Term("b1") * "group");
  text.levels[1].prior = {Term("mu0") * "group", Term("g33") * exp(Term("b0") * "group")};
  expect_gradient(text, {true, true, 3}, parameters(text, 2), "by group");
  auto two = nested(Response::poisson, 2);
  two.levels = {{"subject", {"u0"}, {Term("mu0"), Term("g11")}},
                {"inner", {"u1", "v0"}, {Term(0.0), Term("b1") * 0.2, Term("g22"), Term("g21"), Term("g33")}}};
  expect_gradient(two, {true, true, 17}, parameters(two, 2), "289 points of a leaf");
}

TEST(GradientCorners, OnePointManyPointsAndImportanceSampling)
{
  const auto text = regression(Response::poisson, 2);
  const auto theta = parameters(text, 5);
  expect_gradient(text, {true, true, 1}, theta, "one point");
  expect_gradient(text, {true, true, 19}, theta, "points in several chunks");
  expect_gradient(text, {true, true, 40, 3}, theta, "importance sampling");
  expect_gradient(text, {false, false, 40, 3}, theta, "importance sampling, not adaptive");
}

// Correlation one: G is singular along a curve in the parameters. Values and gradients stay on it.
TEST(GradientCorners, SingularCovariance)
{
  auto text = regression(Response::binomial, 2);
  text.parameters = {"b0", "b1", "s2", "mu0", "a", "c"};
  text.prior = {Term("mu0"), Term(0.0), Term("a") * "a", Term("a") * "c", Term("c") * "c"};
  for (const Rule& rule : {Rule{true, true, 5}, Rule{true, false, 5}, Rule{false, false, 5}})
    expect_gradient(text, rule, {0.2, 0.3, 0.6, 0.1, 0.8, 0.5}, "perfect correlation");

  // The same model with the one effect that is left.
  auto one = text;
  one.effects = {"u0"};
  one.prior = {Term("mu0"), Term("a") * "a"};
  one.assignments[0].second = Term("b0") + "u0" + (Term("b1") + (Term("u0") - "mu0") * "c" / "a") * "x";
  const auto whole = make_run(text, {true, true, 31}), reduced = make_run(one, {true, true, 31});
  const std::vector<double> theta = {0.2, 0.3, 0.6, 0.1, 0.8, 0.5};
  EXPECT_NEAR(objective(*whole, theta), objective(*reduced, theta), 1e-9);
}

// An effect with variance 0 is a constant.
TEST(GradientCorners, EffectWithoutVariance)
{
  const auto text = regression(Response::normal, 2), small = regression(Response::normal, 1);
  auto one = small;
  one.columns = text.columns;
  const auto with = make_run(text, {true, true, 7}), without = make_run(one, {true, true, 7});
  EXPECT_NEAR(objective(*with, {0.2, 0.3, 0.6, 0.1, 0.5, 0.0, 0.0}), objective(*without, {0.2, 0.3, 0.6, 0.1, 0.5}), 1e-10);
}

// By a direction in which G has no variance the gradient is the derivative from inside, of the rule in use.
struct Corner {
  const char* what;
  std::vector<double> theta;
  std::size_t variance;
};

void expect_one_sided(const ModelText& text, const Rule& rule, const Corner& corner)
{
  const auto n = make_run(text, rule);
  const double f = objective(*n, corner.theta, true), analytic = n->objgrad[corner.variance];
  integration::accept_modes(*n);
  const double h = std::min(1e-4, 0.02 / std::abs(analytic));
  const auto change = [&](double step) {
    auto at = corner.theta;
    at[corner.variance] += step;
    return objective(*n, at) - f;
  };
  const double inside = (8.0 * (4.0 * change(h / 4) - change(h / 2)) - (4.0 * change(h / 2) - change(h))) / (3.0 * h);
  EXPECT_NEAR(analytic, inside, 1e-5 * std::max(1.0, std::abs(inside))) << corner.what;
}

TEST(GradientCorners, OneSidedWhereThereIsNoVariance)
{
  const Corner corners[] = {{"second effect absent", {0.2, 0.3, 0.6, 0.1, 0.5, 0.0, 0.0}, 6},
                            {"first effect absent", {0.2, 0.3, 0.6, 0.1, 0.0, 0.0, 0.3}, 4},
                            {"no effect", {0.2, 0.3, 0.6, 0.1, 0.0, 0.0, 0.0}, 4},
                            {"correlation one", {0.2, 0.3, 0.6, 0.1, 0.64, 0.4, 0.25}, 6}};
  for (const Response response : {Response::poisson, Response::normal, Response::binomial})
    for (const Rule& rule : {Rule{true, true, 5}, Rule{true, true, 1}, Rule{true, false, 5}, Rule{false, false, 5}})
      for (const Corner& corner : corners) expect_one_sided(regression(response, 2), rule, corner);
}

TEST(NestedGradientCorners, OneSidedWhereThereIsNoVariance)
{
  const Corner corners[] = {{"middle level absent", {0.2, 0.3, 0.6, 0.1, 0.5, 0.1, 0.3, 0.0, 0.2}, 7},
                            {"leaves absent", {0.2, 0.3, 0.6, 0.1, 0.5, 0.1, 0.3, 0.4, 0.0}, 8},
                            {"second outer effect absent", {0.2, 0.3, 0.6, 0.1, 0.5, 0.0, 0.0, 0.4, 0.2}, 6},
                            {"no effect, middle", {0.2, 0.3, 0.6, 0.1, 0.0, 0.0, 0.0, 0.0, 0.0}, 7},
                            {"no effect, outer", {0.2, 0.3, 0.6, 0.1, 0.0, 0.0, 0.0, 0.0, 0.0}, 4}};
  for (const Response response : {Response::poisson, Response::normal})
    for (const Rule& rule : {Rule{true, true, 3}, Rule{true, true, 1}, Rule{true, false, 3}, Rule{false, false, 3}})
      for (const Corner& corner : corners) expect_one_sided(nested(response, 3), rule, corner);
}

// Counts that are nearly all 0 know next to nothing of their effect, which acts exponentially all the same.
TEST(GradientCorners, OneSidedWhereAnEffectActsStronglyAndIsHardlyKnown)
{
  auto text = regression(Response::poisson, 1);
  for (auto& column : text.columns)
    if (column.first == "y") std::fill(column.second.begin(), column.second.end(), 0.0);
  const std::vector<double> theta = {-9.0, 0.0, 0.6, 0.0, 0.0};
  for (const Rule& rule : {Rule{true, true, 7}, Rule{true, true, 1}, Rule{false, false, 7}}) {
    const auto n = make_run(text, rule);
    const double f = objective(*n, theta, true);
    EXPECT_NEAR(n->objgrad[0], f, 1e-9 * f);       // by the intercept
    EXPECT_NEAR(n->objgrad[4], 0.5 * f, 1e-3 * f); // by the variance
  }
}

// At no variance at all the integral is known: -1/2 sum over subjects of (sum ll_u)^2 + sum ll_uu at the mean.
TEST(GradientCorners, DerivativeAtNoVarianceIsTheScoreStatistic)
{
  const auto text = regression(Response::poisson, 1);
  const auto column = [&](const char* name) {
    for (const auto& c : text.columns)
      if (c.first == name) return c.second;
    return std::vector<double>();
  };
  const auto subject = column("subject"), x = column("x"), y = column("y");
  std::map<double, std::pair<double, double>> sums;
  for (std::size_t i = 0; i < y.size(); ++i) {
    const double mu = std::exp(0.2 + 0.1 + 0.3 * x[i]);
    sums[subject[i]].first += y[i] - mu;
    sums[subject[i]].second -= mu;
  }
  double score = 0.0;
  for (const auto& [id, s] : sums) score -= 0.5 * (s.first * s.first + s.second);
  for (const Rule& rule : {Rule{true, true, 9}, Rule{true, true, 1}, Rule{true, false, 9}, Rule{false, false, 9}}) {
    const auto n = make_run(text, rule);
    objective(*n, {0.2, 0.3, 0.6, 0.1, 0.0}, true);
    EXPECT_NEAR(n->objgrad[4], score, 1e-3 * std::abs(score));
  }
}

// Distribution arguments that differ between subjects take the other way through the priors.
TEST(GradientCorners, ArgumentsThatReadData)
{
  auto text = regression(Response::gamma, 1);
  auto group = text.columns[0];
  group.first = "group";
  for (double& g : group.second) g = static_cast<int>(g) % 2;
  text.columns.push_back(group);
  text.parameters.push_back("d");
  text.prior = {Term("mu0") + Term("d") * "group", Term("g11") * exp(Term("d") * "group")};
  for (const Rule& rule : {Rule{true, true, 5}, Rule{true, false, 5}, Rule{false, false, 5}})
    expect_gradient(text, rule, {0.2, 0.3, 0.6, 0.1, 0.5, 0.4}, "variance by group");
}

TEST(GradientCorners, WithoutRandomEffects)
{
  auto text = regression(Response::poisson, 1, 40);
  text.effects.clear();
  text.prior.clear();
  text.parameters = {"b0", "b1"};
  text.assignments[0].second = Term("b0") + Term("b1") * "x";
  expect_gradient(text, {false, false, 1}, {0.2, 0.3}, "regression");
}

} // namespace torvale::tests
