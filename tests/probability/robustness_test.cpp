// Arguments of every kind: the answer is a pair of probabilities or NaN, and it comes at once.

#include "probability/beta.h"
#include "probability/chi_square.h"
#include "probability/discrete.h"
#include "probability/f.h"
#include "probability/gamma.h"
#include "probability/normal.h"
#include "probability/quantiles.h"
#include "probability/special/log_exp.h"
#include "probability/special/log_gamma.h"
#include "probability/special/polygamma.h"
#include "probability/student.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace torvale::probability {
namespace {

constexpr double inf = std::numeric_limits<double>::infinity();
constexpr double nan_value = std::numeric_limits<double>::quiet_NaN();
constexpr double odd[] = {nan_value, -inf,     -1e308, -1.5,   -1.0,  -5e-324, -0.0,  0.0,
                          5e-324,    2.3e-308, 1e-300, 1e-20,  1e-9,  0.3,     0.5,   1.0,
                          1.5,       2.0,      99.999, 100.0,  1e4,   1e9,     1e12,  1e16,
                          1e100,     1e308,    inf,    1e-200, 1e200, -3.0,    -1e20, 0.99999999999999989};

bool nan_or_probabilities(const Tails& t)
{
  if (std::isnan(t.lower)) return std::isnan(t.upper);
  return t.lower >= 0.0 && t.lower <= 1.0 && std::fabs(t.lower + t.upper - 1.0) < 1e-14 && t.log_lower <= 0.0 &&
         t.log_upper <= 0.0 && !std::isnan(t.log_density);
}

TEST(OddArguments, TailsAreProbabilitiesOrNan)
{
  for (double x : odd) {
    EXPECT_TRUE(nan_or_probabilities(normal_tails(x))) << x;
    for (double a : odd) {
      EXPECT_TRUE(nan_or_probabilities(gamma_tails(x, a))) << x << " " << a;
      EXPECT_TRUE(nan_or_probabilities(gamma_tails_at_log(x, a))) << x << " " << a;
      EXPECT_TRUE(nan_or_probabilities(student_tails(x, a))) << x << " " << a;
      EXPECT_TRUE(nan_or_probabilities(poisson_tails(x, a))) << x << " " << a;
      for (double b : odd) {
        EXPECT_TRUE(nan_or_probabilities(beta_tails(beta_point(x), a, b))) << x << " " << a << " " << b;
        EXPECT_TRUE(nan_or_probabilities(beta_tails(beta_point_logit(x), a, b)))
            << "logit " << x << " " << a << " " << b;
        EXPECT_TRUE(nan_or_probabilities(f_tails(x, a, b))) << x << " " << a << " " << b;
        EXPECT_TRUE(nan_or_probabilities(binomial_tails(x, a, b))) << x << " " << a << " " << b;
        EXPECT_TRUE(nan_or_probabilities(negative_binomial_tails(x, a, b))) << x << " " << a << " " << b;
      }
    }
  }
}

TEST(OddArguments, CodesTellWhetherThereIsAValue)
{
  for (double x : odd) {
    for (double a : odd) {
      double p, pr, d;
      int code = zigamma(x, a, &p, &pr, &d);
      EXPECT_EQ(code == 0, !std::isnan(p) && !std::isnan(d)) << x << " " << a;
      double quantile = nan_value;
      code = zqt(x, a, &quantile);
      EXPECT_EQ(code == 0, !std::isnan(quantile)) << x << " " << a;
      for (double b : odd) {
        code = zibeta(x, a, b, &p, &d);
        EXPECT_EQ(code == 0, !std::isnan(p) && !std::isnan(d)) << x << " " << a << " " << b;
        const double f = zprbf(x, a, b);
        EXPECT_TRUE(f == -1.0 || f == -2.0 || (f >= 0.0 && f <= 1.0)) << x << " " << a << " " << b;
        quantile = nan_value;
        code = zprobin(x, a, b, &quantile);
        EXPECT_EQ(code == 0, !std::isnan(quantile)) << x << " " << a << " " << b;
        if (b > 1e5 && b < 1e11) continue; // the sums over a large non-centrality take their time
        double lpl, lpr;
        code = zlogcnc(x, a, b, &lpl, &lpr);
        EXPECT_EQ(code == 0, lpl <= 0.0 && lpr <= 0.0) << x << " " << a << " " << b;
        code = zldncnc(x, a, b, &d);
        EXPECT_EQ(code == 0, !std::isnan(d)) << x << " " << a << " " << b;
      }
    }
  }
}

TEST(OddArguments, QuantilesAndGammaFunctionsEnd)
{
  double sum = 0.0; // the values only have to come; NaN and infinity are among them
  for (double x : odd) {
    sum += normal_quantile_log(x) + zlgamma(x) + log_gamma_1p(x) + zlgbern(x) + polygamma(0, x) + polygamma(3, x) +
           log1p_minus(x);
    for (double a : odd) {
      sum += zlbeta(x, a) + log_gamma_ratio(x, a) + polygamma_difference(1, x, a) + zlnSumOfExp(x, a);
      sum += gamma_quantile(lower_target(x), a) + student_quantile(log_lower_target(x), a) +
             poisson_quantile(lower_target(x), a);
      for (double b : odd)
        sum += binomial_quantile(lower_target(x), a, b) + negative_binomial_quantile(lower_target(x), a, b) +
               f_quantile(lower_target(x), a, b);
    }
  }
  EXPECT_TRUE(std::isnan(sum));
  EXPECT_EQ(zlnSumOfExp(-inf, -inf), -inf);
  EXPECT_EQ(zlnSumOfExp(-inf, 3.0), 3.0);
  EXPECT_EQ(zlnSumOfExp(inf, inf), inf);
}

} // namespace
} // namespace torvale::probability
