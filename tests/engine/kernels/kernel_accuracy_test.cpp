#include "engine/kernels/lane_arrays.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

// Kernels against 20-digit tables and against the extended precision of the C library, in every build. The bounds are
// those stated above each kernel.

namespace torvale::engine {
namespace {

void expect_within(const KernelTable& build, Kernel k, const std::vector<std::vector<double>>& in,
                   const std::vector<long double>& truth, double units, long double absolute = 0.0L)
{
  const std::vector<double> got = run_lanes(build, k, in);
  ASSERT_FALSE(got.empty());
  for (std::size_t i = 0; i < got.size(); ++i) {
    if (std::fabs(got[i] - truth[i]) <= absolute) continue;
    ASSERT_LE(units_off(got[i], truth[i]), units) << build.isa << " " << kernel_info(k).name << "(" << in[0][i]
                                                  << (in.size() > 1 ? ", " + std::to_string(in[1][i]) : "")
                                                  << ") = " << got[i] << ", not " << static_cast<double>(truth[i]);
  }
}

TEST(KernelAccuracy, ElementaryFunctionsAgreeWithExtendedPrecision)
{
  struct Case {
    Kernel kernel;
    long double (*truth)(long double);
    double low, high, units;
  };
  // A table, by kernel.
  // clang-format off
  const Case cases[] = {
      {Kernel::exp, std::exp, -700, 700, 1.1},        {Kernel::expm1, std::expm1, -30, 30, 1.1},
      {Kernel::expm1, std::expm1, -1e-3, 1e-3, 1.1},  {Kernel::log, std::log, 1e-300, 1e3, 1.1},
      {Kernel::log, std::log, 0.5, 2.0, 1.1},         {Kernel::log1p, std::log1p, -0.9, 5.0, 1.1},
      {Kernel::log1p, std::log1p, -1e-5, 1e-5, 1.1},  {Kernel::log2, std::log2, 1e-3, 1e3, 1.1},
      {Kernel::log10, std::log10, 1e-3, 1e3, 1.1},    {Kernel::sin, std::sin, -1e4, 1e4, 1.1},
      {Kernel::cos, std::cos, -1e9, 1e9, 1.1},        {Kernel::tan, std::tan, -50, 50, 1.1},
      {Kernel::asin, std::asin, -1, 1, 1.1},          {Kernel::acos, std::acos, -1, 1, 1.1},
      {Kernel::atan, std::atan, -20, 20, 1.1},        {Kernel::sinh, std::sinh, -300, 300, 1.1},
      {Kernel::cosh, std::cosh, -300, 300, 1.1},      {Kernel::tanh, std::tanh, -9, 9, 1.1},
      {Kernel::asinh, std::asinh, -1e3, 1e3, 1.1},    {Kernel::acosh, std::acosh, 1, 1e3, 1.1},
      {Kernel::atanh, std::atanh, -0.999, 0.999, 1.1}, {Kernel::sqrt, std::sqrt, 0, 1e6, 0.6},
      {Kernel::erf, std::erf, -5, 5, 1.1},            {Kernel::erfc, std::erfc, -5, 26, 1.6},
      {Kernel::gamma, std::tgamma, 0.01, 170, 1.1},   {Kernel::gamma, std::tgamma, -5.9, -5.1, 1.1},
      {Kernel::lgamma, std::lgamma, 1e-9, 50, 5},     {Kernel::lgamma, std::lgamma, 50, 1e8, 3},
      {Kernel::logistic, [](long double x) { return 1 / (1 + std::exp(-x)); }, -700, 40, 3},
      {Kernel::softplus, [](long double x) { return std::log1p(std::exp(x)); }, -700, 40, 3},
      {Kernel::logit, [](long double p) { return std::log(p / (1 - p)); }, 1e-9, 0.999, 4},
      {Kernel::log_one_minus_exp,
       [](long double x) { return x < -1 ? std::log1p(-std::exp(x)) : std::log(-std::expm1(x)); }, -40, -1e-9, 3},
      {Kernel::normal_pdf, [](long double x) { return std::exp(-x * x / 2) * 0.398942280401432677939946L; }, -37, 37,
       3},
  };
  // clang-format on
  std::mt19937_64 random(7);
  for (const KernelTable* build : builds())
    for (const Case& c : cases) {
      std::uniform_real_distribution<double> points(c.low, c.high);
      std::vector<double> x;
      std::vector<long double> truth;
      for (int i = 0; i < 4000; ++i) {
        x.push_back(points(random));
        truth.push_back(c.truth(x.back()));
      }
      // acosh and logit near their zeros, and the reflection of gamma, are relative to the size of their terms.
      expect_within(*build, c.kernel, {x}, truth, c.units, c.kernel == Kernel::lgamma ? 1e-17L : 0.0L);
    }
}

TEST(KernelAccuracy, PowersAndAnglesOfTwoOperands)
{
  std::mt19937_64 random(8);
  std::uniform_real_distribution<double> base(1e-3, 50), exponent(-30, 30);
  std::vector<double> a, b;
  std::vector<long double> power, angle, sum;
  for (int i = 0; i < 4000; ++i) {
    a.push_back(base(random));
    b.push_back(exponent(random));
    power.push_back(std::pow(static_cast<long double>(a.back()), static_cast<long double>(b.back())));
    angle.push_back(std::atan2(static_cast<long double>(a.back()), static_cast<long double>(b.back())));
    const long double low = std::fmin(a.back(), b.back()), high = std::fmax(a.back(), b.back());
    sum.push_back(high + std::log1p(std::exp(low - high)));
  }
  for (const KernelTable* build : builds()) {
    expect_within(*build, Kernel::power, {a, b}, power, 1.1);
    expect_within(*build, Kernel::atan2, {a, b}, angle, 1.1);
    expect_within(*build, Kernel::log_add_exp, {a, b}, sum, 3.0);
  }
}

TEST(KernelAccuracy, GammaFamilyAgreesWithTables)
{
  const ReferenceTable lgamma = read_reference("lgamma"), poly = read_reference("polygamma"),
                       ratio = read_reference("log_gamma_ratio"), difference = read_reference("polygamma_difference"),
                       beta = read_reference("lbeta");
  const auto x = lgamma.numbers("x");
  const auto truth = lgamma.truths("lgamma");
  constexpr Kernel by_order[] = {Kernel::digamma, Kernel::trigamma, Kernel::tetragamma, Kernel::pentagamma};
  for (const KernelTable* build : builds()) {
    expect_within(*build, Kernel::lgamma, {x}, truth, 5.0, 1e-17L);
    const auto order = poly.numbers("n"), at = poly.numbers("x");
    const auto value = poly.truths("value");
    for (std::size_t i = 0; i < poly.rows(); ++i) {
      if (order[i] > 3) continue;
      const auto n = static_cast<std::size_t>(order[i]);
      // digamma near its zero: absolute.
      expect_within(*build, by_order[n], {{at[i]}}, {value[i]}, n == 0 ? 6.0 : 12.0, n == 0 ? 2e-15L : 0.0L);
    }
    const auto a = ratio.numbers("a"), b = ratio.numbers("b");
    const auto gap = ratio.truths("value");
    for (std::size_t i = 0; i < ratio.rows(); ++i) {
      const long double scale = std::fmax(1.0, std::fabs(std::lgamma(std::fmin(a[i], 8.0))));
      expect_within(*build, Kernel::lgamma_ratio, {{a[i]}, {b[i]}}, {gap[i]}, 20.0,
                    2e-15L * std::fmax(scale, std::fabs(b[i])));
    }
    const auto n = difference.numbers("n"), da = difference.numbers("a"), db = difference.numbers("b");
    const auto step = difference.truths("value");
    for (std::size_t i = 0; i < difference.rows(); ++i)
      if (n[i] == 0)
        expect_within(*build, Kernel::digamma_ratio, {{da[i]}, {db[i]}}, {step[i]}, 20.0, 3e-15L * (1 + 1 / da[i]));
    const auto p = beta.numbers("a"), q = beta.numbers("b");
    const auto l = beta.truths("lbeta");
    for (std::size_t i = 0; i < beta.rows(); ++i) {
      const long double terms = std::fabs(std::lgamma(std::fmin(p[i], q[i])));
      expect_within(*build, Kernel::lbeta, {{p[i]}, {q[i]}}, {l[i]}, 8.0, 4e-16L * terms + 2e-15L);
    }
  }
}

// The derivatives of lgamma to fifth order below 0, where reflection is used: by recurrence from above 0.
TEST(KernelAccuracy, PolygammasBelowZeroSatisfyTheRecurrence)
{
  constexpr Kernel by_order[] = {Kernel::digamma, Kernel::trigamma, Kernel::tetragamma, Kernel::pentagamma,
                                 Kernel::hexagamma};
  constexpr double factorial[] = {1, 1, 2, 6, 24};
  for (const KernelTable* build : builds())
    for (int n = 0; n <= 4; ++n)
      for (const double x : {-0.3, -0.75, -1.5, -4.2}) { // psi_n(x + 1) - psi_n(x) = (-1)^n n! / x^(n+1)
        const double above = run_one(*build, by_order[n], {x + 1}), at = run_one(*build, by_order[n], {x});
        const double step = (n % 2 == 0 ? 1 : -1) * factorial[n] / std::pow(x, n + 1);
        EXPECT_NEAR(above - at, step, 1e-13 * (std::fabs(above) + std::fabs(at))) << build->isa << " " << n << " " << x;
      }
}

// hexagamma(1) = -24 zeta(5), hexagamma(1/2) = -24 (2^5 - 1) zeta(5).
TEST(KernelAccuracy, HexagammaAtOneIsZetaOfFive)
{
  constexpr double zeta5 = 1.03692775514336992633;
  for (const KernelTable* build : builds()) {
    EXPECT_NEAR(run_one(*build, Kernel::hexagamma, {1.0}), -24 * zeta5, 1e-13);
    EXPECT_NEAR(run_one(*build, Kernel::hexagamma, {0.5}), -24 * 31 * zeta5, 1e-11);
  }
}

TEST(KernelAccuracy, NormalDistributionAgreesWithTables)
{
  const ReferenceTable t = read_reference("normal_cdf"), q = read_reference("normal_quantile");
  const auto x = t.numbers("x");
  const auto cdf = t.truths("cdf"), log_cdf = t.truths("log_cdf"), mills = t.truths("mills_ratio");
  std::vector<double> mirrored;
  for (const double v : x) mirrored.push_back(-v);
  for (const KernelTable* build : builds()) {
    const auto got = run_lanes(*build, Kernel::normal_cdf, {x});
    for (std::size_t i = 0; i < x.size(); ++i)
      if (cdf[i] > 1e-307L) {
        EXPECT_LE(units_off(got[i], cdf[i]), 5.0) << build->isa << " " << x[i];
      } else {
        EXPECT_LE(got[i], 1.1e-307) << x[i];
      }
    expect_within(*build, Kernel::normal_log_cdf, {x}, log_cdf, 5.0, 1e-320L);
    const auto hazard =
        run_lanes(*build, Kernel::normal_hazard, {mirrored}); // pdf(-x) / cdf(-x) = 1 / Mills ratio of x
    for (std::size_t i = 0; i < x.size(); ++i)
      if (mills[i] < 1e300L) {
        EXPECT_LE(units_off(hazard[i], 1.0L / mills[i]), 12.0) << build->isa << " " << mirrored[i];
      }
    const auto p = q.numbers("p");
    const auto z = q.truths("x");
    for (std::size_t i = 0; i < p.size(); ++i)
      if (p[i] > 0.0 && p[i] < 1.0) {
        EXPECT_LE(units_off(run_one(*build, Kernel::normal_quantile, {p[i]}), z[i]), 8.0) << p[i];
      }
  }
}

// x + hazard is 1/|x| - 2/|x|^3 + ... far out, where the sum of the two has no digits left.
TEST(KernelAccuracy, NormalHazardExcessKeepsItsDigitsFarOut)
{
  for (const KernelTable* build : builds())
    for (const double u : {1e3, 1e5, 1e8}) {
      const double w = 1 / (u * u), truth = (1 - 2 * w + 10 * w * w) / u;
      EXPECT_NEAR(run_one(*build, Kernel::normal_hazard_excess, {-u}) / truth, 1.0, 1e-14) << build->isa << " " << u;
    }
}

TEST(KernelAccuracy, IncompleteIntegralsAgreeWithTables)
{
  const ReferenceTable gamma = read_reference("igamma"), beta = read_reference("ibeta");
  const KernelTable& build = *builds().back(); // one code for all builds
  const auto z = gamma.numbers("z"), a = gamma.numbers("a");
  const auto p = gamma.truths("p"), q = gamma.truths("q");
  for (std::size_t i = 0; i < gamma.rows(); ++i) {
    const double slack = 100.0 + 10.0 * a[i] + z[i]; // rounding of the exponent of the integrand
    EXPECT_LE(units_off(run_one(build, Kernel::gamma_lower, {z[i], a[i]}), p[i]), slack) << z[i] << " " << a[i];
    EXPECT_LE(units_off(run_one(build, Kernel::gamma_upper, {z[i], a[i]}), q[i]), slack) << z[i] << " " << a[i];
  }
  const auto x = beta.numbers("x"), b = beta.numbers("a"), c = beta.numbers("b");
  const auto lower = beta.truths("p");
  for (std::size_t i = 0; i < beta.rows(); ++i) {
    const double slack = 100.0 + 10.0 * (b[i] + c[i]) - std::log(x[i]);
    EXPECT_LE(units_off(run_one(build, Kernel::beta_lower, {x[i], b[i], c[i], 1.0 - x[i]}), lower[i]), slack)
        << x[i] << " " << b[i] << " " << c[i];
  }
}

// Quantiles of discrete distributions undo the distribution function, and one below them does not reach the
// probability.
TEST(KernelAccuracy, DiscreteQuantilesAreTheSmallestThatReach)
{
  const KernelTable& build = *builds().back();
  const auto poisson = [&](double k, double mean) { return run_one(build, Kernel::gamma_upper, {mean, k + 1}); };
  const auto binomial = [&](double k, double n, double p) {
    return k >= n ? 1.0 : run_one(build, Kernel::beta_upper, {p, k + 1, n - k, 1 - p});
  };
  const auto negative = [&](double k, double n, double p) {
    return run_one(build, Kernel::beta_lower, {p, n, k + 1, 1 - p});
  };
  for (const double u : {1e-12, 0.02, 0.3, 0.5, 0.77, 0.999, 1 - 1e-12}) {
    for (const double mean : {0.01, 1.0, 7.5, 300.0, 2e6}) {
      const double k = run_one(build, Kernel::poisson_quantile, {u, mean});
      EXPECT_GE(poisson(k, mean), u * (1 - 1e-12));
      if (k > 0) {
        EXPECT_LT(poisson(k - 1, mean), u) << u << " " << mean;
      }
    }
    for (const double n : {1.0, 20.0, 1000.0}) {
      const double k = run_one(build, Kernel::binomial_quantile, {u, n, 0.3}),
                   m = run_one(build, Kernel::negative_binomial_quantile, {u, n, 0.3});
      EXPECT_GE(binomial(k, n, 0.3), u * (1 - 1e-12));
      if (k > 0) {
        EXPECT_LT(binomial(k - 1, n, 0.3), u);
      }
      EXPECT_GE(negative(m, n, 0.3), u * (1 - 1e-12));
      if (m > 0) {
        EXPECT_LT(negative(m - 1, n, 0.3), u);
      }
    }
  }
  for (int k = 0; k <= 20; ++k)
    EXPECT_EQ(run_one(build, Kernel::poisson_quantile, {poisson(k, 6.0), 6.0}), k)
        << "the quantile undoes the distribution function";
}

} // namespace
} // namespace torvale::engine
