// The log posterior of parameters and random effects: its value against the prior and the likelihood worked out apart,
// its derivatives against differences, one form of the effects against the other.

#include "integration/model_family.h"
#include "integration/objective.h"
#include "sampling/log_posterior.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace torvale::tests {

namespace {

std::vector<double> some_effects(const model::NX& n, unsigned seed)
{
  std::mt19937 random(seed);
  std::normal_distribution<double> normal;
  std::vector<double> u(n.leaf().SubInfo.size() * static_cast<std::size_t>(n.leaf().nr));
  for (double& x : u) x = 0.5 * normal(random);
  return u;
}

} // namespace

TEST(LogPosterior, DerivativesAreThoseOfTheValue)
{
  for (const Response response : responses)
    for (int effects = 1; effects <= 3; ++effects)
      for (const auto form : {sampling::EffectForm::plain, sampling::EffectForm::standard}) {
        const auto text = regression(response, effects);
        const auto n = make_run(text, {.points = 1});
        sampling::LogPosterior posterior(*n, form);
        auto theta = parameters(text, 8);
        auto u = some_effects(*n, 9);
        std::vector<double> by_theta(theta.size()), by_u(u.size()), value(n->leaf().SubInfo.size());
        const double at = posterior.gradient(0, theta.data(), u.data(), by_theta.data(), by_u.data());
        ASSERT_GT(at, sampling::impossible);
        EXPECT_NEAR(posterior.values(0, theta.data(), u.data(), value.data()), at, 1e-12 * std::abs(at));
        const auto difference = [&](double& x) {
          const double x0 = x, h = 1e-4 * (0.1 + std::abs(x));
          const auto moved = [&](double step) {
            x = x0 + step;
            const double v = posterior.values(0, theta.data(), u.data(), value.data());
            x = x0;
            return v;
          };
          return (4.0 * (moved(h / 2) - moved(-h / 2)) / h - (moved(h) - moved(-h)) / (2 * h)) / 3.0;
        };
        for (std::size_t j = 0; j < theta.size(); ++j) {
          const double d = difference(theta[j]);
          EXPECT_NEAR(by_theta[j], d, 1e-7 * (1.0 + std::abs(d)))
              << name_of(response) << effects << " " << text.parameters[j];
        }
        for (std::size_t k = 0; k < u.size(); k += 3) {
          const double d = difference(u[k]);
          EXPECT_NEAR(by_u[k], d, 1e-7 * (1.0 + std::abs(d))) << name_of(response) << effects << " effect " << k;
        }
      }
}

// u = m + L z has the density of z over det L.
TEST(LogPosterior, BothFormsOfTheEffectsAreOneDensity)
{
  const auto text = regression(Response::poisson, 1);
  const auto n = make_run(text, {.points = 1});
  const auto theta = parameters(text, 8);
  sampling::LogPosterior plain(*n, sampling::EffectForm::plain), standard(*n, sampling::EffectForm::standard);
  const auto z = some_effects(*n, 10);
  std::vector<double> u(z.size()), value(n->leaf().SubInfo.size());
  ASSERT_EQ(standard.plain_effects(0, theta.data(), z.data(), u.data()), 0);
  std::size_t variance = 0;
  while (text.parameters[variance] != "g11") ++variance;
  const double log_det = 0.5 * std::log(theta[variance]) * static_cast<double>(value.size());
  EXPECT_NEAR(plain.values(0, theta.data(), u.data(), value.data()) + log_det,
              standard.values(0, theta.data(), z.data(), value.data()), 1e-10);
}

// At a variance of 0 there is no density of u, but there is one of z; below it there is none at all.
TEST(LogPosterior, VarianceOfZero)
{
  const auto text = regression(Response::poisson, 1);
  const auto n = make_run(text, {.points = 1});
  auto theta = parameters(text, 8);
  std::size_t variance = 0;
  while (text.parameters[variance] != "g11") ++variance;
  const auto z = some_effects(*n, 10);
  std::vector<double> value(n->leaf().SubInfo.size());
  sampling::LogPosterior plain(*n, sampling::EffectForm::plain), standard(*n, sampling::EffectForm::standard);
  theta[variance] = 0.0;
  EXPECT_EQ(plain.values(0, theta.data(), z.data(), value.data()), sampling::impossible);
  EXPECT_GT(standard.values(0, theta.data(), z.data(), value.data()), sampling::impossible);
  theta[variance] = -0.1;
  EXPECT_EQ(standard.values(0, theta.data(), z.data(), value.data()), sampling::impossible);
}

} // namespace torvale::tests
