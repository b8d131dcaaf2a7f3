#include "evaluation/random_covariance.h"
#include "host/values/missing.h"

#include <gtest/gtest.h>

#include <cmath>

namespace torvale::evaluation {

namespace {

model::BlockWork block_of(const std::vector<double>& g, int nr)
{
  model::BlockWork b;
  b.gi = g;
  b.gic.resize(g.size());
  b.singGr.resize(static_cast<std::size_t>(nr));
  b.work1.resize(g.size());
  b.work2.resize(static_cast<std::size_t>(5 * nr));
  return b;
}

} // namespace

TEST(RandomCovariance, FactorAndDeterminant)
{
  const model::NX n;
  auto b = block_of({4, 2, 5}, 2);
  EXPECT_EQ(tvlgetg(n, 2, b), 0);
  EXPECT_EQ(b.gic, (std::vector<double>{2, 1, 2}));
  EXPECT_DOUBLE_EQ(b.logdetgi, std::log(16.0));
  EXPECT_FALSE(b.singG || b.negG || b.badG);
}

// What G is, and what the status says of it.
TEST(RandomCovariance, Classification)
{
  struct Case {
    std::vector<double> g;
    int nr;
    bool bad, negative, singular;
  };
  const double singvar = model::NX{}.singvar;
  const Case cases[] = {
      {{host::missing}, 1, true, false, false},
      {{0.0}, 1, false, false, true},
      {{-0.5 * singvar}, 1, false, false, true}, // rounding below zero is zero
      {{-2.0 * singvar}, 1, false, true, false},
      {{2.0 * singvar}, 1, false, false, false},
      {{singvar}, 1, false, false, false},           // the tolerance itself is kept
      {{1, 1, 1}, 2, false, false, true},            // a perfect correlation
      {{1, 2, 1}, 2, false, true, false},            // a correlation beyond one
      {{1, 0, 0, 0.5, 0, 2}, 3, false, false, true}, // an effect without variance
      {{0, 0.1, 1}, 2, false, true, false},          // a covariance with an effect without variance
  };
  for (const Case& c : cases) {
    const model::NX n;
    auto b = block_of(c.g, c.nr);
    EXPECT_EQ(tvlgetg(n, c.nr, b), c.bad ? 1 : 0);
    EXPECT_EQ(b.badG, c.bad) << c.g[0];
    EXPECT_EQ(b.negG, c.negative) << c.g[0];
    EXPECT_EQ(b.singG, c.singular) << c.g[0];
  }
}

} // namespace torvale::evaluation
