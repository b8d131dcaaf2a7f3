#include "engine/kernels/lane_arrays.h"
#include "engine/kernels/shape_derivatives.h"

#include <gtest/gtest.h>

#include <cmath>

namespace torvale::engine {
namespace {

// 17-digit derivatives of log tails by shapes (tests/data/special/make_shape_derivatives.py). The stated accuracy is
// 1e-12 relative, 1e-11 for third derivatives.
TEST(ShapeDerivatives, AgreeWithHighPrecisionDifferences)
{
  const ReferenceTable t = read_reference("shape_derivatives");
  ASSERT_GT(t.rows(), 100u);
  const auto x = t.numbers("x"), a = t.numbers("a"), b = t.numbers("b"), i = t.numbers("i"), j = t.numbers("j");
  const auto lower = t.truths("lower"), upper = t.truths("upper");
  for (std::size_t r = 0; r < t.rows(); ++r) {
    const int di = static_cast<int>(i[r]), dj = static_cast<int>(j[r]);
    double got_lower = 0, got_upper = 0;
    if (t.text[r][0] == "gamma") {
      got_lower = log_gamma_tail_by_shape(x[r], a[r], di, false);
      got_upper = log_gamma_tail_by_shape(x[r], a[r], di, true);
    } else if (t.text[r][0] == "beta") {
      got_lower = log_beta_tail_by_shapes(x[r], 1 - x[r], a[r], b[r], di, dj, false);
      got_upper = log_beta_tail_by_shapes(x[r], 1 - x[r], a[r], b[r], di, dj, true);
    } else {
      got_lower = log_t_lower_by_df(x[r], a[r], di);
      got_upper = log_t_lower_by_df(-x[r], a[r], di);
    }
    const double size = std::fmax(1e-4, std::pow(a[r], -di)); // absolute where the derivative itself is near a zero
    const long double tolerance = di + dj == 3 ? 1e-11L : 1e-12L;
    const auto near = [&](double got, long double truth) {
      return std::fabs(got - truth) <= tolerance * (std::fabs(truth) + size);
    };
    EXPECT_TRUE(near(got_lower, lower[r]))
        << t.text[r][0] << " " << x[r] << " " << a[r] << " " << b[r] << " order " << di << " " << dj << ": "
        << got_lower << ", not " << static_cast<double>(lower[r]);
    EXPECT_TRUE(near(got_upper, upper[r]))
        << t.text[r][0] << " " << x[r] << " " << a[r] << " " << b[r] << " order " << di << " " << dj << ": "
        << got_upper << ", not " << static_cast<double>(upper[r]);
  }
}

TEST(ShapeDerivatives, OutsideTheSupportNothingChanges)
{
  EXPECT_EQ(log_gamma_tail_by_shape(0.0, 2.0, 1, false), 0.0);
  EXPECT_EQ(log_beta_tail_by_shapes(1.0, 0.0, 2.0, 3.0, 1, 0, true), 0.0);
  EXPECT_TRUE(std::isnan(log_gamma_tail_by_shape(1.0, -2.0, 1, false)));
  EXPECT_TRUE(std::isnan(log_t_lower_by_df(1.0, 0.0, 1)));
}

} // namespace
} // namespace torvale::engine
