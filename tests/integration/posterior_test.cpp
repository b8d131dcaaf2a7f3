// What find_posterior says of the random effects, against the modes themselves.

#include "integration/model_family.h"
#include "integration/objective.h"
#include "integration/posterior.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace torvale::tests {

namespace {

integration::Posterior posterior_at(model::NX& n, const std::vector<double>& theta)
{
  objective(n, theta);
  integration::Posterior p;
  EXPECT_EQ(integration::find_posterior(n, p), 0);
  return p;
}

// The derivative of every mode by every parameter, by extrapolated differences of the modes.
void expect_derivatives(const ModelText& text, const Rule& rule, const std::vector<double>& theta,
                        const std::string& what)
{
  const auto n = make_run(text, rule);
  const auto p = posterior_at(*n, theta);
  integration::accept_modes(*n);
  const auto nr = static_cast<std::size_t>(p.nr), np = theta.size();
  for (std::size_t j = 0; j < np; ++j) {
    const double h = 1e-3 * (0.1 + std::abs(theta[j]));
    const auto moved = [&](double step) {
      auto at = theta;
      at[j] += step;
      return posterior_at(*n, at).estimate;
    };
    const auto up = moved(h), down = moved(-h), up2 = moved(h / 2), down2 = moved(-h / 2);
    for (std::size_t k = 0; k < up.size(); ++k) {
      const double difference = (4.0 * (up2[k] - down2[k]) / h - (up[k] - down[k]) / (2.0 * h)) / 3.0;
      EXPECT_NEAR(p.derivative[k / nr * nr * np + k % nr * np + j], difference, 1e-7 * (1.0 + std::abs(difference)))
          << what << ", effect " << k << " by " << text.parameters[j];
    }
  }
}

} // namespace

TEST(Posterior, DerivativesAreThoseOfTheModes)
{
  for (const Response response : responses)
    for (int effects = 1; effects <= 3; ++effects) {
      const auto text = regression(response, effects);
      const std::string what = std::string(name_of(response)) + std::to_string(effects);
      expect_derivatives(text, {.points = 3, .effects_wanted = true}, parameters(text, 3), what);
      expect_derivatives(text, {.adaptive = false, .points = 3, .fd = 1, .effects_wanted = true}, parameters(text, 4),
                         what + " fd");
    }
}

// A variance of 0: the effect is at its mean, and moves at the rate that a small variance shows.
TEST(Posterior, DerivativesAtAVarianceOfZero)
{
  const auto text = regression(Response::poisson, 1);
  auto theta = parameters(text, 5);
  std::size_t variance = 0;
  while (text.parameters[variance] != "g11" && variance + 1 < text.parameters.size()) ++variance;
  const auto n = make_run(text, {.points = 3, .effects_wanted = true});
  theta[variance] = 0.0;
  const auto at_zero = posterior_at(*n, theta);
  theta[variance] = 1e-7;
  const auto near = posterior_at(*n, theta);
  for (std::size_t s = 0; s < at_zero.estimate.size(); ++s) {
    const double slope = at_zero.derivative[s * theta.size() + variance];
    EXPECT_NEAR(slope, (near.estimate[s] - at_zero.estimate[s]) / 1e-7, 1e-5 * (1.0 + std::abs(slope)));
    EXPECT_EQ(at_zero.covariance[s], 0.0);
  }
}

TEST(Posterior, IsTheSameForAnyNumberOfThreadsAndOrderOfRows)
{
  const auto text = regression(Response::binary, 2, 40), shuffled = regression(Response::binary, 2, 40, true);
  const auto theta = parameters(text, 6);
  const auto one = make_run(text, {.points = 3, .effects_wanted = true});
  const auto many = make_run(text, {.points = 3, .threads = 3, .effects_wanted = true});
  const auto a = posterior_at(*one, theta), b = posterior_at(*many, theta);
  EXPECT_EQ(a.estimate, b.estimate);
  EXPECT_EQ(a.covariance, b.covariance);
  EXPECT_EQ(a.derivative, b.derivative);
  // Other rows first: other places in the index and the batches, the same subjects.
  const auto other = make_run(shuffled, {.points = 3, .effects_wanted = true});
  auto c = posterior_at(*other, theta).estimate, sorted = a.estimate;
  std::sort(c.begin(), c.end());
  std::sort(sorted.begin(), sorted.end());
  for (std::size_t k = 0; k < c.size(); ++k) EXPECT_NEAR(c[k], sorted[k], 1e-10) << k;
}

} // namespace torvale::tests
