#include "engine/kernels/kernels.h"

#include "engine/kernels/builds.h"

#include <array>
#include <bit>

namespace torvale::engine {
namespace {

struct InfoRow {
  Kernel kernel;
  KernelInfo info;
};

// One row per kernel, in the order of the enumeration (checked below).
// One row for each kernel.
// clang-format off
constexpr InfoRow info_rows[] = {
    {Kernel::copy, {"copy", 1, ""}},
    {Kernel::canonical, {"canonical", 1, ""}},
    {Kernel::add, {"add", 2, ""}},
    {Kernel::subtract, {"subtract", 2, ""}},
    {Kernel::multiply, {"multiply", 2, ""}},
    {Kernel::divide, {"divide", 2, "division by zero"}},
    {Kernel::divide_unchecked, {"divide_unchecked", 2, ""}},
    {Kernel::negate, {"negate", 1, ""}},
    {Kernel::multiply_add, {"multiply_add", 3, ""}},
    {Kernel::multiply_subtract, {"multiply_subtract", 3, ""}},
    {Kernel::subtract_product, {"subtract_product", 3, ""}},
    {Kernel::reciprocal, {"reciprocal", 1, "division by zero"}},
    {Kernel::reciprocal_or_zero, {"reciprocal_or_zero", 1, ""}},
    {Kernel::square, {"square", 1, ""}},
    {Kernel::cube, {"cube", 1, ""}},
    {Kernel::positive_part, {"positive_part", 1, ""}},
    {Kernel::sqrt, {"sqrt", 1, "square root of a negative number"}},
    {Kernel::absolute, {"absolute", 1, ""}},
    {Kernel::sign, {"sign", 1, ""}},
    {Kernel::side, {"side", 1, ""}},
    {Kernel::power, {"power", 2, "zero to a negative power, or a negative number to a fractional power"}},
    {Kernel::power_or_zero, {"power_or_zero", 2, ""}},
    {Kernel::log_or_zero, {"log_or_zero", 1, ""}},
    {Kernel::positive, {"positive", 1, "parameter that is not above zero"}},
    {Kernel::nonnegative, {"nonnegative", 1, "parameter below zero"}},
    {Kernel::probability, {"probability", 1, "probability outside 0 to 1"}},
    {Kernel::least_ordered, {"least_ordered", 2, ""}},
    {Kernel::least, {"least", 2, ""}},
    {Kernel::greatest, {"greatest", 2, ""}},
    {Kernel::floor, {"floor", 1, ""}},
    {Kernel::ceil, {"ceil", 1, ""}},
    {Kernel::truncate, {"truncate", 1, ""}},
    {Kernel::round, {"round", 1, ""}},
    {Kernel::round_to, {"round_to", 2, "rounding to multiples of zero"}},
    {Kernel::modulo, {"modulo", 2, "remainder of a division by zero"}},
    {Kernel::less, {"less", 2, ""}},
    {Kernel::less_equal, {"less_equal", 2, ""}},
    {Kernel::equal, {"equal", 2, ""}},
    {Kernel::not_equal, {"not_equal", 2, ""}},
    {Kernel::greater, {"greater", 2, ""}},
    {Kernel::greater_equal, {"greater_equal", 2, ""}},
    {Kernel::less_known, {"less_known", 2, ""}},
    {Kernel::less_equal_known, {"less_equal_known", 2, ""}},
    {Kernel::equal_known, {"equal_known", 2, ""}},
    {Kernel::not_equal_known, {"not_equal_known", 2, ""}},
    {Kernel::greater_known, {"greater_known", 2, ""}},
    {Kernel::greater_equal_known, {"greater_equal_known", 2, ""}},
    {Kernel::truth, {"truth", 1, ""}},
    {Kernel::and_, {"and_", 2, ""}},
    {Kernel::or_, {"or_", 2, ""}},
    {Kernel::not_, {"not_", 1, ""}},
    {Kernel::and_not, {"and_not", 2, ""}},
    {Kernel::select, {"select", 3, ""}},
    {Kernel::select_or_zero, {"select_or_zero", 2, ""}},
    {Kernel::is_missing, {"is_missing", 1, ""}},
    {Kernel::is_present, {"is_present", 1, ""}},
    {Kernel::zero_if_missing, {"zero_if_missing", 1, ""}},
    {Kernel::coalesce, {"coalesce", 2, ""}},
    {Kernel::missing_rank, {"missing_rank", 1, ""}},
    {Kernel::ordinary_missing, {"ordinary_missing", 1, ""}},
    {Kernel::exp, {"exp", 1, ""}},
    {Kernel::expm1, {"expm1", 1, ""}},
    {Kernel::log, {"log", 1, "logarithm of a number that is not above zero"}},
    {Kernel::log1p, {"log1p", 1, "LOG1P of a number that is not above -1"}},
    {Kernel::log2, {"log2", 1, "logarithm of a number that is not above zero"}},
    {Kernel::log10, {"log10", 1, "logarithm of a number that is not above zero"}},
    {Kernel::log_or_minus_infinity, {"log_or_minus_infinity", 1, "logarithm of a negative number"}},
    {Kernel::log_one_minus_exp, {"log_one_minus_exp", 1, "logarithm of a negative number"}},
    {Kernel::sin, {"sin", 1, "SIN of an infinite number"}},
    {Kernel::cos, {"cos", 1, "COS of an infinite number"}},
    {Kernel::tan, {"tan", 1, "TAN of an infinite number"}},
    {Kernel::asin, {"asin", 1, "arc sine of a number outside -1 to 1"}},
    {Kernel::acos, {"acos", 1, "arc cosine of a number outside -1 to 1"}},
    {Kernel::atan, {"atan", 1, ""}},
    {Kernel::sinh, {"sinh", 1, ""}},
    {Kernel::cosh, {"cosh", 1, ""}},
    {Kernel::tanh, {"tanh", 1, ""}},
    {Kernel::asinh, {"asinh", 1, ""}},
    {Kernel::acosh, {"acosh", 1, "inverse hyperbolic cosine of a number below 1"}},
    {Kernel::atanh, {"atanh", 1, "inverse hyperbolic tangent of a number not inside -1 to 1"}},
    {Kernel::atan2, {"atan2", 2, ""}},
    {Kernel::erf, {"erf", 1, ""}},
    {Kernel::erfc, {"erfc", 1, ""}},
    {Kernel::logistic, {"logistic", 1, ""}},
    {Kernel::softplus, {"softplus", 1, ""}},
    {Kernel::exp_of_factors, {"exp_of_factors", 3, ""}},
    {Kernel::log1p_fraction, {"log1p_fraction", 3, ""}},
    {Kernel::logit, {"logit", 1, "LOGIT of a number not inside 0 to 1"}},
    {Kernel::log_add_exp, {"log_add_exp", 2, ""}},
    {Kernel::exp_mean, {"exp_mean", 5, "order outside 0 to 44"}},
    {Kernel::cubic_root, {"cubic_root", 4, "polynomial with roots that are not real"}},
    {Kernel::compartment_response, {"compartment_response", 9, "unknown response"}},
    {Kernel::gamma, {"gamma", 1, "gamma function at zero or a negative whole number"}},
    {Kernel::lgamma, {"lgamma", 1, "gamma function at zero or a negative whole number"}},
    {Kernel::digamma, {"digamma", 1, "derivative of the gamma function at zero or a negative whole number"}},
    {Kernel::trigamma, {"trigamma", 1, "derivative of the gamma function at zero or a negative whole number"}},
    {Kernel::tetragamma, {"tetragamma", 1, "derivative of the gamma function at zero or a negative whole number"}},
    {Kernel::pentagamma, {"pentagamma", 1, "derivative of the gamma function at zero or a negative whole number"}},
    {Kernel::hexagamma, {"hexagamma", 1, "derivative of the gamma function at zero or a negative whole number"}},
    {Kernel::lgamma_ratio, {"lgamma_ratio", 2, "gamma function of zero or a negative whole number"}},
    {Kernel::digamma_ratio, {"digamma_ratio", 2, "gamma function of zero or a negative whole number"}},
    {Kernel::lbeta, {"lbeta", 2, "beta function of a number that is not above zero"}},
    {Kernel::comb, {"comb", 2, "binomial coefficient outside its domain"}},
    {Kernel::normal_pdf, {"normal_pdf", 1, ""}},
    {Kernel::normal_cdf, {"normal_cdf", 1, ""}},
    {Kernel::normal_log_cdf, {"normal_log_cdf", 1, ""}},
    {Kernel::normal_quantile, {"normal_quantile", 1, "quantile of a probability not inside 0 to 1"}},
    {Kernel::normal_hazard, {"normal_hazard", 1, ""}},
    {Kernel::normal_hazard_excess, {"normal_hazard_excess", 1, ""}},
    {Kernel::gamma_lower, {"gamma_lower", 2, "gamma distribution outside its domain"}},
    {Kernel::gamma_upper, {"gamma_upper", 2, "gamma distribution outside its domain"}},
    {Kernel::log_gamma_lower, {"log_gamma_lower", 2, "gamma distribution outside its domain"}},
    {Kernel::log_gamma_upper, {"log_gamma_upper", 2, "gamma distribution outside its domain"}},
    {Kernel::log_gamma_lower_by_shape, {"log_gamma_lower_by_shape", 3, "gamma distribution outside its domain"}},
    {Kernel::log_gamma_upper_by_shape, {"log_gamma_upper_by_shape", 3, "gamma distribution outside its domain"}},
    {Kernel::gamma_log_density, {"gamma_log_density", 2, "gamma distribution outside its domain"}},
    {Kernel::gamma_quantile, {"gamma_quantile", 2,
     "quantile of a probability not inside 0 to 1, or a shape that is not above zero"}},
    {Kernel::gamma_upper_quantile, {"gamma_upper_quantile", 2,
     "quantile of a probability not inside 0 to 1, or a shape that is not above zero"}},
    {Kernel::beta_lower, {"beta_lower", 4, "beta distribution outside its domain"}},
    {Kernel::beta_upper, {"beta_upper", 4, "beta distribution outside its domain"}},
    {Kernel::log_beta_lower, {"log_beta_lower", 4, "beta distribution outside its domain"}},
    {Kernel::log_beta_upper, {"log_beta_upper", 4, "beta distribution outside its domain"}},
    {Kernel::log_beta_lower_by_shapes, {"log_beta_lower_by_shapes", 6, "beta distribution outside its domain"}},
    {Kernel::log_beta_upper_by_shapes, {"log_beta_upper_by_shapes", 6, "beta distribution outside its domain"}},
    {Kernel::beta_log_density, {"beta_log_density", 4, "beta distribution outside its domain"}},
    {Kernel::beta_quantile, {"beta_quantile", 3,
     "quantile of a probability not inside 0 to 1, or a shape that is not above zero"}},
    {Kernel::beta_quantile_complement, {"beta_quantile_complement", 3,
     "quantile of a probability not inside 0 to 1, or a shape that is not above zero"}},
    {Kernel::t_lower, {"t_lower", 2, "degrees of freedom that are not above zero"}},
    {Kernel::log_t_lower, {"log_t_lower", 2, "degrees of freedom that are not above zero"}},
    {Kernel::log_t_lower_by_df, {"log_t_lower_by_df", 3, "degrees of freedom that are not above zero"}},
    {Kernel::t_quantile, {"t_quantile", 2,
     "quantile of a probability not inside 0 to 1, or degrees of freedom that are not above zero"}},
    {Kernel::binomial_quantile, {"binomial_quantile", 3,
     "quantile of a probability not inside 0 to 1, or a parameter outside its range"}},
    {Kernel::poisson_quantile, {"poisson_quantile", 2,
     "quantile of a probability not inside 0 to 1, or a mean that is not above zero"}},
    {Kernel::negative_binomial_quantile, {"negative_binomial_quantile", 3,
     "quantile of a probability not inside 0 to 1, or a parameter outside its range"}},
    {Kernel::uniform_random, {"uniform_random", 4, ""}},
    {Kernel::normal_random, {"normal_random", 4, ""}},
};

// clang-format on
consteval bool rows_in_order()
{
  if (std::size(info_rows) != kernel_count) return false;
  for (std::size_t k = 0; k < kernel_count; ++k)
    if (static_cast<std::size_t>(info_rows[k].kernel) != k) return false;
  return true;
}
static_assert(rows_in_order());

// The builds that this processor can run, in order of speed.
struct UsableKernels {
  std::array<const KernelTable*, 3> table{&baseline_kernels(), nullptr, nullptr};
  int n = 1;
  UsableKernels()
  {
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma"))
      table[static_cast<std::size_t>(n++)] = &avx2_kernels();
    if (n == 2 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
        __builtin_cpu_supports("avx512vl"))
      table[static_cast<std::size_t>(n++)] = &avx512_kernels();
#endif
  }
};

const UsableKernels& usable()
{
  static const UsableKernels found;
  return found;
}

const KernelTable*& current()
{
  static const KernelTable* chosen = usable().table[static_cast<std::size_t>(usable().n - 1)];
  return chosen;
}

} // namespace

const KernelTable& kernels()
{
  return *current();
}

bool set_kernels(std::string_view isa)
{
  for (int k = 0; k < usable().n; ++k) {
    const KernelTable* const table = usable().table[static_cast<std::size_t>(k)];
    if (isa != table->isa) continue;
    current() = table;
    return true;
  }
  return false;
}

const KernelTable* const* usable_kernels(int& n)
{
  n = usable().n;
  return usable().table.data();
}

const KernelInfo& kernel_info(Kernel k)
{
  return info_rows[static_cast<std::size_t>(k)].info;
}

double run_kernel(Kernel k, const double* operands)
{
  alignas(64) double lanes[kernel_operands_max][lane_padding];
  const double* in[kernel_operands_max] = {};
  const int count = kernel_info(k).operands;
  for (int o = 0; o < count; ++o) {
    for (double& lane : lanes[o]) lane = operands[o];
    in[o] = lanes[o];
  }
  alignas(64) double out[lane_padding];
  kernels()[k](out, in, lane_padding);
  return out[0];
}

bool any_true(const double* mask, int n)
{
  std::uint64_t bits = 0; // 1 has some bit set, 0 has none
  for (int i = 0; i < n; ++i) bits |= std::bit_cast<std::uint64_t>(mask[i]);
  return bits != 0;
}

bool all_true(const double* mask, int n)
{
  std::uint64_t bits = ~std::uint64_t{0};
  for (int i = 0; i < n; ++i) bits &= std::bit_cast<std::uint64_t>(mask[i]);
  return bits != 0;
}

} // namespace torvale::engine
