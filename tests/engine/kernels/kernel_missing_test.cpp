#include "engine/kernels/lane_arrays.h"
#include "host/values/missing.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>

namespace torvale::engine {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
const double hardware_nan = std::bit_cast<double>(std::uint64_t{0xFFF8000000000000});

// Every pair of these: numbers, infinities, three kinds of missing values, and what the hardware makes of 0/0.
const std::vector<double> kinds = {
    -infinity, -2.0, -0.0, 0.0, 1.0, 3.5, infinity, host::missing, host::special_missing('A'), hardware_nan};

TEST(KernelMissing, ComparisonsOrderMissingBelowNumbersAndEqualToEachOther)
{
  for (const KernelTable* build : builds())
    for (const double a : kinds)
      for (const double b : kinds) {
        const bool both = std::isnan(a) && std::isnan(b);
        const bool less = !both && (std::isnan(a) || (!std::isnan(b) && a < b));
        const bool equal = both || a == b;
        EXPECT_EQ(run_one(*build, Kernel::less, {a, b}), less) << a << " " << b;
        EXPECT_EQ(run_one(*build, Kernel::less_equal, {a, b}), less || equal) << a << " " << b;
        EXPECT_EQ(run_one(*build, Kernel::equal, {a, b}), equal) << a << " " << b;
        EXPECT_EQ(run_one(*build, Kernel::not_equal, {a, b}), !equal) << a << " " << b;
        EXPECT_EQ(run_one(*build, Kernel::greater, {a, b}), !less && !equal) << a << " " << b;
        EXPECT_EQ(run_one(*build, Kernel::greater_equal, {a, b}), !less) << a << " " << b;
        // The operators >< and <>, and MIN and MAX, which pass over missing values.
        const double low = run_one(*build, Kernel::least_ordered, {a, b}),
                     high = run_one(*build, Kernel::greatest, {a, b});
        EXPECT_EQ(std::isnan(low), std::isnan(a) || std::isnan(b));
        EXPECT_EQ(std::isnan(high), both);
        if (!both) {
          EXPECT_EQ(high, less ? b : a);
        }
        const double least = run_one(*build, Kernel::least, {a, b});
        EXPECT_EQ(std::isnan(least), both);
        if (!std::isnan(a) && !std::isnan(b)) {
          EXPECT_EQ(least, std::fmin(a, b));
        }
      }
}

// The order of the kinds is the host's; what the hardware makes counts as the ordinary missing value.
TEST(KernelMissing, RanksFollowTheOrderOfTheKinds)
{
  std::string letters = "_.ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  for (const KernelTable* build : builds()) {
    for (std::size_t k = 0; k < letters.size(); ++k) {
      const double kind = host::special_missing(letters[k]);
      EXPECT_EQ(run_one(*build, Kernel::missing_rank, {kind}), static_cast<double>(k) - 28.0) << letters[k];
      EXPECT_EQ(std::bit_cast<std::uint64_t>(run_one(*build, Kernel::ordinary_missing, {kind})),
                std::bit_cast<std::uint64_t>(host::missing));
    }
    for (const double nan : {hardware_nan, std::numeric_limits<double>::quiet_NaN()})
      EXPECT_EQ(run_one(*build, Kernel::missing_rank, {nan}), -27.0);
    for (const double number : {-infinity, -0.0, 2.5, infinity}) {
      EXPECT_EQ(run_one(*build, Kernel::missing_rank, {number}), 0.0);
      EXPECT_EQ(run_one(*build, Kernel::ordinary_missing, {number}), number);
    }
  }
}

// Arithmetic and functions never lose a missing operand, whatever the hardware or the library thinks of it.
TEST(KernelMissing, MissingOperandsGiveMissingResults)
{
  const Kernel skipping[] = {Kernel::least,         Kernel::greatest,
                             Kernel::coalesce,      Kernel::zero_if_missing,
                             Kernel::select,        Kernel::select_or_zero,
                             Kernel::truth,         Kernel::is_missing,
                             Kernel::is_present,    Kernel::missing_rank,
                             Kernel::and_,          Kernel::or_,
                             Kernel::not_,          Kernel::and_not,
                             Kernel::less,          Kernel::less_equal,
                             Kernel::equal,         Kernel::not_equal,
                             Kernel::greater,       Kernel::greater_equal,
                             Kernel::less_known,    Kernel::less_equal_known,
                             Kernel::equal_known,   Kernel::not_equal_known,
                             Kernel::greater_known, Kernel::greater_equal_known,
                             Kernel::exp_of_factors};
  for (const KernelTable* build : builds())
    for (std::size_t k = 0; k < kernel_count; ++k) {
      const auto kernel = static_cast<Kernel>(k);
      if (std::find(std::begin(skipping), std::end(skipping), kernel) != std::end(skipping)) continue;
      const auto count = static_cast<std::size_t>(kernel_info(kernel).operands);
      for (std::size_t gap = 0; gap < count; ++gap)
        for (const double others : {0.0, 0.5, 1.0})
          for (const double nan : {host::missing, hardware_nan, -hardware_nan}) {
            std::vector<double> operands(count, others);
            operands[gap] = nan;
            EXPECT_TRUE(std::isnan(run_one(*build, kernel, operands)))
                << build->isa << " " << kernel_info(kernel).name << " operand " << gap << " beside " << others;
          }
    }
}

TEST(KernelMissing, FaultsAreMissingAndLimitsAreNot)
{
  struct Case {
    Kernel kernel;
    std::vector<double> operands;
    bool fault;
  };
  // A table.
  // clang-format off
  const Case cases[] = {
      {Kernel::divide, {1.0, 0.0}, true},       {Kernel::divide, {0.0, -0.0}, true},
      {Kernel::divide, {1.0, infinity}, false},
      {Kernel::reciprocal, {0.0}, true},        {Kernel::reciprocal_or_zero, {0.0}, false}, {Kernel::log, {0.0}, true},
      {Kernel::log, {-1.0}, true},              {Kernel::log, {1e-320}, false},
      {Kernel::log1p, {-1.0}, true},
      {Kernel::log_or_minus_infinity, {0.0}, false}, {Kernel::log_or_minus_infinity, {-1.0}, true},
      {Kernel::log_or_zero, {0.0}, false},      {Kernel::sqrt, {-1e-300}, true},
      {Kernel::sqrt, {-0.0}, false},
      {Kernel::power, {0.0, -1.0}, true},       {Kernel::power, {0.0, 0.0}, false},
      {Kernel::power, {-2.0, 3.0}, false},
      {Kernel::power, {-2.0, 0.5}, true},       {Kernel::power_or_zero, {0.0, -1.0}, false},
      {Kernel::asin, {1.1}, true},
      {Kernel::acosh, {0.9}, true},             {Kernel::atanh, {-1.0}, true},
      {Kernel::lgamma, {0.0}, true},
      {Kernel::lgamma, {-3.0}, true},           {Kernel::lgamma, {-2.5}, false},
      {Kernel::gamma, {-1.0}, true},
      {Kernel::digamma, {-2.0}, true},          {Kernel::trigamma, {0.0}, true},
      {Kernel::logit, {0.0}, true},
      {Kernel::logit, {1.0}, true},             {Kernel::normal_quantile, {0.0}, true},
      {Kernel::normal_quantile, {1.0}, true},
      {Kernel::positive, {0.0}, true},          {Kernel::nonnegative, {0.0}, false},
      {Kernel::probability, {1.0000001}, true},
      {Kernel::modulo, {5.0, 0.0}, true},       {Kernel::round_to, {5.0, 0.0}, true},
      {Kernel::gamma_lower, {1.0, 0.0}, true},
      {Kernel::gamma_lower, {-1.0, 2.0}, false}, {Kernel::beta_lower, {2.0, 1.0, 1.0, -1.0}, false},
      {Kernel::t_lower, {1.0, -1.0}, true},     {Kernel::poisson_quantile, {0.5, -1.0}, true},
      {Kernel::exp, {-infinity}, false},
      {Kernel::logistic, {-infinity}, false},   {Kernel::normal_log_cdf, {-infinity}, false},
      {Kernel::normal_cdf, {infinity}, false},
      {Kernel::log_add_exp, {-infinity, -infinity}, false}, {Kernel::lbeta, {0.0, 1.0}, true},
      {Kernel::comb, {3.0, 5.0}, true},
  };
  // clang-format on
  for (const KernelTable* build : builds())
    for (const Case& c : cases)
      EXPECT_EQ(std::isnan(run_one(*build, c.kernel, c.operands)), c.fault)
          << build->isa << " " << kernel_info(c.kernel).name << " " << c.operands[0];
}

// A kernel that can turn present operands into a missing value can say what happened: the slow path prints it.
TEST(KernelMissing, EveryFaultHasAText)
{
  const KernelTable& build = *builds().back();
  for (std::size_t k = 0; k < kernel_count; ++k) {
    const auto kernel = static_cast<Kernel>(k);
    const KernelInfo& info = kernel_info(kernel);
    for (const double a : {-2.5, -1.0, 0.0, 0.5, 2.0})
      for (const double b : {-1.5, 0.0, 1.0}) {
        std::vector<double> operands(static_cast<std::size_t>(info.operands), b);
        operands[0] = a;
        const bool in_derivatives_only =
            kernel == Kernel::divide_unchecked || kernel == Kernel::power_or_zero || kernel == Kernel::log_or_zero;
        if (std::isnan(run_one(build, kernel, operands)) && !in_derivatives_only) {
          EXPECT_FALSE(info.fault.empty()) << info.name << " " << a << " " << b;
        }
      }
  }
}

// Ends of the range of the logarithms, which are our own: subnormal numbers, infinity, the point where log1p rounds
// away.
TEST(KernelMissing, LogarithmsHoldAtTheEndsOfTheRange)
{
  for (const KernelTable* build : builds()) {
    EXPECT_NEAR(run_one(*build, Kernel::log, {5e-324}), -744.4400719213812, 1e-12);
    EXPECT_NEAR(run_one(*build, Kernel::log, {1.7976931348623157e308}), 709.782712893384, 1e-12);
    EXPECT_EQ(run_one(*build, Kernel::log, {1.0}), 0.0);
    EXPECT_EQ(run_one(*build, Kernel::log, {infinity}), infinity);
    EXPECT_EQ(run_one(*build, Kernel::log1p, {infinity}), infinity);
    EXPECT_EQ(run_one(*build, Kernel::log1p, {1e-300}), 1e-300);
    EXPECT_EQ(run_one(*build, Kernel::log1p, {5e-324}), 5e-324);
    EXPECT_NEAR(run_one(*build, Kernel::log1p, {-0x1.fffffffffffffp-1}), -36.7368005696771, 1e-12);
    EXPECT_EQ(run_one(*build, Kernel::log_or_minus_infinity, {0.0}), -infinity);
  }
}

TEST(KernelMissing, CanonicalKeepsKindsAndReplacesHardwareNans)
{
  for (const KernelTable* build : builds()) {
    const auto bits = [&](double x) { return std::bit_cast<std::uint64_t>(run_one(*build, Kernel::canonical, {x})); };
    for (const double x : {1.5, -0.0, infinity, host::missing, host::special_missing('Z'), host::special_missing('_')})
      EXPECT_EQ(bits(x), std::bit_cast<std::uint64_t>(x));
    EXPECT_EQ(bits(hardware_nan), std::bit_cast<std::uint64_t>(host::missing));
    EXPECT_EQ(bits(-host::missing), std::bit_cast<std::uint64_t>(host::missing)); // its upper bits are 7FFF
  }
}

TEST(KernelMissing, MasksAndSelects)
{
  for (const KernelTable* build : builds()) {
    EXPECT_EQ(run_one(*build, Kernel::truth, {host::missing}), 0.0);
    EXPECT_EQ(run_one(*build, Kernel::truth, {-0.5}), 1.0);
    EXPECT_EQ(run_one(*build, Kernel::not_, {0.0}), 1.0);
    EXPECT_EQ(run_one(*build, Kernel::or_, {0.0, 1.0}), 1.0);
    EXPECT_EQ(run_one(*build, Kernel::and_not, {1.0, 1.0}), 0.0);
    EXPECT_EQ(run_one(*build, Kernel::and_not, {1.0, 0.0}), 1.0);
    EXPECT_EQ(run_one(*build, Kernel::select, {0.0, hardware_nan, 2.0}), 2.0); // the other side does not leak
    EXPECT_EQ(run_one(*build, Kernel::select_or_zero, {0.0, hardware_nan}), 0.0);
    EXPECT_EQ(run_one(*build, Kernel::coalesce, {host::missing, 4.0}), 4.0);
  }
  const double none[] = {0, 0, 0}, some[] = {0, 1, 0}, every[] = {1, 1, 1};
  EXPECT_FALSE(any_true(none, 3));
  EXPECT_TRUE(any_true(some, 3));
  EXPECT_FALSE(all_true(some, 3));
  EXPECT_TRUE(all_true(every, 3));
}

} // namespace
} // namespace torvale::engine
