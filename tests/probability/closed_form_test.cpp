// Special cases whose distribution has a closed form, and what the routines do at the ends of their domains.

#include "probability/beta.h"
#include "probability/chi_square.h"
#include "probability/f.h"
#include "probability/gamma.h"
#include "probability/normal.h"
#include "probability/quantiles.h"
#include "probability/special/log_gamma.h"
#include "probability/student.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace torvale::probability {
namespace {

constexpr double inf = std::numeric_limits<double>::infinity();
constexpr double nan_value = std::numeric_limits<double>::quiet_NaN();
constexpr double pi = 3.14159265358979324;

void expect_close(double value, double truth, double relative)
{
  EXPECT_NEAR(value, truth, relative * std::fabs(truth));
}

TEST(ClosedForm, BetaWithOneShapeOneIsAPower)
{
  for (double a : {1e-9, 0.02, 1.0, 7.5, 3e5}) {
    for (double log_x : {-1e-7, -0.3, -4.0}) {
      const double x = std::exp(log_x / a);
      if (x < 1e-300) continue;
      const Tails t = beta_tails(beta_point(x), a, 1.0);
      expect_close(t.log_lower, a * std::log(x), 1e-13);
      expect_close(beta_tails(beta_point_pair(1.0 - x, x), 1.0, a).log_upper, a * std::log(x), 1e-13);
    }
  }
}

TEST(ClosedForm, CauchyFarBeyondTheSquareRootOfTheLargestNumber)
{
  for (double t : {1e10, 1e160, 1e300}) {
    const Tails far = student_tails(t, 1.0);
    expect_close(far.log_upper, -std::log(pi * t), 1e-14);
    expect_close(far.log_density, -std::log(pi) - 2.0 * std::log(t), 1e-14);
    expect_close(student_quantile(upper_target(1.0 / (pi * t)), 1.0), t, 1e-12);
  }
  expect_close(student_tails(-1e-20, 1.0).lower, 0.5, 1e-15);
  double q;
  for (double p : {1e-300, 0.1, 0.4999999, 0.5000001, 0.75, 0.9999}) {
    ASSERT_EQ(zqt(p, 1.0, &q), 0);
    // tan(pi (p - 1/2)), in the half where its argument is not close to a pole
    const double truth = p < 0.25   ? -1.0 / std::tan(pi * p)
                         : p > 0.75 ? 1.0 / std::tan(pi * (1.0 - p))
                                    : std::tan(pi * (p - 0.5));
    expect_close(q, truth, 1e-13);
  }
}

TEST(ClosedForm, FWithTwoNumeratorDegreesIsAPower)
{
  for (double ddf : {0.5, 3.0, 1e4, 1e12})
    for (double f : {1e-12, 0.7, 30.0})
      expect_close(f_tails(f, 2.0, ddf).log_upper, -0.5 * ddf * std::log1p(2.0 * f / ddf), 1e-13);
  expect_close(f_tails(3.0, 2.0, inf).upper, std::exp(-3.0), 1e-15);
  expect_close(f_quantile(upper_target(1e-40), 2.0, 8.0), 4.0 * (std::pow(1e-40, -0.25) - 1.0), 1e-13);
}

TEST(ClosedForm, StudentWithoutEndIsNormal)
{
  double q;
  ASSERT_EQ(zqt(0.975, 1e9, &q), 0);
  const double z = 1.959963984540054;
  expect_close(q, z + (z * z * z + z) / 4e9, 1e-15);
  ASSERT_EQ(zqt(0.975, inf, &q), 0);
  EXPECT_EQ(q, zprobit(0.975));
  // the search below the switch to the expansion and the expansion above it meet
  double below, above;
  for (double p : {1e-12, 0.3, 0.4999, 0.99}) {
    ASSERT_EQ(zqt(p, 0.9999999e10, &below), 0);
    ASSERT_EQ(zqt(p, 1.0000001e10, &above), 0);
    expect_close(above, below, 2e-15);
  }
}

TEST(ClosedForm, NoncentralChiSquareOfOneDegreeIsAShiftedNormal)
{
  for (double nc : {0.01, 1.0, 40.0, 3000.0, 2e6}) {
    const double shift = std::sqrt(nc);
    for (double root : {0.1 * shift, shift - 2.0, shift, shift + 6.0}) {
      if (root <= 0.0) continue;
      const double x = root * root;
      double pl, pr, lpl, lpr, ld;
      ASSERT_EQ(zplbcnc(x, 1.0, nc, &pl, &pr), 0);
      ASSERT_EQ(zlogcnc(x, 1.0, nc, &lpl, &lpr), 0);
      ASSERT_EQ(zldncnc(x, 1.0, nc, &ld), 0);
      const double r = std::sqrt(x);
      expect_close(pr, zprbnrm(shift - r) + zprbnrm(-shift - r), 1e-10);
      EXPECT_NEAR(pl + pr, 1.0, 1e-12);
      // log of the density (phi(r - shift) + phi(r + shift))/(2 r)
      const double truth = -0.5 * (r - shift) * (r - shift) + std::log1p(std::exp(-2.0 * r * shift)) -
                           std::log(2.0 * r) - 0.91893853320467274;
      EXPECT_NEAR(ld, truth, 1e-10 * std::max(1.0, std::fabs(truth)));
    }
  }
}

TEST(ClosedForm, NoncentralChiSquareFarInTheTailsAndAtItsEnds)
{
  double lpl, lpr, ld, central_l, central_r;
  ASSERT_EQ(zlogcnc(900.0, 1.0, 1e4, &lpl, &lpr), 0); // 70 standard deviations below
  double log_phi, other, density;
  zlognrm(30.0 - 100.0, &log_phi, &other, &density);
  expect_close(lpl, log_phi, 1e-12);
  ASSERT_EQ(zlogcnc(3.0, 5.0, 0.0, &central_l, &central_r), 0);
  expect_close(central_l, chi_square_tails(3.0, 5.0).log_lower, 0.0);
  ASSERT_EQ(zldncnc(0.0, 2.0, 3.0, &ld), 0);
  expect_close(ld, -1.5 - std::log(2.0), 1e-15);
  EXPECT_EQ(zlogcnc(-1.0, 1.0, 1.0, &lpl, &lpr), 1);
  EXPECT_TRUE(std::isnan(lpl));
  double log_i;
  for (double x : {1e-3, 2.0, 500.0}) { // I(1/2, x) = sqrt(2/(pi x)) sinh x
    ASSERT_EQ(zibess(0.5, x, &log_i), 0);
    EXPECT_NEAR(log_i, 0.5 * std::log(2.0 / (pi * x)) + x + std::log(-std::expm1(-2.0 * x) / 2.0),
                1e-13 * std::max(1.0, x));
  }
}

TEST(ClosedForm, LogarithmWithoutItsLinearTerm)
{
  for (double v : {-0.9, -0.51, -0.5, -0.3, -0.01, -1e-3, 1e-3, 0.01, 0.2, 0.75, 0.76, 3.0})
    expect_close(log1p_minus(v), static_cast<double>(std::log1p(static_cast<long double>(v)) - v), 6e-16);
  expect_close(log1p_minus(1e-9), -5e-19 * (1.0 - 2e-9 / 3.0), 3e-16);
}

TEST(ClosedForm, MultivariateGammaAndBeta)
{
  EXPECT_EQ(zlgammaMV(3.25, 1), zlgamma(3.25));
  // Gamma_2(a) = sqrt(pi) Gamma(a) Gamma(a - 1/2) = 2^(2-2a) pi Gamma(2a - 1)
  expect_close(zlgammaMV(7.3, 2), (2.0 - 14.6) * std::log(2.0) + std::log(pi) + zlgamma(13.6), 1e-14);
  expect_close(zlbetaMV(4.0, 6.5, 3), zlgammaMV(4.0, 3) + zlgammaMV(6.5, 3) - zlgammaMV(10.5, 3), 1e-13);
  EXPECT_TRUE(std::isnan(zlgammaMV(1.0, 3)));
  EXPECT_TRUE(std::isnan(zlbetaMV(0.9, 5.0, 3)));
}

TEST(Ends, NormalDistribution)
{
  EXPECT_EQ(zprbnrm(0.0), 0.5);
  EXPECT_EQ(zprobit(0.5), 0.0);
  expect_close(zprobit(0.5 + 0x1p-40), 0x1p-40 * std::sqrt(2.0 * pi), 1e-15);
  EXPECT_EQ(zprobit(0.0), -37.64030867301702); // fixed values, not limits
  EXPECT_EQ(zprobit(1.0), 7.941345326170997);
  EXPECT_TRUE(std::isnan(zprobit(-1e-300)) && std::isnan(zprobit(1.0 + 1e-15)) && std::isnan(zprobit(nan_value)));
  double a, b, c;
  EXPECT_EQ(zlognrm(inf, &a, &b, &c), 1);
  EXPECT_EQ(zlognrm(1e8, &a, &b, &c), 0);
  EXPECT_EQ(b, -5e15 - 19.339619272157126);
  EXPECT_EQ(zmillsr(nan_value, &a), 1);
  EXPECT_EQ(zmillsr(1e200, &a), 0);
  EXPECT_EQ(a, 1e-200);
  EXPECT_EQ(zlognrm(normal_quantile_log(-1e6), &a, &b, &c), 0); // a probability far below the numbers
  expect_close(a, -1e6, 1e-14);
  EXPECT_EQ(normal_quantile_log(0.0), inf);
  EXPECT_EQ(normal_quantile_log(-1e-30), -zprobit(1e-30));
}

TEST(Ends, IncompleteFunctions)
{
  double p, pr, d;
  struct {
    double x, a, b, p, d;
  } const ends[] = {{0, 0.5, 3, 0, inf}, {0, 1, 3, 0, 3}, {0, 2, 3, 0, 0},
                    {1, 3, 0.5, 1, inf}, {1, 3, 1, 1, 3}, {1, 2, 3, 1, 0}};
  for (const auto& e : ends) {
    ASSERT_EQ(zibeta(e.x, e.a, e.b, &p, &d), 0);
    EXPECT_EQ(p, e.p);
    EXPECT_DOUBLE_EQ(d, e.d);
  }
  for (double bad : {-0.1, 1.1, nan_value}) EXPECT_EQ(zibeta(bad, 1, 1, &p, &d), 1);
  for (double bad : {-1.0, 0.0, 9007199254740994.0, inf, nan_value}) {
    EXPECT_EQ(zibeta(0.5, bad, 1, &p, &d), 1);
    EXPECT_EQ(zibeta(0.5, 1, bad, &p, &d), 1);
  }
  EXPECT_TRUE(std::isnan(p) && std::isnan(d)); // no stale value behind a failure

  ASSERT_EQ(zigamma(2.0, 0.0, &p, &pr, &d), 0); // no shape: all mass at 0
  EXPECT_TRUE(p == 1.0 && pr == 0.0 && d == 0.0);
  ASSERT_EQ(zigamma(0.0, 0.5, &p, &pr, &d), 0);
  EXPECT_TRUE(p == 0.0 && pr == 1.0 && d == inf);
  ASSERT_EQ(zigamma(inf, 0.5, &p, &pr, &d), 0);
  EXPECT_TRUE(p == 1.0 && pr == 0.0 && d == 0.0);
  for (double bad : {-1.0, nan_value}) {
    EXPECT_EQ(zigamma(bad, 1.0, &p, &pr, &d), 1);
    EXPECT_EQ(zigamma(1.0, bad, &p, &pr, &d), 1);
  }
}

TEST(Ends, CodesOfTailsAndQuantiles)
{
  EXPECT_EQ(zprbf(0, 1, 5), 1.0);
  EXPECT_EQ(zprbf(1, 1, 0), -1.0);
  EXPECT_EQ(zprbf(-1, 1, 5), -1.0);
  EXPECT_EQ(zprbf(nan_value, 1, 5), -1.0);
  EXPECT_EQ(zprbf(inf, 1, 5), 0.0);
  EXPECT_EQ(zpgt2(4.0, 7.0), zprbf(4.0, 1.0, 7.0));
  expect_close(zpgt2(4.0, 1e18), 2.0 * zprbnrm(-2.0), 1e-14); // far more degrees of freedom than zibeta takes
  double q = 17.0;
  EXPECT_EQ(zpgt2New(-1.0, 3.0, &q), -1);
  EXPECT_TRUE(std::isnan(q));
  q = 17.0;
  for (double p : {0.0, 1.0, -0.5, 1.5, nan_value}) EXPECT_EQ(zqt(p, 4.0, &q), 1);
  EXPECT_EQ(zqt(0.5, 0.0, &q) + zqt(0.5, nan_value, &q), 2);
  EXPECT_EQ(zqc(-0.1, 3.0, &q) + zqc(1.0, 3.0, &q) + zqc(0.5, 0.0, &q) + zqcl(0.1, 3.0, &q), 4);
  EXPECT_EQ(zprobin(0.5, 0.0, 1.0, &q) + zprobin(1.5, 1.0, 1.0, &q), 2);
  EXPECT_EQ(q, 17.0); // a refused quantile leaves the result alone
  ASSERT_EQ(zqt(0.5, 0.7, &q), 0);
  EXPECT_EQ(q, 0.0);
  ASSERT_EQ(zqc(0.0, 3.0, &q), 0);
  EXPECT_EQ(q, 0.0);
  ASSERT_EQ(zprobin(1.0, 2.0, 3.0, &q), 0);
  EXPECT_EQ(q, 1.0);
  ASSERT_EQ(zqcl(-1e-30, 2.0, &q), 0); // -2 log of the upper tail, which only the logarithm can say
  expect_close(q, 60.0 * std::log(10.0), 1e-14);
}

} // namespace
} // namespace torvale::probability
