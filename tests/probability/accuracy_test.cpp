#include "probability/accuracy.h"

#include <gtest/gtest.h>

namespace torvale::probability {
namespace {

void expect_within_tolerance(const Measurements& all, std::size_t least_rows)
{
  EXPECT_GE(all.size(), least_rows) << "reference tables missing";
  for (const Measurement& m : all) EXPECT_LE(m.error, m.tolerance) << m.function << " at " << m.inputs;
}

TEST(Accuracy, ElementaryFunctions)
{
  expect_within_tolerance(measure_elementary(), 800);
}
TEST(Accuracy, DerivativesOfLogGamma)
{
  expect_within_tolerance(measure_gamma_derivatives(), 340);
}
TEST(Accuracy, NormalDistribution)
{
  expect_within_tolerance(measure_normal(), 950);
}
TEST(Accuracy, IncompleteFunctionsAndTails)
{
  expect_within_tolerance(measure_incomplete(), 1300);
}
TEST(Accuracy, LogarithmsOfFarTails)
{
  expect_within_tolerance(measure_log_tails(), 60);
}
TEST(Accuracy, Quantiles)
{
  expect_within_tolerance(measure_quantiles(), 450);
}

} // namespace
} // namespace torvale::probability
