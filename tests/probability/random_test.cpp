#include "probability/normal.h"
#include "probability/random.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>
#include <vector>

namespace torvale::probability {
namespace {

TEST(Random, UniformStreamIsTheLehmerSequence)
{
  std::int64_t seed = 1;
  EXPECT_EQ(zranuni(&seed), 397204094.0 / 2147483647.0);
  std::uint64_t x = 397204094;
  for (int i = 0; i < 200000; ++i) { // plain remainder against the fold
    x = x * 397204094u % 2147483647u;
    const double u = zranuni(&seed);
    ASSERT_EQ(seed, static_cast<std::int64_t>(x));
    ASSERT_EQ(u, static_cast<double>(x) / 2147483647.0);
  }
  // a multiplier and modulus that a zero or full seed cannot leave: both are moved inside
  for (std::int64_t bad : {std::int64_t{0}, std::int64_t{-5}, std::int64_t{2147483647}, std::int64_t{1} << 62}) {
    seed = bad;
    const double u = zranuni(&seed);
    EXPECT_TRUE(u > 0.0 && u < 1.0 && seed >= 1 && seed <= largest_seed) << bad;
  }
}

TEST(Random, NormalStreamTakesTheUniformsInOrder)
{
  std::int64_t seed = 12345, copy = 12345;
  for (int i = 0; i < 100; ++i) {
    const double u1 = zranuni(&copy);
    const double u2 = zranuni(&copy);
    EXPECT_EQ(zrannor(&seed), std::cos(6.283185307179586 * u2) * std::sqrt(-2.0 * std::log(u1)));
    EXPECT_EQ(seed, copy);
  }
}

// Pearson's statistic of equally likely cells, as a standard normal deviate (Wilson and Hilferty).
double chi_square_deviate(const std::vector<int>& counts, double expected)
{
  double sum = 0.0;
  for (int count : counts) sum += (count - expected) * (count - expected) / expected;
  const double df = static_cast<double>(counts.size()) - 1.0;
  return (std::cbrt(sum / df) - 1.0 + 2.0 / (9.0 * df)) / std::sqrt(2.0 / (9.0 * df));
}

TEST(Random, StreamsPassChiSquareSerialAndMomentTests)
{
  constexpr int draws = 1000000;
  std::int64_t seed = 20240229;
  std::vector<int> cells(1000), pairs(32 * 32);
  double last = zranuni(&seed);
  for (int i = 0; i < draws; ++i) {
    const double u = zranuni(&seed);
    ++cells[static_cast<std::size_t>(u * 1000.0)];
    ++pairs[static_cast<std::size_t>(last * 32.0) * 32 +
            static_cast<std::size_t>(u * 32.0)]; // overlapping in one value
    last = zranuni(&seed);
  }
  EXPECT_LT(std::fabs(chi_square_deviate(cells, draws / 1000.0)), 4.0);
  EXPECT_LT(std::fabs(chi_square_deviate(pairs, draws / 1024.0)), 4.0);

  std::vector<int> normal_cells(200);
  double moment[5] = {};
  double lag = 0.0, previous = 0.0;
  for (int i = 0; i < draws; ++i) {
    const double z = zrannor(&seed);
    ++normal_cells[static_cast<std::size_t>(zprbnrm(z) * 200.0)];
    double power = 1.0;
    for (double& m : moment) {
      m += power / draws;
      power *= z;
    }
    lag += z * previous / draws;
    previous = z;
  }
  EXPECT_LT(std::fabs(chi_square_deviate(normal_cells, draws / 200.0)), 4.0);
  // standard errors of the sample moments of a normal: sqrt((E z^2k - (E z^k)^2)/n)
  const double root = std::sqrt(static_cast<double>(draws));
  EXPECT_NEAR(moment[1], 0.0, 4.0 * 1.0 / root);
  EXPECT_NEAR(moment[2], 1.0, 4.0 * std::sqrt(2.0) / root);
  EXPECT_NEAR(moment[3], 0.0, 4.0 * std::sqrt(15.0) / root);
  EXPECT_NEAR(moment[4], 3.0, 4.0 * std::sqrt(96.0) / root);
  EXPECT_NEAR(lag, 0.0, 4.0 / root);
}

struct FakeHost {
  double now = 0.0;
  std::vector<std::pair<std::string, std::int64_t>> stored;
};

TEST(Random, SeedFromClockIsPublished)
{
  FakeHost host;
  const SeedServices services{[](void* h) { return static_cast<FakeHost*>(h)->now; },
                              [](void* h, const char* name, std::int64_t value) {
                                static_cast<FakeHost*>(h)->stored.emplace_back(name, value);
                              },
                              &host};
  host.now = 1986000250.0; // a thousandth of it ends in .25
  std::int64_t seed = 0;
  zranms(&seed, 0, services);
  EXPECT_EQ(seed, 250000001);
  EXPECT_TRUE(host.stored.empty());
  seed = -1;
  zranms(&seed, 1, services);
  EXPECT_EQ(seed, 250000001);
  host.now = std::nan("");
  seed = 2147483647;
  zranms(&seed, 0, services);
  EXPECT_EQ(seed, 1); // still a seed
  seed = 77;
  zranms(&seed, 1, services);
  seed = 78;
  zranms(&seed, 2, services);
  const std::vector<std::pair<std::string, std::int64_t>> expected = {
      {"SYSRANDOM", 250000001}, {"SYSRANDOM", 77}, {"SYSRANEND", 78}};
  EXPECT_EQ(host.stored, expected);
}

} // namespace
} // namespace torvale::probability
