#include "reference_problems.h"

#include <gmock/gmock.h>

#include <cmath>

using namespace torvale::test;

// Before any optimizer runs: the objectives and their derivatives are those of the reference file.
TEST(ReferenceProblems, ObjectivesAgreeWithTheFile)
{
  ASSERT_EQ(reference_problems().size(), 49u);
  for (const Problem& p : reference_problems()) {
    SCOPED_TRACE(p.name);
    EXPECT_NEAR(p.value(p.start.data()), p.start_value, 1e-12 * std::max(1.0, std::abs(p.start_value)));
    if (p.check_point.empty()) continue;
    EXPECT_NEAR(p.value(p.check_point.data()), p.check_value, 1e-12 * std::max(1.0, std::abs(p.check_value)));
    std::vector<double> g(static_cast<std::size_t>(p.n));
    p.gradient(p.check_point.data(), g.data());
    for (std::size_t i = 0; i < p.check_gradient.size(); ++i)
      EXPECT_NEAR(g[i], p.check_gradient[i], 1e-11 * std::max(1.0, std::abs(p.check_gradient[i]))) << i;
  }
}
