// The mode search through the objective: closed forms, units, starts, failures.

#include "integration/kept_evaluation.h"
#include "integration/model_family.h"
#include "integration/objective.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>

namespace torvale::tests {

namespace {

// y = b0 + u + e: everything has a closed form.
ModelText random_intercept(double unit = 1.0, double offset = 0.0)
{
  auto text = regression(Response::normal, 1, 8);
  text.parameters = {"b0", "s2", "g"};
  text.prior = {Term(0.0), Term("g")};
  text.assignments[0].second = Term("b0") + "u0";
  for (double& y : text.columns[1].second) y = unit * y + offset;
  return text;
}

struct Sums {
  int n = 0;
  double sum = 0.0, square = 0.0;
};

std::map<double, Sums> residual_sums(const ModelText& text, double b0)
{
  std::map<double, Sums> sums;
  for (std::size_t r = 0; r < text.columns[0].second.size(); ++r) {
    Sums& s = sums[text.columns[0].second[r]];
    const double e = text.columns[1].second[r] - b0;
    ++s.n;
    s.sum += e;
    s.square += e * e;
  }
  return sums;
}

// Negative log density of the data: normal with compound symmetry.
double exact_objective(const ModelText& text, double b0, double s2, double g)
{
  double total = 0.0;
  for (const auto& [subject, s] : residual_sums(text, b0))
    total += 0.5 * (s.n * std::log(2 * 3.141592653589793) + (s.n - 1) * std::log(s2) + std::log(s2 + s.n * g) +
                    (s.square - g * s.sum * s.sum / (s2 + s.n * g)) / s2);
  return total;
}

} // namespace

TEST(Modes, LinearModelIsExactAtAnyNumberOfPoints)
{
  const auto text = random_intercept();
  for (const int points : {1, 2, 9}) {
    const auto n = make_run(text, {true, true, points});
    EXPECT_NEAR(objective(*n, {0.3, 0.5, 0.4}), exact_objective(text, 0.3, 0.5, 0.4), 1e-11);
    std::size_t k = 0;
    for (const auto& [subject, s] : residual_sums(text, 0.3))
      EXPECT_NEAR(n->ebtrial[k++], 0.4 * s.sum / (0.5 + s.n * 0.4), 1e-13);
  }
}

// The absolute bound of a step is below rounding for large units: the search must stop at its noise floor.
TEST(Modes, UnitsAndOffsetsDoNotMatter)
{
  for (const double unit : {1e-5, 1e3, 1e6}) // smaller ones make the variance count as zero (SINGVAR)
    for (const double offset : {0.0, 1e6 * unit}) {
      const auto text = random_intercept(unit, offset);
      const auto n = make_run(text, {true, true, 3});
      const std::vector<double> theta = {0.3 * unit + offset, 0.5 * unit * unit, 0.4 * unit * unit};
      EXPECT_NEAR(objective(*n, theta, true), exact_objective(text, theta[0], theta[1], theta[2]), 1e-6)
          << unit << " " << offset;
    }
}

// From a start far away Newton's full steps rise; with sub-steps and halvings the same mode is reached.
TEST(Modes, FarStartsReachTheSameMode)
{
  const auto text = regression(Response::poisson, 2, 12);
  const auto theta = parameters(text, 1);
  const auto n = make_run(text, {true, true, 3});
  const double value = objective(*n, theta);
  const auto modes = n->ebtrial;
  for (const double far : {5.0, -8.0, 20.0}) {
    n->ebes.assign(n->ebes.size(), far);
    n->ebes_known.assign(n->ebes_known.size(), 1);
    EXPECT_NEAR(objective(*n, theta), value, 1e-10 * std::abs(value)) << far;
    for (std::size_t k = 0; k < modes.size(); ++k) EXPECT_NEAR(n->ebtrial[k], modes[k], 1e-8);
  }
}

TEST(Modes, NoStepsFailUnlessTheLibraryHelps)
{
  const auto text = regression(Response::binary, 2, 10);
  const auto theta = parameters(text, 1);
  const auto n = make_run(text, {true, true, 3});
  const double value = objective(*n, theta);
  const auto modes = n->ebtrial;
  n->ebstep = 0;
  EXPECT_EQ(objective(*n, theta), model::failure_objective);
  EXPECT_EQ(n->slot_status[0], 358);
  n->ebopt = true;
  EXPECT_NEAR(objective(*n, theta), value, 1e-8 * std::abs(value));
  for (std::size_t k = 0; k < modes.size(); ++k) EXPECT_NEAR(n->ebtrial[k], modes[k], 1e-5);
}

// Why a mode was not found: steps used up, no shorter one that helps, the library at its end as well.
TEST(Modes, FailuresAreTold)
{
  const auto text = regression(Response::poisson, 1, 4);
  auto theta = parameters(text, 1);
  theta[0] = 1e10; // the model cannot be evaluated anywhere
  const auto status = [&](int steps, bool library) {
    const auto n = make_run(text, {true, true, 3});
    n->ebstep = steps;
    n->ebopt = library;
    EXPECT_EQ(objective(*n, theta), model::failure_objective);
    return n->slot_status[0];
  };
  EXPECT_EQ(status(50, true), 350);
  EXPECT_EQ(status(0, false), 358);
}

TEST(Modes, OnlyAcceptedPointsAreCommitted)
{
  const auto text = regression(Response::binary, 1, 5);
  const auto theta = parameters(text, 1);
  const auto n = make_run(text, {true, true, 3});
  objective(*n, theta);
  const auto trial = n->ebtrial;
  n->parm[0] += 1e-3;
  integration::accept_modes(*n); // another point: nothing happens
  EXPECT_EQ(n->ebes_known[0], 0);
  n->parm = theta;
  integration::accept_modes(*n);
  EXPECT_EQ(n->ebes, trial);
  integration::forget_modes(*n);
  EXPECT_EQ(n->ebes_known[0], 0);
}

// What an evaluation found is there again after others, with the modes that were accepted; who wants what the slots
// hold has it evaluated.
TEST(Modes, AKeptEvaluationComesBack)
{
  for (const int effects : {1, 2}) {
    const auto text = regression(Response::binary, effects, 20);
    const auto theta = parameters(text, 1);
    auto beside = theta;
    beside[0] += 0.3;
    const auto n = make_run(text, {true, true, 3});
    const double f = objective(*n, theta, true);
    const auto gradient = n->objgrad, modes = n->ebtrial;
    std::vector<double> products, later;
    ASSERT_EQ(integration::outer_products(*n, products), 0);
    integration::accept_modes(*n);
    {
      const integration::KeptEvaluation kept(*n);
      EXPECT_NE(objective(*n, beside, true), f);
      objective(*n, beside);
      EXPECT_FALSE(integration::recall_evaluation(*n));
    }
    EXPECT_EQ(n->parm, theta);
    n->dograd = true;
    n->objgrad.clear();
    n->objfun = 0.0;
    ASSERT_TRUE(integration::recall_evaluation(*n));
    EXPECT_EQ(n->objfun, f);
    EXPECT_EQ(n->objgrad, gradient);
    integration::accept_modes(*n);
    EXPECT_EQ(n->ebes, modes);
    ASSERT_EQ(integration::outer_products(*n, later), 0);
    EXPECT_EQ(later, products);
    integration::tvllike(*n);
    ASSERT_EQ(integration::outer_products(*n, later), 0);
    for (std::size_t k = 0; k < later.size(); ++k)
      EXPECT_NEAR(later[k], products[k], 1e-8 * (1 + std::abs(products[k])));
    n->parm = beside;
    EXPECT_FALSE(integration::recall_evaluation(*n));
    EXPECT_EQ(integration::outer_products(*n, later), 1) << "of another point";
  }
}

TEST(Modes, MoveWithTheParameters)
{
  for (const int effects : {1, 2, 4}) {
    const auto text = regression(Response::poisson, effects, 12);
    expect_moving_modes(text, parameters(text, 3));
  }
}

// With a gradient a search ends a step before its mode, and what is left of that step is made up for: beside points
// that are moderately far, the value is that of a search to the end, and the gradient belongs to such values.
TEST(Modes, ThatAreAStepAwayDoNotShow)
{
  for (const int effects : {1, 2, 3})
    for (const int points : {1, 3})
      for (const auto response : {Response::poisson, Response::binary}) {
        const auto text = regression(response, effects, 15);
        auto theta = parameters(text, 3);
        const auto n = make_run(text, {true, true, points}), exact = make_run(text, {true, true, points});
        objective(*n, theta, true);
        integration::accept_modes(*n);
        for (double& t : theta) t += 0.02 * (1.0 + std::abs(t));
        const double f = objective(*n, theta, true);
        const auto gradient = n->objgrad, modes = n->ebtrial;
        EXPECT_NEAR(f, objective(*exact, theta), 3e-13 * std::abs(f)) << effects << " effects, " << points << " points";
        for (std::size_t k = 0; k < modes.size(); ++k) EXPECT_NEAR(modes[k], exact->ebtrial[k], 1e-10);
        for (std::size_t j = 0; j < theta.size(); ++j) {
          auto up = theta, down = theta;
          up[j] += 1e-5;
          down[j] -= 1e-5;
          const double difference = (objective(*exact, up) - objective(*exact, down)) / 2e-5;
          EXPECT_NEAR(gradient[j], difference, 1e-6 * (1.0 + std::abs(difference))) << "parameter " << j;
        }
      }
}

} // namespace torvale::tests
