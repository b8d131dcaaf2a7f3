#include "engine/kernels/lane_arrays.h"

#include <gtest/gtest.h>

#include <cmath>

namespace torvale::engine {
namespace {

struct Case {
  Kernel kernel;
  std::vector<double> operands;
  double expected;
};

// What is whole but for rounding counts as whole: 0.3 / 0.1 is 2.9999999999999996.
// A table, by kernel.
// clang-format off
const Case cases[] = {
    {Kernel::floor, {2.5}, 2},           {Kernel::floor, {-2.5}, -3},       {Kernel::floor, {0.3 / 0.1}, 3},
    {Kernel::floor, {-1e-14}, 0},        {Kernel::floor, {2.99999}, 2},
    {Kernel::floor, {4503599627370497.5}, 4503599627370497.0},
    {Kernel::ceil, {2.1}, 3},            {Kernel::ceil, {-2.1}, -2},        {Kernel::ceil, {3.0000000000000004}, 3},
    {Kernel::truncate, {-2.7}, -2},      {Kernel::truncate, {0.3 / 0.1}, 3}, {Kernel::truncate, {1e300}, 1e300},
    {Kernel::round, {2.5}, 3},           {Kernel::round, {-2.5}, -3},       {Kernel::round, {0.49999999999}, 0},
    {Kernel::round, {1e15 + 1}, 1e15 + 1}, {Kernel::round, {0.0}, 0},
    {Kernel::round_to, {0.285, 0.01}, 0.29}, {Kernel::round_to, {1.234, 0.1}, 1.2}, {Kernel::round_to, {17, 5}, 15},
    {Kernel::round_to, {-17.5, 5}, -20}, {Kernel::round_to, {0.37, 0.25}, 0.25},
    {Kernel::modulo, {7, 3}, 1},         {Kernel::modulo, {-7, 3}, -1},     {Kernel::modulo, {7, -3}, 1},
    {Kernel::modulo, {0.3, 0.1}, 0},     {Kernel::modulo, {1e20, 3}, 1},    {Kernel::modulo, {5.5, 2}, 1.5},
    {Kernel::sign, {-3}, -1},            {Kernel::sign, {0}, 0},            {Kernel::side, {0}, 1},
    {Kernel::positive_part, {-2}, 0},    {Kernel::positive_part, {2}, 2},   {Kernel::comb, {5, 2}, 10},
    {Kernel::comb, {50, 25}, 126410606437752.0}, {Kernel::comb, {40, 20}, 137846528820.0}, {Kernel::gamma, {6}, 120},
    {Kernel::gamma, {19}, 6402373705728000.0}, {Kernel::power, {2, 10}, 1024}, {Kernel::power, {0, 0}, 1},
};
// clang-format on

TEST(KernelRounding, RoundingAllowsForRepresentationError)
{
  for (const KernelTable* build : builds())
    for (const Case& c : cases)
      EXPECT_NEAR(run_one(*build, c.kernel, c.operands), c.expected, c.expected > 1e13 ? 1e-14 * c.expected : 0.0)
          << build->isa << " " << kernel_info(c.kernel).name << " of " << c.operands[0];
}

// The fused forms round twice, so that taking one instead of two operations changes no bit.
TEST(KernelRounding, FusedFormsEqualTheTwoOperations)
{
  const double a = 1.0 + 0x1p-30, b = 1.0 - 0x1p-30, c = -1.0; // a * b rounds to 1
  for (const KernelTable* build : builds()) {
    EXPECT_EQ(run_one(*build, Kernel::multiply_add, {a, b, c}), 0.0) << build->isa;
    EXPECT_EQ(run_one(*build, Kernel::multiply_subtract, {a, b, -c}), 0.0);
    EXPECT_EQ(run_one(*build, Kernel::subtract_product, {a, b, -c}), 0.0);
  }
}

} // namespace
} // namespace torvale::engine
