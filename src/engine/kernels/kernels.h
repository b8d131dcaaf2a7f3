#pragma once
// Lane kernels: every operation of a specialised program, as a loop over an array of lanes.
//
// The same sources are built for three instruction sets, and the best one that the processor has is chosen at start.
// A lane's result depends on that lane's operands alone, so packing lanes in another way gives the same bits. AVX2 and
// AVX-512 agree with each other to the last bit; the baseline build, without fused operations, may differ in the last
// places of transcendental functions.
//
// Values: every NaN is a missing value, and comes out of arithmetic as some NaN (`canonical` makes it the ordinary
// missing value). A domain error or a division by zero gives a NaN where no operand is one: that is how a fault is
// found. Masks and comparison results are 1 or 0, never missing.

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace torvale::engine {

// Lane counts are multiples of this; lane arrays begin on 64-byte boundaries.
inline constexpr int lane_padding = 8;

// What a kernel does, with operands a, b, c, ... in order. "Missing" is a NaN of any kind.
// Operations of a kind on neighbouring lines.
// clang-format off
enum class Kernel : std::uint16_t {
  copy,                 // a
  canonical,            // a; the ordinary missing value in place of a NaN that is not a missing value

  // Arithmetic. The fused forms round twice, like the two operations they stand for.
  add, subtract, multiply,
  divide,               // a / b; missing when b is 0
  divide_unchecked,     // a / b by the rules of the hardware: for a divisor that cannot be 0
  negate,
  multiply_add,         // a * b + c
  multiply_subtract,    // a * b - c
  subtract_product,     // c - a * b
  reciprocal,           // 1 / a; missing when a is 0
  reciprocal_or_zero,   // 1 / a; 0 when a is 0: in derivatives at removable points
  square, cube,
  positive_part,        // a above 0, else 0
  sqrt,                 // missing below 0
  absolute,
  sign,                 // -1, 0, 1
  side,                 // -1 below 0, else 1: the derivative of absolute
  power,                // a ** b; 0 ** 0 is 1; missing for 0 ** negative and negative ** fraction
  power_or_zero,        // the same with 0 for 0 ** negative: in derivatives at removable points
  log_or_zero,          // log a; 0 when a is 0: in derivatives at removable points

  // Parameters of distributions: a itself, missing outside the range.
  positive, nonnegative, probability,

  // Least and greatest.
  least_ordered,        // a >< b: a missing value is below every number, so it wins
  least,                // MIN: a missing operand is passed over
  greatest,             // MAX and a <> b: a missing operand is passed over

  // Rounding. An argument below 1e9 within 1e-12, or 4 units in the last place, of a whole number counts as that one.
  floor, ceil, truncate,
  round,                // half away from 0
  round_to,             // a to the nearest multiple of b; missing when b is 0
  modulo,               // a - b * truncate(a / b), with the sign of a; missing when b is 0

  // Comparisons that are exact for missing values: below every number, equal to each other. 1 or 0.
  less, less_equal, equal, not_equal, greater, greater_equal,
  // The same where no operand can be missing.
  less_known, less_equal_known, equal_known, not_equal_known, greater_known, greater_equal_known,

  // Masks (operands of and_, or_, not_, select: 1 or 0).
  truth,                // 1 when a is neither 0 nor missing
  and_, or_, not_,
  and_not,              // a and not b
  select,               // a ? b : c, with a mask a
  select_or_zero,       // a ? b : 0
  is_missing, is_present,
  zero_if_missing,      // a, or 0 when a is missing: the terms of SUM
  coalesce,             // a, or b when a is missing
  missing_rank,         // -28 for ._, -27 for . and every other NaN, -26 to -1 for .A to .Z; 0 when a is present
  ordinary_missing,     // a; the ordinary missing value in place of any missing value

  // Elementary functions: at most 1 ulp; missing outside the domain.
  exp, expm1, log, log1p, log2, log10,
  log_or_minus_infinity, // log a; -infinity when a is 0: log probabilities
  log_one_minus_exp,    // log(1 - exp(a)), a <= 0
  sin, cos, tan, asin, acos, atan,
  sinh, cosh, tanh, asinh, acosh, atanh,
  atan2,                // of a / b
  erf, erfc,            // 1.5 ulp
  logistic,             // 1 / (1 + exp(-a))
  softplus,             // log(1 + exp(a))
  exp_of_factors,       // a * b, or exp(c) where that is missing: exponentials of sums whose parts vary less often
  log1p_fraction,       // log(1 + a) for 0 <= a <= 1, given b = 1 + a and c = 1 / b: a part of softplus
  logit,                // log(a / (1 - a)); missing outside (0, 1)
  log_add_exp,          // log(exp(a) + exp(b))

  exp_mean,             // integral of u**i (1 - u)**j exp(-(a u + b (1 - u))) for u in 0 to 1; c = exp(-a), d = exp(-b),
                        // e = 10 i + j

  // Linear systems of compartments (lane_compartments.h).
  cubic_root,           // root d (1 the largest) of x**3 - a x**2 + b x - c, whose roots are real and none negative
  compartment_response, // what a system answers to a dose, by the number a (CompartmentResponse), the time b, the rate c
                        // of the depot, the coefficients d, e, f of its polynomial and the roots g, h, i of that

  // Gamma family. Missing at the poles 0, -1, -2, ...
  gamma, lgamma,        // lgamma is log |gamma(a)|
  digamma, trigamma, tetragamma, pentagamma, hexagamma, // derivatives 1 to 5 of lgamma
  lgamma_ratio,         // lgamma(a + b) - lgamma(a), without cancellation where a > 0, a + b > 0
  digamma_ratio,        // digamma(a + b) - digamma(a) likewise
  lbeta,                // log beta(a, b)
  comb,                 // a over b; whole for whole operands

  // Normal distribution.
  normal_pdf, normal_cdf, normal_log_cdf, normal_quantile,
  normal_hazard,        // pdf(a) / cdf(a): the derivative of the log cdf
  normal_hazard_excess, // a + pdf(a) / cdf(a), without cancellation for a far below 0

  // Incomplete gamma integral at x = a with shape b: lower and upper tail, their logs; derivatives of the logs by the
  // shape, whose order is operand c (1, 2 or 3).
  gamma_lower, gamma_upper, log_gamma_lower, log_gamma_upper,
  log_gamma_lower_by_shape, log_gamma_upper_by_shape,
  gamma_log_density,    // the log of the density
  gamma_quantile, gamma_upper_quantile, // x whose lower (upper) tail is a, with shape b

  // Incomplete beta integral at x = a with shapes b and c, given d = 1 - x too; derivatives of the logs by the shapes,
  // whose orders are operands e (by b) and f (by c), 1 to 3 in sum.
  beta_lower, beta_upper, log_beta_lower, log_beta_upper,
  log_beta_lower_by_shapes, log_beta_upper_by_shapes,
  beta_log_density,     // the log of the density
  beta_quantile,        // x whose lower tail is a, with shapes b and c
  beta_quantile_complement, // 1 - x of it, without cancellation

  // Student's t at a with b degrees of freedom: lower tail, its log, derivatives of the log by b, of order c (1 to 3).
  t_lower, log_t_lower, log_t_lower_by_df,

  // Quantiles with no simpler form.
  t_quantile,           // p = a, degrees of freedom b
  binomial_quantile,    // p = a, trials b, probability c
  poisson_quantile,     // p = a, mean b
  negative_binomial_quantile, // p = a, size b, probability of success c

  // Random numbers: operands seed, observation, call site, count. The same for equal operands, whatever the packing.
  uniform_random,       // in (0, 1)
  normal_random,        // standard normal

  count_                // number of kernels
};

// clang-format on
inline constexpr std::size_t kernel_count = static_cast<std::size_t>(Kernel::count_);
inline constexpr int kernel_operands_max = 9;

// What compartment_response computes: the function of time whose Laplace transform is
//     s**power / (s**input (s + ka)**depot P(s)**system),   P(s) = s**n + p1 s**(n-1) + ... + pn,   n at most 3,
// from the roots of P (given as -l1 <= -l2 <= -l3, that is l1 the largest), which need not differ, nor differ from ka
// or 0. Derivatives by the coefficients are responses again: no derivative of a root is ever formed, and a double root
// is a point like any other. Written as one number, so that a program can hold it.
struct CompartmentResponse {
  int n = 0, input = 0, depot = 0, system = 1, power = 0;
  double number() const { return n + 10 * input + 100 * depot + 1000 * system + 10000 * power; }
  static CompartmentResponse of(double number)
  {
    const int k = static_cast<int>(number);
    return {k % 10, k / 10 % 10, k / 100 % 10, k / 1000 % 10, k / 10000};
  }
  int poles() const { return input + depot + n * system; }
  bool valid() const { return n >= 1 && n <= 3 && poles() >= 1 && poles() <= most_poles && power <= most_power; }
  static constexpr int most_poles = 24, most_power = 24;
};

// A kernel: out[i] = f(in[0][i], in[1][i], ...), i < n. n is a multiple of lane_padding, every array begins on a
// 64-byte boundary; out may be one of the operands, but must not overlap one otherwise.
using KernelFn = void (*)(double* out, const double* const* in, int n);

// A kernel on one vector, operands and result in vector registers: Lanes (*)(Lanes, ...) of its build, for machine code
// that calls it. Null for a kernel that is only a loop.
using VectorFn = void (*)();

// One build of the kernels.
struct KernelTable {
  const char* isa = ""; // "baseline", "avx2", "avx512"
  KernelFn fn[kernel_count] = {};
  VectorFn vector[kernel_count] = {};
  // exp_mean of one order 10 i + j where its rates are near each other, from b - a and d; null where i + j is above the
  // most.
  static constexpr int most_mean_order = 4;
  VectorFn mean[10 * most_mean_order + 1] = {};
  KernelFn operator[](Kernel k) const { return fn[static_cast<std::size_t>(k)]; }
};

// The build in use: the best that the processor has, unless set_kernels chose another. Choose before threads run.
const KernelTable& kernels();
// Chooses a build by name; false, and nothing changes, when the processor or this program lacks it.
bool set_kernels(std::string_view isa);
// Every build that this processor can run, best last. n receives their number.
const KernelTable* const* usable_kernels(int& n);

// What is known of a kernel beside its code.
struct KernelInfo {
  std::string_view name; // as in listings: the enumerator
  int operands = 0;
  std::string_view fault; // what went wrong when it gives a missing value from present operands; empty: it cannot
};
const KernelInfo& kernel_info(Kernel k);

// One value by the kernel in use, bit for bit what a lane gets. At most kernel_operands_max operands.
double run_kernel(Kernel k, const double* operands);

// Tests on masks of n lanes.
bool any_true(const double* mask, int n);
bool all_true(const double* mask, int n);

} // namespace torvale::engine
