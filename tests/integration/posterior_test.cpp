// What find_posterior says of the random effects, against the modes themselves.

#include "integration/model_family.h"
#include "integration/objective.h"
#include "integration/posterior/posterior.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>

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

using Matrix = std::vector<std::vector<double>>;

// Inverse by Gauss-Jordan steps, without any use of structure.
Matrix inverse(Matrix a)
{
  const std::size_t n = a.size();
  Matrix b(n, std::vector<double>(n, 0.0));
  for (std::size_t i = 0; i < n; ++i) b[i][i] = 1.0;
  for (std::size_t k = 0; k < n; ++k) {
    const double pivot = a[k][k];
    for (std::size_t j = 0; j < n; ++j) a[k][j] /= pivot, b[k][j] /= pivot;
    for (std::size_t i = 0; i < n; ++i) {
      const double f = a[i][k];
      if (i == k || f == 0.0) continue;
      for (std::size_t j = 0; j < n; ++j) a[i][j] -= f * a[k][j], b[i][j] -= f * b[k][j];
    }
  }
  return b;
}

// nested(Response::poisson, 3) with all effects of all subjects stacked: their places are found by the values of the
// subject variables.
struct StackedPoisson {
  std::map<std::vector<double>, std::size_t> place; // of a subject's first effect
  std::size_t effects = 0;
  std::vector<std::vector<std::size_t>> chain; // per leaf, in order of its values: places of u0 u1 v0 w0
  std::vector<double> gradient;
  Matrix hessian;

  StackedPoisson(const ModelText& text, const std::vector<double>& theta, const integration::Posterior& at)
  {
    std::map<std::string, double> p;
    for (std::size_t j = 0; j < theta.size(); ++j) p[text.parameters[j]] = theta[j];
    std::map<std::string, std::vector<double>> column(text.columns.begin(), text.columns.end());
    const auto key = [&](std::size_t row, std::size_t depth) {
      std::vector<double> k = {column["subject"][row], column["inner"][row], column["leaf"][row]};
      k.resize(depth);
      return k;
    };
    const std::size_t rows = column["y"].size();
    for (std::size_t depth = 1; depth <= 3; ++depth)
      for (std::size_t row = 0; row < rows; ++row)
        if (place.emplace(key(row, depth), effects).second) effects += depth == 1 ? 2 : 1;
    std::vector<double> u(effects);
    for (const auto& [k, first] : place) { // a map: leaves in the order of their values
      if (k.size() < 3) continue;
      const std::size_t outer = place[{k[0]}];
      chain.push_back({outer, outer + 1, place[{k[0], k[1]}], first});
      for (std::size_t e = 0; e < 4; ++e) u[chain.back()[e]] = at.estimate[(chain.size() - 1) * 4 + e];
    }
    gradient.assign(effects, 0.0);
    hessian.assign(effects, std::vector<double>(effects, 0.0));
    const Matrix g = inverse({{p["g11"], p["g21"]}, {p["g21"], p["g22"]}});
    for (const auto& [k, first] : place)
      for (std::size_t i = 0; i < (k.size() == 1 ? 2U : 1U); ++i)
        for (std::size_t j = 0; j < (k.size() == 1 ? 2U : 1U); ++j) {
          const double mean = k.size() == 1 ? (j == 0 ? p["mu0"] : 0.0) : k.size() == 2 ? 0.2 * p["b1"] : 0.0;
          const double weight = k.size() == 1 ? g[i][j] : 1.0 / p[k.size() == 2 ? "g33" : "g44"];
          hessian[first + i][first + j] += weight;
          gradient[first + i] += weight * (u[first + j] - mean);
        }
    for (std::size_t row = 0; row < rows; ++row) {
      const std::size_t outer = place[key(row, 1)];
      const std::size_t at_row[] = {outer, outer + 1, place[key(row, 2)], place[key(row, 3)]};
      const double x = column["x"][row], z[] = {1.0, x, 1.0, 1.0};
      double eta = p["b0"] + p["b1"] * x;
      for (int e = 0; e < 4; ++e) eta += z[e] * u[at_row[e]];
      for (int i = 0; i < 4; ++i) {
        gradient[at_row[i]] -= z[i] * (column["y"][row] - std::exp(eta));
        for (int j = 0; j < 4; ++j) hessian[at_row[i]][at_row[j]] += z[i] * z[j] * std::exp(eta);
      }
    }
  }
};

} // namespace

// All subjects of all nests in one dense matrix.
TEST(Posterior, OfNestsIsThatOfAllEffectsTogether)
{
  const auto text = nested(Response::poisson, 3, 6);
  for (const unsigned seed : {1u, 2u, 3u}) {
    const auto theta = parameters(text, seed);
    const auto n = make_run(text, {.points = 1, .effects_wanted = true});
    const auto p = posterior_at(*n, theta);
    const StackedPoisson all(text, theta, p);
    ASSERT_EQ(p.known.size(), all.chain.size());
    for (const double g : all.gradient) EXPECT_NEAR(g, 0.0, 1e-9);
    const Matrix v = inverse(all.hessian);
    for (std::size_t leaf = 0; leaf < all.chain.size(); ++leaf)
      for (std::size_t i = 0; i < 4; ++i)
        for (std::size_t j = 0; j <= i; ++j)
          EXPECT_NEAR(p.covariance[leaf * 10 + i * (i + 1) / 2 + j], v[all.chain[leaf][i]][all.chain[leaf][j]], 1e-11)
              << leaf << " " << i << " " << j;
  }
}

TEST(Posterior, DerivativesAreThoseOfTheModesOfNests)
{
  for (const Response response : {Response::normal, Response::poisson, Response::negbin})
    for (const int depth : {2, 3}) {
      const auto text = nested(response, depth, 4);
      const std::string what = std::string(name_of(response)) + std::to_string(depth) + " levels";
      expect_derivatives(text, {.points = 1, .effects_wanted = true}, parameters(text, 3), what);
      expect_derivatives(text, {.adaptive = false, .points = 2, .fd = 1, .effects_wanted = true}, parameters(text, 4),
                         what + " fd");
    }
}

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

// By importance samples: the mean of the posterior. In a normal model that is the mode, its covariance the inverse
// Hessian, up to the chance of the samples; the derivatives are those of the means themselves.
TEST(Posterior, MeansByImportanceSamples)
{
  const auto text = regression(Response::normal, 2);
  const auto theta = parameters(text, 7);
  const auto sampled = make_run(text, {.points = 100, .method = 3, .effects_wanted = true}),
             modes = make_run(text, {.points = 1, .effects_wanted = true});
  const auto a = posterior_at(*sampled, theta), b = posterior_at(*modes, theta);
  for (std::size_t k = 0; k < a.estimate.size(); ++k) {
    const double variance = b.covariance[k / 2 * 3 + k % 2 * 2];
    EXPECT_NEAR(a.estimate[k], b.estimate[k], 0.4 * std::sqrt(variance)) << k; // four standard errors
    EXPECT_NEAR(a.covariance[k / 2 * 3 + k % 2 * 2], variance, 0.6 * variance) << k;
  }
  for (std::size_t k = 0; k < a.prior.size(); ++k) EXPECT_EQ(a.prior[k], b.prior[k]);
  for (std::size_t k = 0; k < a.derivative.size(); ++k)
    EXPECT_NEAR(a.derivative[k], b.derivative[k], 0.5 * (0.1 + std::abs(b.derivative[k]))) << k;
  expect_derivatives(text, {.points = 100, .method = 3, .effects_wanted = true}, theta, "samples");
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
