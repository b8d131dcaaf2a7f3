// The lane kernels of one instruction set: this file is compiled once for each, with the flags of that set, and its
// table is named accordingly. Only what stands in unnamed namespaces may be used here (see vector.h).

#include "engine/kernels/builds.h"
#include "engine/kernels/lane_arithmetic.h"
#include "engine/kernels/lane_elementary.h"
#include "engine/kernels/lane_gamma.h"
#include "engine/kernels/lane_normal.h"
#include "engine/kernels/scalar_kernels.h"

namespace torvale::engine {
namespace {

// A loop over the lanes. Narrow vectors are taken lane_padding at a time, which n is a multiple of.
template <auto F> void unary(double* out, const double* const* in, int n)
{
  const double* const a = in[0];
  for (int i = 0; i < n; i += lane_padding)
#pragma GCC unroll 4
    for (int j = i; j < i + lane_padding; j += width) store(out + j, F(load(a + j)));
}

template <auto F> void binary(double* out, const double* const* in, int n)
{
  const double *const a = in[0], *const b = in[1];
  for (int i = 0; i < n; i += lane_padding)
#pragma GCC unroll 4
    for (int j = i; j < i + lane_padding; j += width) store(out + j, F(load(a + j), load(b + j)));
}

template <auto F> void ternary(double* out, const double* const* in, int n)
{
  const double *const a = in[0], *const b = in[1], *const c = in[2];
  for (int i = 0; i < n; i += lane_padding)
#pragma GCC unroll 4
    for (int j = i; j < i + lane_padding; j += width) store(out + j, F(load(a + j), load(b + j), load(c + j)));
}

constexpr KernelTable build_table(const char* isa)
{
  KernelTable table;
  table.isa = isa;
  const auto set = [&table](Kernel k, KernelFn f) { table.fn[static_cast<std::size_t>(k)] = f; };
  set(Kernel::copy, unary<lane::copy>);
  set(Kernel::canonical, unary<lane::canonical>);
  set(Kernel::add, binary<lane::add>);
  set(Kernel::subtract, binary<lane::subtract>);
  set(Kernel::multiply, binary<lane::multiply>);
  set(Kernel::divide, binary<lane::divide>);
  set(Kernel::divide_unchecked, binary<lane::divide_unchecked>);
  set(Kernel::negate, unary<lane::negate>);
  set(Kernel::multiply_add, ternary<lane::multiply_add>);
  set(Kernel::multiply_subtract, ternary<lane::multiply_subtract>);
  set(Kernel::subtract_product, ternary<lane::subtract_product>);
  set(Kernel::reciprocal, unary<lane::reciprocal>);
  set(Kernel::reciprocal_or_zero, unary<lane::reciprocal_or_zero>);
  set(Kernel::square, unary<lane::square>);
  set(Kernel::cube, unary<lane::cube>);
  set(Kernel::positive_part, unary<lane::positive_part>);
  set(Kernel::sqrt, unary<lane::sqrt>);
  set(Kernel::absolute, unary<lane::absolute>);
  set(Kernel::sign, unary<lane::sign>);
  set(Kernel::side, unary<lane::side>);
  set(Kernel::power, binary<lane::power>);
  set(Kernel::power_or_zero, binary<lane::power_or_zero>);
  set(Kernel::log_or_zero, unary<lane::log_or_zero>);
  set(Kernel::positive, unary<lane::positive>);
  set(Kernel::nonnegative, unary<lane::nonnegative>);
  set(Kernel::probability, unary<lane::probability>);
  set(Kernel::least_ordered, binary<lane::least_ordered>);
  set(Kernel::least, binary<lane::least>);
  set(Kernel::greatest, binary<lane::greatest>);
  set(Kernel::floor, unary<lane::floor>);
  set(Kernel::ceil, unary<lane::ceil>);
  set(Kernel::truncate, unary<lane::truncate>);
  set(Kernel::round, unary<lane::round>);
  set(Kernel::round_to, binary<lane::round_to>);
  set(Kernel::modulo, binary<lane::modulo>);
  set(Kernel::less, binary<lane::less>);
  set(Kernel::less_equal, binary<lane::less_equal>);
  set(Kernel::equal, binary<lane::equal>);
  set(Kernel::not_equal, binary<lane::not_equal>);
  set(Kernel::greater, binary<lane::greater>);
  set(Kernel::greater_equal, binary<lane::greater_equal>);
  set(Kernel::less_known, binary<lane::less_known>);
  set(Kernel::less_equal_known, binary<lane::less_equal_known>);
  set(Kernel::equal_known, binary<lane::equal_known>);
  set(Kernel::not_equal_known, binary<lane::not_equal_known>);
  set(Kernel::greater_known, binary<lane::greater_known>);
  set(Kernel::greater_equal_known, binary<lane::greater_equal_known>);
  set(Kernel::truth, unary<lane::truth>);
  set(Kernel::and_, binary<lane::and_>);
  set(Kernel::or_, binary<lane::or_>);
  set(Kernel::not_, unary<lane::not_>);
  set(Kernel::and_not, binary<lane::and_not>);
  set(Kernel::select, ternary<lane::select>);
  set(Kernel::select_or_zero, binary<lane::select_or_zero>);
  set(Kernel::is_missing, unary<lane::is_missing>);
  set(Kernel::is_present, unary<lane::is_present>);
  set(Kernel::zero_if_missing, unary<lane::zero_if_missing>);
  set(Kernel::coalesce, binary<lane::coalesce>);
  set(Kernel::missing_rank, unary<lane::missing_rank>);
  set(Kernel::ordinary_missing, unary<lane::ordinary_missing>);
  set(Kernel::exp, unary<lane::exp>);
  set(Kernel::expm1, unary<lane::expm1>);
  set(Kernel::log, unary<lane::log>);
  set(Kernel::log1p, unary<lane::log1p>);
  set(Kernel::log2, unary<lane::log2>);
  set(Kernel::log10, unary<lane::log10>);
  set(Kernel::log_or_minus_infinity, unary<lane::log_or_minus_infinity>);
  set(Kernel::log_one_minus_exp, unary<lane::log_one_minus_exp>);
  set(Kernel::sin, unary<lane::sin>);
  set(Kernel::cos, unary<lane::cos>);
  set(Kernel::tan, unary<lane::tan>);
  set(Kernel::asin, unary<lane::asin>);
  set(Kernel::acos, unary<lane::acos>);
  set(Kernel::atan, unary<lane::atan>);
  set(Kernel::sinh, unary<lane::sinh>);
  set(Kernel::cosh, unary<lane::cosh>);
  set(Kernel::tanh, unary<lane::tanh>);
  set(Kernel::asinh, unary<lane::asinh>);
  set(Kernel::acosh, unary<lane::acosh>);
  set(Kernel::atanh, unary<lane::atanh>);
  set(Kernel::atan2, binary<lane::atan2>);
  set(Kernel::erf, unary<lane::erf>);
  set(Kernel::erfc, unary<lane::erfc>);
  set(Kernel::logistic, unary<lane::logistic>);
  set(Kernel::softplus, unary<lane::softplus>);
  set(Kernel::logit, unary<lane::logit>);
  set(Kernel::log_add_exp, binary<lane::log_add_exp>);
  set(Kernel::gamma, unary<lane::gamma>);
  set(Kernel::lgamma, unary<lane::lgamma>);
  set(Kernel::digamma, unary<lane::digamma>);
  set(Kernel::trigamma, unary<lane::trigamma>);
  set(Kernel::tetragamma, unary<lane::tetragamma>);
  set(Kernel::pentagamma, unary<lane::pentagamma>);
  set(Kernel::hexagamma, unary<lane::hexagamma>);
  set(Kernel::lgamma_ratio, binary<lane::lgamma_ratio>);
  set(Kernel::digamma_ratio, binary<lane::digamma_ratio>);
  set(Kernel::lbeta, binary<lane::lbeta>);
  set(Kernel::comb, binary<lane::comb>);
  set(Kernel::normal_pdf, unary<lane::normal_pdf>);
  set(Kernel::normal_cdf, unary<lane::normal_cdf>);
  set(Kernel::normal_log_cdf, unary<lane::normal_log_cdf>);
  set(Kernel::normal_quantile, scalar::normal_quantile);
  set(Kernel::normal_hazard, unary<lane::normal_hazard>);
  set(Kernel::normal_hazard_excess, unary<lane::normal_hazard_excess>);
  set(Kernel::gamma_lower, scalar::gamma_lower);
  set(Kernel::gamma_upper, scalar::gamma_upper);
  set(Kernel::log_gamma_lower, scalar::log_gamma_lower);
  set(Kernel::log_gamma_upper, scalar::log_gamma_upper);
  set(Kernel::log_gamma_lower_by_shape, scalar::log_gamma_lower_by_shape);
  set(Kernel::log_gamma_upper_by_shape, scalar::log_gamma_upper_by_shape);
  set(Kernel::gamma_quantile, scalar::gamma_quantile);
  set(Kernel::gamma_upper_quantile, scalar::gamma_upper_quantile);
  set(Kernel::beta_lower, scalar::beta_lower);
  set(Kernel::beta_upper, scalar::beta_upper);
  set(Kernel::log_beta_lower, scalar::log_beta_lower);
  set(Kernel::log_beta_upper, scalar::log_beta_upper);
  set(Kernel::log_beta_lower_by_shapes, scalar::log_beta_lower_by_shapes);
  set(Kernel::log_beta_upper_by_shapes, scalar::log_beta_upper_by_shapes);
  set(Kernel::beta_quantile, scalar::beta_quantile);
  set(Kernel::beta_quantile_complement, scalar::beta_quantile_complement);
  set(Kernel::t_lower, scalar::t_lower);
  set(Kernel::log_t_lower, scalar::log_t_lower);
  set(Kernel::log_t_lower_by_df, scalar::log_t_lower_by_df);
  set(Kernel::t_quantile, scalar::t_quantile);
  set(Kernel::binomial_quantile, scalar::binomial_quantile);
  set(Kernel::poisson_quantile, scalar::poisson_quantile);
  set(Kernel::negative_binomial_quantile, scalar::negative_binomial_quantile);
  set(Kernel::uniform_random, scalar::uniform_random);
  set(Kernel::normal_random, scalar::normal_random);
  return table;
}

} // namespace

#if defined(__AVX512F__)
constinit const KernelTable avx512_kernels = build_table("avx512");
#elif defined(__AVX2__)
constinit const KernelTable avx2_kernels = build_table("avx2");
#else
constinit const KernelTable baseline_kernels = build_table("baseline");
#endif

} // namespace torvale::engine
