// Loops over lanes against plain ones: every length, so that every number is taken in a vector and alone.

#include "evaluation/lane_loops.h"
#include "evaluation/slot_group.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace torvale::evaluation {

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity(), nan = std::numeric_limits<double>::quiet_NaN();
constexpr int longest = 19;

std::vector<double> draw(std::mt19937& random, int count, double spread)
{
  std::normal_distribution<double> normal;
  constexpr double odd[] = {0.0, -0.0, -708.3964185, -708.4, -745.0, -1e300, -infinity, nan};
  std::vector<double> x;
  for (int k = 0; k < count; ++k)
    x.push_back(random() % 4 == 0 ? odd[random() % 8] : -std::abs(spread * normal(random)));
  return x;
}

double ulps(double a, double b)
{
  return std::abs(a - b) / (std::numeric_limits<double>::epsilon() * std::abs(b));
}

} // namespace

TEST(LaneLoops, ExponentialsOfAnyLength)
{
  std::mt19937 random(3);
  for (int repeat = 0; repeat < 200; ++repeat)
    for (int n = 0; n <= longest; ++n) {
      const auto x = draw(random, n, repeat % 2 == 0 ? 3.0 : 300.0);
      auto all = x;
      exponentials_of_nonpositive(all.data(), n);
      for (int j = 0; j < n; ++j) {
        double alone = x[static_cast<std::size_t>(j)];
        exponentials_of_nonpositive(&alone, 1);
        const double given = x[static_cast<std::size_t>(j)], got = all[static_cast<std::size_t>(j)];
        EXPECT_EQ(std::bit_cast<std::uint64_t>(got), std::bit_cast<std::uint64_t>(alone)) << given;
        if (given >= -708.3964185)
          EXPECT_LE(ulps(got, std::exp(given)), 2.0) << given;
        else
          EXPECT_EQ(got, 0.0) << given;
      }
    }
}

TEST(LaneLoops, LogsJoinedAndTheLargest)
{
  std::mt19937 random(4);
  for (int repeat = 0; repeat < 100; ++repeat)
    for (int n = 0; n <= longest; ++n) {
      const auto a = draw(random, n, 50.0), b = draw(random, n, 50.0);
      auto joined = a, larger = a;
      join_above(joined.data(), b.data(), -60.0, -1e9, n);
      keep_larger(larger.data(), b.data(), n);
      for (std::size_t j = 0; j < a.size(); ++j) {
        const double expected = b[j] > -60.0 ? a[j] + b[j] : -1e9;
        EXPECT_TRUE(joined[j] == expected || (std::isnan(joined[j]) && std::isnan(expected)));
        const double most = a[j] < b[j] ? b[j] : a[j];
        EXPECT_TRUE(larger[j] == most || (std::isnan(larger[j]) && std::isnan(most)));
      }
    }
}

TEST(SlotGroup, LogarithmsAreWithinAnUlpAndTheSameInAnyPlace)
{
  std::mt19937 random(5);
  std::normal_distribution<double> normal;
  constexpr double odd[] = {0.0, -1.0, infinity, nan, 1.0, 5e-324, 1e-310, std::numeric_limits<double>::max()};
  for (int repeat = 0; repeat < 20000; ++repeat) {
    double x[4], y[4];
    for (double& v : x)
      v = random() % 16 == 0 ? odd[random() % 8] : std::exp((repeat % 2 == 0 ? 0.3 : 200.0) * normal(random));
    SlotGroup<Four>::store(SlotGroup<Four>::logarithm(SlotGroup<Four>::load(x)), y);
    for (int i = 0; i < 4; ++i) {
      const double alone = SlotGroup<double>::logarithm(x[i]), expected = std::log(x[i]);
      EXPECT_TRUE(y[i] == alone || (std::isnan(y[i]) && std::isnan(alone))) << x[i];
      if (std::isfinite(expected) && expected != 0.0)
        EXPECT_LE(ulps(y[i], expected), 1.0) << x[i];
      else
        EXPECT_TRUE(y[i] == expected || (std::isnan(y[i]) && std::isnan(expected))) << x[i];
    }
  }
}

} // namespace torvale::evaluation
