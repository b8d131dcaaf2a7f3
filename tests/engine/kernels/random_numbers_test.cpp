#include "engine/kernels/counter_random.h"
#include "engine/kernels/lane_arrays.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace torvale::engine {
namespace {

// Philox 4x32-10 with counter 0 and key 0 gives 6627e8d5 e169c58d bc57ac4c 9b00dbd8 (published known answer).
TEST(RandomNumbers, GeneratorGivesThePublishedAnswer)
{
  const std::uint64_t bits = 0xe169c58d6627e8d5u;
  EXPECT_EQ(uniform_at(0, 0, 0, 0), (static_cast<double>(bits >> 11) + 0.5) * 0x1p-53);
}

TEST(RandomNumbers, UniformNumbersFillTheIntervalEvenly)
{
  constexpr int n = 20000;
  std::vector<double> u;
  for (int i = 0; i < n; ++i) u.push_back(uniform_at(42, i % 100, 3, i / 100));
  std::sort(u.begin(), u.end());
  double distance = 0; // Kolmogorov's statistic
  for (int i = 0; i < n; ++i) {
    distance = std::fmax(distance, std::fabs(u[static_cast<std::size_t>(i)] - (i + 0.5) / n));
    ASSERT_GT(u[static_cast<std::size_t>(i)], 0.0);
    ASSERT_LT(u[static_cast<std::size_t>(i)], 1.0);
  }
  EXPECT_LT(distance, 1.95 / std::sqrt(n)); // exceeded with probability 0.001
  EXPECT_TRUE(std::adjacent_find(u.begin(), u.end()) == u.end()) << "no draw twice";
}

TEST(RandomNumbers, NormalNumbersHaveUnitVariance)
{
  constexpr int n = 20000;
  double sum = 0, squares = 0;
  for (int i = 0; i < n; ++i) {
    const double z = run_one(*builds().back(), Kernel::normal_random, {7, static_cast<double>(i), 1, 0});
    sum += z;
    squares += z * z;
  }
  EXPECT_NEAR(sum / n, 0.0, 4 / std::sqrt(n));
  EXPECT_NEAR(squares / n, 1.0, 4 * std::sqrt(2.0 / n));
}

} // namespace
} // namespace torvale::engine
