#include "engine/kernels/lane_arrays.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

// Kernels of linear systems of compartments, in every build: equal and nearly equal rates, rates of 0, rates 1e6 apart.

namespace torvale::engine {
namespace {

TEST(CompartmentKernels, ResponsesAgreeWithThirtyDigits)
{
  const ReferenceTable table = read_reference("compartment_responses");
  std::vector<std::vector<double>> in;
  for (const char* const name : {"which", "t", "ka"}) in.push_back(table.numbers(name));
  for (int k = 0; k < 3; ++k) in.emplace_back(table.rows(), 0.0); // coefficients: only derivatives need them
  for (const char* const name : {"l1", "l2", "l3"}) in.push_back(table.numbers(name));
  const auto truth = table.truths("value"), size = table.truths("size");
  for (const KernelTable* const build : builds())
    for (std::size_t i = 0; i < table.rows(); ++i) {
      std::vector<double> operands;
      for (const auto& column : in) operands.push_back(column[i]);
      const double got = run_one(*build, Kernel::compartment_response, operands);
      EXPECT_LE(std::fabs(got - truth[i]), 1e-13L * size[i] + 1e-300L)
          << build->isa << " row " << i + 2 << ": " << got << ", not " << static_cast<double>(truth[i]);
    }
}

TEST(CompartmentKernels, MeansOfExponentialsKeepTheirDigits)
{
  std::mt19937_64 random(3);
  std::uniform_real_distribution<double> exponent(-18, 2.5), side(0, 1);
  for (const KernelTable* const build : builds())
    for (int trial = 0; trial < 4000; ++trial) {
      const double x = (side(random) < 0.7 ? 1 : -1) * std::pow(10.0, exponent(random));
      const double y = trial % 2 == 0 ? 0.0 : std::pow(10.0, exponent(random));
      const long double d = static_cast<long double>(y) - x;
      const long double mean = std::exp(-static_cast<long double>(x)) * (d == 0 ? 1.0L : -std::expm1(-d) / d);
      const double ex = run_one(*build, Kernel::exp, {-x}), ey = run_one(*build, Kernel::exp, {-y});
      const auto got = [&](double order) { return run_one(*build, Kernel::exp_mean, {x, y, ex, ey, order}); };
      // The rounding of x - y is relative to them, as that of the exponentials is.
      EXPECT_LE(std::fabs(got(0.0) - mean), 1e-15L * mean * (1 + std::fabs(x) / 100)) << build->isa << " " << x << " " << y;
      if (trial % 200 > 1 || std::fabs(d) > 20) continue;
      for (const int order : {10, 1, 20, 11, 2, 30, 3, 22}) { // the moments, by Simpson's rule
        constexpr int steps = 2000;
        long double sum = 0.0L;
        for (int k = 0; k <= steps; ++k) {
          const long double u = static_cast<long double>(k) / steps;
          sum += (k == 0 || k == steps ? 1 : k % 2 == 1 ? 4 : 2) * std::pow(u, order / 10) *
                 std::pow(1 - u, order % 10) * std::exp(-(u * x + (1 - u) * y));
        }
        sum /= 3.0L * steps;
        EXPECT_LE(std::fabs(got(order) - sum), 1e-9L * sum) << build->isa << " " << x << " " << y << " " << order;
      }
    }
}

TEST(CompartmentKernels, CubicRootsAreThoseOfTheirPolynomial)
{
  std::mt19937_64 random(4);
  std::uniform_real_distribution<double> decade(-4, 2), tiny(-15, -2);
  for (const KernelTable* const build : builds())
    for (int trial = 0; trial < 3000; ++trial) {
      long double x[3] = {std::pow(10.0L, decade(random)), std::pow(10.0L, decade(random)),
                          std::pow(10.0L, decade(random))};
      const bool close = trial % 3 == 1;
      if (close) x[1] = x[0] * (1.0L + std::pow(10.0L, tiny(random)));
      if (trial % 3 == 2) x[trial % 2] = 0.0L;
      std::sort(x, x + 3, std::greater<>());
      const double a = static_cast<double>(x[0] + x[1] + x[2]);
      const double b = static_cast<double>(x[0] * x[1] + x[0] * x[2] + x[1] * x[2]);
      const double c = static_cast<double>(x[0] * x[1] * x[2]);
      long double r[3];
      for (int k = 0; k < 3; ++k) r[k] = run_one(*build, Kernel::cubic_root, {a, b, c, k + 1.0});
      // The roots reproduce the coefficients, however close they are; apart, each is right itself.
      EXPECT_NEAR(static_cast<double>((r[0] + r[1] + r[2]) / a), 1.0, 5e-14);
      EXPECT_NEAR(static_cast<double>(r[0] * r[1] + r[0] * r[2] + r[1] * r[2]), b, 5e-14 * b);
      EXPECT_NEAR(static_cast<double>(r[0] * r[1] * r[2]), c, 5e-14 * c);
      for (int k = 0; !close && k < 3; ++k) {
        const long double gap = std::min(k == 0 ? 1.0L : x[k - 1] / x[k] - 1, k == 2 ? 1.0L : 1 - x[k + 1] / x[k]);
        if (gap > 0.01L) {
          EXPECT_NEAR(static_cast<double>(r[k] - x[k]), 0.0, static_cast<double>(1e-13L * x[k] / gap));
        }
      }
    }
}

} // namespace
} // namespace torvale::engine
