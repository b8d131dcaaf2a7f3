// Ticks and scales over ranges of any size and place.

#include "graphics/scale.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace torvale::graphics {

namespace {

// Ticks lie inside, their step is 1, 2 or 5 times a power of ten, and their labels read back as the values.
TEST(Ticks, AreRoundAndInside)
{
  std::mt19937 random(7);
  std::uniform_real_distribution<double> exponent(-12, 12), unit(-1, 1);
  for (int i = 0; i < 5000; ++i) {
    const double length = std::pow(10.0, exponent(random)), low = unit(random) * length * 50;
    const Interval range = {low, low + length};
    const Ticks ticks = round_ticks(range, 5);
    ASSERT_GE(ticks.at.size(), 2u) << low << " " << length;
    ASSERT_LE(ticks.at.size(), 11u);
    const double step = ticks.at[1] - ticks.at[0], power = std::pow(10.0, std::floor(std::log10(step) + 1e-6));
    const double lead = step / power;
    EXPECT_TRUE(std::abs(lead - 1) < 1e-4 || std::abs(lead - 2) < 1e-4 || std::abs(lead - 5) < 1e-4) << step;
    for (std::size_t k = 0; k < ticks.at.size(); ++k) {
      EXPECT_GE(ticks.at[k], range.low - 1e-8 * length);
      EXPECT_LE(ticks.at[k], range.high + 1e-8 * length);
      EXPECT_NEAR(std::stod(ticks.label[k]), ticks.at[k], 1e-3 * step) << ticks.label[k] << " step " << step;
    }
  }
}

TEST(Ticks, DegenerateRangesAreSafe)
{
  EXPECT_TRUE(round_ticks({3, 3}, 5).at.empty());
  EXPECT_TRUE(round_ticks({0, INFINITY}, 5).at.empty());
  EXPECT_TRUE(round_ticks({NAN, NAN}, 5).at.empty());
  for (const double x : {0.0, 3.0, -1e300, 1e-310}) {
    const Interval wide = widened({x, x}, 0.05);
    EXPECT_LT(wide.low, wide.high) << x;
    EXPECT_TRUE(wide.holds(x)) << x;
  }
  Interval none;
  EXPECT_FALSE(range_of(std::vector<double>{NAN, INFINITY}, none));
  EXPECT_EQ(power_ticks({-7.2, 3.1}, 6).label.front(), "1e-7");
}

TEST(Scale, MapsBothWays)
{
  const Scale down({-2, 6}, 300, 20);
  EXPECT_EQ(down.place(-2), 300);
  EXPECT_EQ(down.place(6), 20);
  for (const double x : {-2.0, 0.3, 6.0}) EXPECT_NEAR(down.value(down.place(x)), x, 1e-12);
}

} // namespace

} // namespace torvale::graphics
