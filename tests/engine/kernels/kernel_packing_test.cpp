#include "engine/kernels/lane_arrays.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <random>

namespace torvale::engine {
namespace {

std::uint64_t bits_of(double x)
{
  return std::isnan(x) ? 0 : std::bit_cast<std::uint64_t>(x);
}

// Operands of every size, with missing values, infinities and the corners of domains among them.
double any_operand(std::mt19937_64& random)
{
  constexpr double corners[] = {0.0,
                                -0.0,
                                1.0,
                                -1.0,
                                0.5,
                                2.0,
                                8.0,
                                1e-300,
                                1e300,
                                std::numeric_limits<double>::infinity(),
                                std::numeric_limits<double>::quiet_NaN(),
                                -20.0,
                                10.0};
  const auto choice = random() % 8;
  if (choice == 0) return corners[random() % std::size(corners)];
  std::uniform_real_distribution<double> unit(0.0, 1.0), wide(-40.0, 40.0);
  if (choice < 4) return unit(random);
  return choice == 4 ? std::round(wide(random)) : wide(random);
}

// A lane has the same bits alone, and at every place among whatever neighbours; and when the result overwrites an
// operand.
TEST(KernelPacking, ALaneDoesNotDependOnItsNeighboursOrItsPlace)
{
  std::mt19937_64 random(11);
  for (const KernelTable* build : builds())
    for (std::size_t k = 0; k < kernel_count; ++k) {
      const auto kernel = static_cast<Kernel>(k);
      const auto count = static_cast<std::size_t>(kernel_info(kernel).operands);
      constexpr std::size_t lanes = 24;
      std::vector<std::vector<double>> columns(count, std::vector<double>(lanes));
      for (auto& column : columns)
        for (double& x : column) x = any_operand(random);
      const std::vector<double> together = run_lanes(*build, kernel, columns);
      for (std::size_t i = 0; i < lanes; ++i) {
        std::vector<double> alone;
        for (const auto& column : columns) alone.push_back(column[i]);
        EXPECT_EQ(bits_of(together[i]), bits_of(run_one(*build, kernel, alone)))
            << build->isa << " " << kernel_info(kernel).name << " lane " << i;
      }
      for (std::size_t target = 0; target < count; ++target) {
        std::vector<LaneArray> in;
        for (const auto& column : columns) {
          in.emplace_back(lanes);
          for (std::size_t i = 0; i < lanes; ++i) in.back()[i] = column[i];
        }
        std::vector<const double*> pointers;
        for (const LaneArray& a : in) pointers.push_back(a.data());
        (*build)[kernel](in[target].data(), pointers.data(), static_cast<int>(lanes));
        for (std::size_t i = 0; i < lanes; ++i)
          EXPECT_EQ(bits_of(in[target][i]), bits_of(together[i]))
              << kernel_info(kernel).name << " over operand " << target;
      }
    }
}

// The two builds with fused multiplication agree to the last bit, so that results are the same on all newer machines.
TEST(KernelPacking, Avx2AndAvx512GiveTheSameBits)
{
  const auto all = builds();
  if (all.size() < 3) GTEST_SKIP() << "this processor runs only " << all.size() << " builds";
  std::mt19937_64 random(12);
  for (std::size_t k = 0; k < kernel_count; ++k) {
    const auto kernel = static_cast<Kernel>(k);
    std::vector<std::vector<double>> columns(static_cast<std::size_t>(kernel_info(kernel).operands),
                                             std::vector<double>(512));
    for (auto& column : columns)
      for (double& x : column) x = any_operand(random);
    const auto a = run_lanes(*all[1], kernel, columns), b = run_lanes(*all[2], kernel, columns);
    for (std::size_t i = 0; i < a.size(); ++i)
      EXPECT_EQ(bits_of(a[i]), bits_of(b[i])) << kernel_info(kernel).name << "(" << columns[0][i] << ")";
  }
}

TEST(KernelPacking, ScalarUseIsTheBuildInUse)
{
  const std::string before = kernels().isa;
  for (const KernelTable* build : builds()) {
    ASSERT_TRUE(set_kernels(build->isa));
    const double x[] = {1.2345, 6.7};
    EXPECT_EQ(run_kernel(Kernel::power, x), run_one(*build, Kernel::power, {x[0], x[1]}));
  }
  EXPECT_FALSE(set_kernels("unknown"));
  EXPECT_TRUE(set_kernels(before));
}

} // namespace
} // namespace torvale::engine
