// The simultaneous band of normal quantiles: its coverage, by simulation.

#include "inference/pictures/normal_band.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace torvale::inference {

namespace {

TEST(NormalBand, HoldsNineteenSamplesInTwenty)
{
  std::mt19937 random(11);
  std::normal_distribution<double> normal;
  for (const std::size_t n : {8u, 30u, 80u}) {
    const NormalBand band = normal_quantile_band(n); // small enough to stand at every order statistic
    ASSERT_EQ(band.low.size(), n);
    constexpr int samples = 4000;
    int inside = 0;
    std::vector<double> x(n);
    for (int k = 0; k < samples; ++k) {
      for (double& v : x) v = normal(random);
      std::sort(x.begin(), x.end());
      bool all = true;
      for (std::size_t i = 0; i < n && all; ++i) all = x[i] >= band.low[i] && x[i] <= band.high[i];
      inside += all ? 1 : 0;
    }
    EXPECT_NEAR(static_cast<double>(inside) / samples, 0.95, 0.015) << n;
  }
}

TEST(NormalBand, LargeSamplesAreGivenAtSomePlacesEndsIncluded)
{
  const NormalBand band = normal_quantile_band(10000);
  EXPECT_LE(band.expected.size(), 81u);
  EXPECT_GE(band.expected.size(), 60u);
  EXPECT_DOUBLE_EQ(band.expected.front(), expected_quantile(0, 10000));
  EXPECT_DOUBLE_EQ(band.expected.back(), expected_quantile(9999, 10000));
  for (std::size_t k = 0; k < band.expected.size(); ++k) {
    EXPECT_LT(band.low[k], band.expected[k]);
    EXPECT_GT(band.high[k], band.expected[k]);
  }
}

} // namespace

} // namespace torvale::inference
