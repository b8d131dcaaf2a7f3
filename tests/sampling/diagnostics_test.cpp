// Diagnostics of stored chains against an independent calculation (autocovariances by Fourier transform).

#include "sampling/diagnostics.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <fstream>

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
