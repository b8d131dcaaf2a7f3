// The no-U-turn sampler on densities whose moments are known.

#include "sampling/diagnostics.h"
#include "sampling/no_u_turn.h"

#include <gtest/gtest.h>

#include <cmath>

namespace torvale::sampling {

namespace {

// Independent normals with standard deviations 1, 3, 10, ..., and one pair with correlation 0.9.
class Normals final : public Density {
public:
  int dimension() const override { return 5; }
  double gradient(const double* q, double* g) override
  {
    double logp = 0.0;
    for (int i = 0; i < 3; ++i) {
      const double s = std::pow(3.0, i);
      g[i] = -q[i] / (s * s);
      logp += 0.5 * q[i] * g[i];
    }
    constexpr double r = 0.9, det = 1 - r * r;
    g[3] = -(q[3] - r * q[4]) / det;
    g[4] = -(q[4] - r * q[3]) / det;
    return logp + 0.5 * (q[3] * g[3] + q[4] * g[4]);
  }
};

// log of a gamma variable with shape 3: skewed, on the whole line.
class LogGamma final : public Density {
public:
  int dimension() const override { return 1; }
  double gradient(const double* q, double* g) override
  {
    g[0] = 3.0 - std::exp(q[0]);
    return 3.0 * q[0] - std::exp(q[0]);
  }
};

std::vector<std::vector<double>> draw(Density& density, std::vector<double> start, int chains, long sample)
{
  std::vector<std::vector<double>> columns(start.size());
  for (int c = 0; c < chains; ++c) {
    NoUTurn sampler(density, start, 500);
    for (long k = 1; k <= 500 + sample; ++k) {
      RandomStream random(77, c, k, 0);
      sampler.advance(k, random);
      for (std::size_t i = 0; k > 500 && i < columns.size(); ++i) columns[i].push_back(sampler.position()[i]);
    }
  }
  return columns;
}

// Mean and variance within 5 Monte Carlo standard errors.
void expect_moments(const std::vector<double>& x, int chains, double mean, double variance)
{
  const Diagnostics d = diagnose({x, chains});
  EXPECT_LT(d.rhat, 1.01);
  EXPECT_NEAR(d.mean, mean, 5 * d.mcse);
  std::vector<double> squares;
  for (const double v : x) squares.push_back((v - mean) * (v - mean));
  const Diagnostics s = diagnose({squares, chains});
  EXPECT_NEAR(s.mean, variance, 5 * s.mcse);
}

} // namespace

TEST(NoUTurn, MomentsOfKnownDensities)
{
  Normals normals;
  const auto columns = draw(normals, {1, 1, 1, 1, -1}, 4, 4000);
  for (int i = 0; i < 3; ++i) expect_moments(columns[static_cast<std::size_t>(i)], 4, 0.0, std::pow(9.0, i));
  std::vector<double> product;
  for (std::size_t k = 0; k < columns[3].size(); ++k) product.push_back(columns[3][k] * columns[4][k]);
  const Diagnostics p = diagnose({product, 4});
  EXPECT_NEAR(p.mean, 0.9, 5 * p.mcse);
  LogGamma gamma;
  expect_moments(draw(gamma, {0}, 4, 4000)[0], 4, 0.9227843350984671, 0.3949340668482264); // digamma(3), trigamma(3)
}

// Chains differ, and the same numbers give the same chain.
TEST(NoUTurn, DrawsAreAFunctionOfSeedChainAndIteration)
{
  Normals normals;
  const auto a = draw(normals, {1, 1, 1, 1, 1}, 2, 50), b = draw(normals, {1, 1, 1, 1, 1}, 2, 50);
  EXPECT_EQ(a, b);
  EXPECT_NE(a[0][10], a[0][60]);
}

} // namespace torvale::sampling
