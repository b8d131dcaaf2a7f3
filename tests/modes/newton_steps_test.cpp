// Newton steps of four subjects side by side against those of each alone, to the bit.

#include "modes/block_work.h"
#include "modes/newton_steps.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace torvale::modes {

namespace {

using evaluation::Four;
using evaluation::SlotGroup;

constexpr int columns = 4;

// What must be equal to the bit; what is not a number in both is.
std::uint64_t bits(double x)
{
  return std::isnan(x) ? 1 : std::bit_cast<std::uint64_t>(x);
}

// Sums of four subjects: log likelihoods that are concave, flat, convex, of all sizes, or no numbers.
template <int NR>
void draw(std::mt19937& random, std::vector<double>& sums, std::vector<double>& z, std::vector<double>& l)
{
  std::normal_distribution<double> normal;
  constexpr double odd[] = {0.0, -1e300, 1e200, std::numeric_limits<double>::infinity(),
                            std::numeric_limits<double>::quiet_NaN()};
  for (int c = 0; c < columns; ++c) {
    const double scale = std::exp(3.0 * normal(random));
    int row = 0;
    const auto put = [&](double x) { sums[static_cast<std::size_t>(row++ * columns + c)] = x; };
    put(10.0 * normal(random));
    for (int i = 0; i < NR; ++i) put(normal(random));
    for (int i = 0; i < NR; ++i)
      for (int j = 0; j <= i; ++j)
        put(scale * (i == j ? -2.0 * normal(random) * normal(random) : 0.3 * normal(random)));
    if (std::bernoulli_distribution(0.2)(random)) {
      const auto place = std::uniform_int_distribution<int>(0, row - 1)(random);
      sums[static_cast<std::size_t>(place * columns + c)] = odd[std::uniform_int_distribution<int>(0, 4)(random)];
    }
    for (int i = 0; i < NR; ++i) z[static_cast<std::size_t>(i * columns + c)] = normal(random);
    for (int i = 0, k = 0; i < NR; ++i)
      for (int j = 0; j <= i; ++j, ++k)
        l[static_cast<std::size_t>(k * columns + c)] =
            i == j ? std::abs(normal(random)) * (normal(random) > -1.5) : normal(random);
  }
}

template <int NR> void compare(std::mt19937& random)
{
  constexpr int triangle = NR * (NR + 1) / 2;
  const model::RunOptions options;
  auto block = block_for(NR);
  std::vector<double> sums(static_cast<std::size_t>((1 + NR + triangle) * columns)), z(NR * columns),
      l(triangle * columns);
  int regular = 0, others = 0;
  for (int repeat = 0; repeat < 2000; ++repeat) {
    draw<NR>(random, sums, z, l);
    NewtonSteps<NR, Four> four(NR);
    Four at[NR];
    for (int i = 0; i < NR; ++i) at[i] = SlotGroup<Four>::load(z.data() + i * columns);
    for (int k = 0; k < triangle; ++k) four.factor[k] = SlotGroup<Four>::load(l.data() + k * columns);
    four.at.read(sums.data(), columns, at, four.factor);
    four.invert(options, block);
    for (int c = 0; c < columns; ++c) {
      NewtonSteps<NR, double> one(NR);
      double own[NR], hessian[triangle], step[NR], pivots[NR];
      for (int i = 0; i < NR; ++i) own[i] = z[static_cast<std::size_t>(i * columns + c)];
      for (int k = 0; k < triangle; ++k) one.factor[k] = l[static_cast<std::size_t>(k * columns + c)];
      one.at.read(sums.data() + c, columns, own, one.factor);
      std::copy_n(one.at.hessian, triangle, hessian);
      std::copy_n(one.at.gradient, NR, step);
      const bool fits = invert_definite<NR>(options, hessian, step, pivots) != 0;
      one.invert(options, block);
      ASSERT_EQ(bits(four.of(four.at.f, c)), bits(one.at.f));
      ASSERT_EQ(four.inverted[c] != 0.0, fits);
      ++(fits ? regular : others);
      if (!fits) continue;
      EXPECT_EQ(one.inverted[0], 1.0);
      EXPECT_EQ(bits(four.of(four.length, c)), bits(one.length));
      EXPECT_EQ(bits(four.of(four.square, c)), bits(one.square));
      for (int i = 0; i < NR; ++i) EXPECT_EQ(bits(four.of(four.at.gradient[i], c)), bits(one.at.gradient[i]));
      for (int i = 0; i < NR; ++i) EXPECT_EQ(bits(four.of(four.pivots[i], c)), bits(one.pivots[i]));
      for (int k = 0; k < triangle; ++k)
        EXPECT_EQ(bits(four.column(four.at.hessian, c)[k * columns]), bits(one.at.hessian[k]));
    }
  }
  EXPECT_GT(regular, 500);
  EXPECT_GT(others, 500);
}

} // namespace

TEST(NewtonSteps, FourSubjectsAsEachAlone)
{
  std::mt19937 random(9);
  compare<1>(random);
  compare<2>(random);
  compare<3>(random);
}

} // namespace torvale::modes
