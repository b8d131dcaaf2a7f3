// Quantiles put back into their distribution, over shapes and probabilities of any size.

#include "probability/discrete.h"
#include "probability/gamma.h"
#include "probability/quantiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace torvale::probability {
namespace {

class Draw {
public:
  double log_uniform(double low, double high) { return std::pow(10.0, low + (high - low) * uniform_(generator_)); }
  TailTarget target()
  {
    const double kind = uniform_(generator_);
    if (kind < 0.4) return lower_target(uniform_(generator_));
    return kind < 0.7 ? lower_target(log_uniform(-300, 0)) : upper_target(log_uniform(-300, 0));
  }

private:
  std::mt19937_64 generator_{7};
  std::uniform_real_distribution<double> uniform_;
};

double logit(TailTarget t)
{
  return t.log_lower - t.log_upper;
}

// The error of the logit, in units of what a rounding of log(quantile) of size `scale` changes it by.
double logit_error(const Tails& t, TailTarget target, double log_slope, double scale)
{
  const double wanted = logit(target);
  const double slope = std::exp(t.log_density + log_slope - t.log_lower - t.log_upper);
  return std::fabs(t.log_lower - t.log_upper - wanted) / std::max({1.0, std::fabs(wanted), slope * scale});
}

TEST(Quantiles, BetaGammaRoundTrip)
{
  Draw draw;
  for (int i = 0; i < 4000; ++i) {
    const double a = draw.log_uniform(-10, i % 2 ? 3 : 15.9);
    const double b = draw.log_uniform(-10, i % 2 ? 3 : 15.9);
    const TailTarget target = draw.target();
    const BetaPoint x = beta_quantile(target, a, b);
    ASSERT_FALSE(std::isnan(x.x)) << a << " " << b << " " << target.log_lower;
    if (std::min(x.log_x, x.log_y) > -1490.0) { // else the quantile lies beyond the range of the search
      const double scale = std::max(1.0, std::fabs(x.log_x - x.log_y));
      EXPECT_LT(logit_error(beta_tails(x, a, b), target, x.log_x + x.log_y, scale), 1e-13) << a << " " << b;
    }
    const double z = gamma_quantile(target, a);
    ASSERT_FALSE(std::isnan(z)) << a << " " << target.log_lower;
    if (z < 1e-300) continue;
    const double log_z = std::log(z);
    EXPECT_LT(logit_error(gamma_tails(z, a), target, log_z, std::max(1.0, std::fabs(log_z))), 1e-14) << a;
    EXPECT_LT(z, 4.0 * (a - target.log_upper) * 0.999) << a; // not stopped at the end of the bracket
  }
}

// A distribution that is flat in the middle and whose density is NaN nowhere: Newton leaves the bracket, bisection
// saves it.
Tails two_steps(const void*, double x)
{
  const double rise = [](double t) { return 0.5 / (1.0 + std::exp(-t)); }(40.0 * (x + 3.0));
  const double second = 0.5 / (1.0 + std::exp(-40.0 * (x - 3.0)));
  Tails t = tails_from_log_lower(std::log(rise + second));
  t.log_density = std::log(40.0 * (rise * (1.0 - 2.0 * rise) + second * (1.0 - 2.0 * second)) + 1e-300);
  return t;
}

TEST(Quantiles, SearchSurvivesAPlateauAndReportsFailure)
{
  QuantileSearch search;
  search.tails = two_steps;
  search.low = -10.0;
  search.high = 10.0;
  for (double p : {0.01, 0.3, 0.7, 0.99}) {
    for (double start : {-9.0, 0.0, 9.0, 50.0}) {
      search.target = lower_target(p);
      search.start = start;
      ASSERT_EQ(zquant(&search), 0) << p << " from " << start;
      EXPECT_NEAR(two_steps(nullptr, search.x).lower, p, 1e-13);
      EXPECT_LE(search.steps, 70);
    }
  }
  search.tails = [](const void*, double) { return tails_from_log_lower(std::nan("")); };
  EXPECT_EQ(zquant(&search), 1);
}

TEST(Discrete, TailsAreSumsOfProbabilities)
{
  for (double p : {0.0, 1e-5, 0.3, 0.97, 1.0}) {
    const int n = 23;
    long double binomial = 0.0L, negative = 0.0L, poisson = 0.0L;
    for (int k = 0; k <= n; ++k) {
      const long double choose = std::exp(std::lgamma(n + 1.0L) - std::lgamma(k + 1.0L) - std::lgamma(n - k + 1.0L));
      const long double probability = choose * std::pow(static_cast<long double>(p), k) * std::pow(1.0L - p, n - k);
      binomial += probability;
      const Tails b = binomial_tails(k + 0.5, n, p); // rounded down
      EXPECT_NEAR(b.lower, static_cast<double>(binomial), 1e-15 * 4);
      EXPECT_NEAR(std::exp(b.log_density), static_cast<double>(probability), 1e-15 * 4);
      EXPECT_EQ(b.lower + b.upper, 1.0);
      const long double mean = 12.0L * p;
      const long double weight =
          p == 0.0 ? (k == 0 ? 1.0L : 0.0L) : std::exp(k * std::log(mean) - mean - std::lgamma(k + 1.0L));
      poisson += weight;
      EXPECT_NEAR(poisson_tails(k, static_cast<double>(mean)).lower, static_cast<double>(poisson), 4e-15);
      if (p == 0.0) continue;
      const long double size = 2.5L;
      const long double q = 1.0L - p;
      negative += std::exp(std::lgamma(size + k) - std::lgamma(size) - std::lgamma(k + 1.0L)) *
                  std::pow(static_cast<long double>(p), size) * std::pow(q, k);
      EXPECT_NEAR(negative_binomial_tails(k, 2.5, p).lower, static_cast<double>(negative), 4e-15);
    }
  }
  EXPECT_EQ(poisson_tails(-1, 3).upper, 1.0);
  EXPECT_EQ(binomial_tails(24, 23, 0.5).lower, 1.0);
  EXPECT_TRUE(std::isnan(binomial_tails(1, 2.5, 0.5).lower) && std::isnan(negative_binomial_tails(1, 2, 0.0).lower));
}

TEST(Discrete, QuantileIsTheSmallestCountThatReaches)
{
  Draw draw;
  for (int i = 0; i < 600; ++i) {
    const TailTarget target = i % 3 ? draw.target() : lower_target(poisson_tails(i / 10, 20.0).lower); // on a jump
    const double mean = i % 3 ? draw.log_uniform(-3, 6) : 20.0;
    const double k = poisson_quantile(target, mean);
    const double size = draw.log_uniform(-1, 3);
    const double m = negative_binomial_quantile(target, size, 0.2);
    const double n = std::floor(draw.log_uniform(0, 5));
    const double r = binomial_quantile(target, n, 0.4);
    const auto reached = [&](const Tails& t) {
      return target.log_lower <= target.log_upper ? t.log_lower >= target.log_lower - 2e-13
                                                  : t.log_upper <= target.log_upper + 2e-13;
    };
    const auto clearly_reached = [&](const Tails& t) {
      return target.log_lower <= target.log_upper ? t.log_lower > target.log_lower : t.log_upper < target.log_upper;
    };
    EXPECT_TRUE(reached(poisson_tails(k, mean)) && !clearly_reached(poisson_tails(k - 1.0, mean))) << k << " " << mean;
    EXPECT_TRUE(reached(negative_binomial_tails(m, size, 0.2)) &&
                !clearly_reached(negative_binomial_tails(m - 1.0, size, 0.2)));
    EXPECT_TRUE(reached(binomial_tails(r, n, 0.4)) && !clearly_reached(binomial_tails(r - 1.0, n, 0.4)))
        << r << " " << n;
  }
  EXPECT_TRUE(std::isinf(poisson_quantile(lower_target(1.0), 3.0)));
  EXPECT_EQ(binomial_quantile(lower_target(1.0), 9.0, 0.3), 9.0);
  EXPECT_EQ(poisson_quantile(lower_target(0.0), 3.0), 0.0);
}

} // namespace
} // namespace torvale::probability
