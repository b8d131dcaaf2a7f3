// Diagnostics of stored chains against an independent calculation (autocovariances by Fourier transform).

#include "sampling/diagnostics.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <fstream>
#include <random>

namespace torvale::sampling {

TEST(ChainDiagnostics, AgreeWithAnIndependentCalculation)
{
  std::ifstream file(std::string(TORVALE_SOURCE_DIR) + "/tests/data/chains.json");
  for (const auto& c : nlohmann::json::parse(file)) {
    const auto draws = c["draws"].get<std::vector<double>>();
    const Diagnostics d = diagnose({draws, c["chains"].get<int>()});
    const auto near = [&](double value, const char* key) {
      const double expected = c[key].get<double>();
      EXPECT_NEAR(value, expected, 1e-8 * std::abs(expected)) << c["name"] << " " << key;
    };
    near(d.mean, "mean");
    near(d.sd, "sd");
    near(d.rhat, "rhat");
    near(d.ess_bulk, "bulk");
    near(d.ess_tail, "tail");
    near(d.mcse, "mcse");
    for (int k = 0; k < 3; ++k)
      EXPECT_NEAR(d.quantile[k], c["quantiles"][static_cast<std::size_t>(k)].get<double>(), 1e-9);
  }
}

// Draws that remember 0.9 of the one before: the correlogram is 0.9 to the power of the lag, until it has faded.
TEST(ChainDiagnostics, CorrelogramOfAnAutoregression)
{
  const std::size_t length = 40000;
  std::mt19937 random(5);
  std::normal_distribution<double> noise;
  std::vector<double> draws;
  for (int chain = 0; chain < 2; ++chain)
    for (std::size_t k = 0; k < length; ++k)
      draws.push_back((k > 0 ? 0.9 * draws.back() : 0.0) + std::sqrt(1 - 0.81) * noise(random));
  const Correlogram c = correlogram({draws, 2});
  ASSERT_EQ(c.lag.size(), c.correlation.size());
  ASSERT_GE(c.lag.size(), 20u);
  EXPECT_LE(c.lag.size(), 62u);
  EXPECT_GE(c.lag.back(), 28); // 0.9^28 is 0.05
  for (std::size_t k = 0; k < c.lag.size(); ++k) EXPECT_NEAR(c.correlation[k], std::pow(0.9, c.lag[k]), 0.03);
  const std::vector<double> constant(40, 2.5);
  EXPECT_TRUE(correlogram({constant, 4}).lag.empty());
}

TEST(ChainDiagnostics, Corners)
{
  const std::vector<double> constant(40, 2.5), few = {1, 2, 3, 1, 2, 3};
  EXPECT_EQ(diagnose({constant, 4}).rhat, 1.0);
  EXPECT_EQ(diagnose({constant, 4}).ess_bulk, 40.0);
  EXPECT_TRUE(std::isnan(diagnose({few, 2}).rhat));
  std::vector<double> stuck(40, 1.0); // each chain in a place of its own
  std::fill(stuck.begin() + 20, stuck.end(), 2.0);
  EXPECT_FALSE(diagnose({stuck, 2}).rhat < 1.01);
  std::vector<double> infinite(40, 1.0);
  infinite[7] = INFINITY;
  EXPECT_TRUE(std::isnan(diagnose({infinite, 2}).mean));
}

} // namespace torvale::sampling
