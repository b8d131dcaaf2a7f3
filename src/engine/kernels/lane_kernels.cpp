// The lane kernels of one instruction set: this file is compiled once for each, with the flags of that set, and its
// table is named accordingly. Only what stands in unnamed namespaces may be used here (see vector.h).

#include "engine/kernels/builds.h"
#include "engine/kernels/lane_arithmetic.h"
#include "engine/kernels/lane_compartments.h"
#include "engine/kernels/lane_elementary.h"
#include "engine/kernels/lane_gamma.h"
#include "engine/kernels/lane_normal.h"
#include "engine/kernels/scalar_kernels.h"

#include <iterator>
#include <utility>

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

template <auto F> void quinary(double* out, const double* const* in, int n)
{
  const double *const a = in[0], *const b = in[1], *const c = in[2], *const d = in[3], *const e = in[4];
  for (int i = 0; i < n; i += width) store(out + i, F(load(a + i), load(b + i), load(c + i), load(d + i), load(e + i)));
}

constexpr int operands(Lanes (*)(Lanes))
{
  return 1;
}
constexpr int operands(Lanes (*)(Lanes, Lanes))
{
  return 2;
}
constexpr int operands(Lanes (*)(Lanes, Lanes, Lanes))
{
  return 3;
}
constexpr int operands(Lanes (*)(Lanes, Lanes, Lanes, Lanes, Lanes))
{
  return 5;
}
constexpr int operands(KernelFn)
{
  return 0; // a loop already
}

template <auto F> void set(KernelTable& table, Kernel k)
{
  const auto at = static_cast<std::size_t>(k);
  if constexpr (operands(F) == 1) table.fn[at] = unary<F>;
  if constexpr (operands(F) == 2) table.fn[at] = binary<F>;
  if constexpr (operands(F) == 3) table.fn[at] = ternary<F>;
  if constexpr (operands(F) == 5) table.fn[at] = quinary<F>;
  if constexpr (operands(F) == 0)
    table.fn[at] = F;
  else
    table.vector[at] = reinterpret_cast<VectorFn>(F);
}

template <int Order> void set_mean(KernelTable& table)
{
  constexpr int i = Order / 10, j = Order % 10;
  if constexpr (i + j <= KernelTable::most_mean_order)
    table.mean[Order] = reinterpret_cast<VectorFn>(&lane::exp_mean_series_of_order<i, j>);
}
template <int... Orders> void set_means(KernelTable& table, std::integer_sequence<int, Orders...>)
{
  (set_mean<Orders>(table), ...);
}

KernelTable build_table(const char* isa)
{
  KernelTable table;
  table.isa = isa;
  set<lane::copy>(table, Kernel::copy);
  set<lane::canonical>(table, Kernel::canonical);
  set<lane::add>(table, Kernel::add);
  set<lane::subtract>(table, Kernel::subtract);
  set<lane::multiply>(table, Kernel::multiply);
  set<lane::divide>(table, Kernel::divide);
  set<lane::divide_unchecked>(table, Kernel::divide_unchecked);
  set<lane::negate>(table, Kernel::negate);
  set<lane::multiply_add>(table, Kernel::multiply_add);
  set<lane::multiply_subtract>(table, Kernel::multiply_subtract);
  set<lane::subtract_product>(table, Kernel::subtract_product);
  set<lane::reciprocal>(table, Kernel::reciprocal);
  set<lane::reciprocal_or_zero>(table, Kernel::reciprocal_or_zero);
  set<lane::square>(table, Kernel::square);
  set<lane::cube>(table, Kernel::cube);
  set<lane::positive_part>(table, Kernel::positive_part);
  set<lane::sqrt>(table, Kernel::sqrt);
  set<lane::absolute>(table, Kernel::absolute);
  set<lane::sign>(table, Kernel::sign);
  set<lane::side>(table, Kernel::side);
  set<lane::power>(table, Kernel::power);
  set<lane::power_or_zero>(table, Kernel::power_or_zero);
  set<lane::log_or_zero>(table, Kernel::log_or_zero);
  set<lane::positive>(table, Kernel::positive);
  set<lane::nonnegative>(table, Kernel::nonnegative);
  set<lane::probability>(table, Kernel::probability);
  set<lane::least_ordered>(table, Kernel::least_ordered);
  set<lane::least>(table, Kernel::least);
  set<lane::greatest>(table, Kernel::greatest);
  set<lane::floor>(table, Kernel::floor);
  set<lane::ceil>(table, Kernel::ceil);
  set<lane::truncate>(table, Kernel::truncate);
  set<lane::round>(table, Kernel::round);
  set<lane::round_to>(table, Kernel::round_to);
  set<lane::modulo>(table, Kernel::modulo);
  set<lane::less>(table, Kernel::less);
  set<lane::less_equal>(table, Kernel::less_equal);
  set<lane::equal>(table, Kernel::equal);
  set<lane::not_equal>(table, Kernel::not_equal);
  set<lane::greater>(table, Kernel::greater);
  set<lane::greater_equal>(table, Kernel::greater_equal);
  set<lane::less_known>(table, Kernel::less_known);
  set<lane::less_equal_known>(table, Kernel::less_equal_known);
  set<lane::equal_known>(table, Kernel::equal_known);
  set<lane::not_equal_known>(table, Kernel::not_equal_known);
  set<lane::greater_known>(table, Kernel::greater_known);
  set<lane::greater_equal_known>(table, Kernel::greater_equal_known);
  set<lane::truth>(table, Kernel::truth);
  set<lane::and_>(table, Kernel::and_);
  set<lane::or_>(table, Kernel::or_);
  set<lane::not_>(table, Kernel::not_);
  set<lane::and_not>(table, Kernel::and_not);
  set<lane::select>(table, Kernel::select);
  set<lane::select_or_zero>(table, Kernel::select_or_zero);
  set<lane::is_missing>(table, Kernel::is_missing);
  set<lane::is_present>(table, Kernel::is_present);
  set<lane::zero_if_missing>(table, Kernel::zero_if_missing);
  set<lane::coalesce>(table, Kernel::coalesce);
  set<lane::missing_rank>(table, Kernel::missing_rank);
  set<lane::ordinary_missing>(table, Kernel::ordinary_missing);
  set<lane::exp>(table, Kernel::exp);
  set<lane::expm1>(table, Kernel::expm1);
  set<lane::log>(table, Kernel::log);
  set<lane::log1p>(table, Kernel::log1p);
  set<lane::log2>(table, Kernel::log2);
  set<lane::log10>(table, Kernel::log10);
  set<lane::log_or_minus_infinity>(table, Kernel::log_or_minus_infinity);
  set<lane::log_one_minus_exp>(table, Kernel::log_one_minus_exp);
  set<lane::sin>(table, Kernel::sin);
  set<lane::cos>(table, Kernel::cos);
  set<lane::tan>(table, Kernel::tan);
  set<lane::asin>(table, Kernel::asin);
  set<lane::acos>(table, Kernel::acos);
  set<lane::atan>(table, Kernel::atan);
  set<lane::sinh>(table, Kernel::sinh);
  set<lane::cosh>(table, Kernel::cosh);
  set<lane::tanh>(table, Kernel::tanh);
  set<lane::asinh>(table, Kernel::asinh);
  set<lane::acosh>(table, Kernel::acosh);
  set<lane::atanh>(table, Kernel::atanh);
  set<lane::atan2>(table, Kernel::atan2);
  set<lane::erf>(table, Kernel::erf);
  set<lane::erfc>(table, Kernel::erfc);
  set<lane::logistic>(table, Kernel::logistic);
  set<lane::softplus>(table, Kernel::softplus);
  set<lane::exp_of_factors>(table, Kernel::exp_of_factors);
  set<lane::log1p_fraction>(table, Kernel::log1p_fraction);
  set<lane::logit>(table, Kernel::logit);
  set<lane::log_add_exp>(table, Kernel::log_add_exp);
  set<lane::exp_mean>(table, Kernel::exp_mean);
  set_means(table, std::make_integer_sequence<int, std::size(KernelTable().mean)>());
  set<lane::cubic_root>(table, Kernel::cubic_root);
  set<lane::compartment_response>(table, Kernel::compartment_response);
  set<lane::gamma>(table, Kernel::gamma);
  set<lane::lgamma>(table, Kernel::lgamma);
  set<lane::digamma>(table, Kernel::digamma);
  set<lane::trigamma>(table, Kernel::trigamma);
  set<lane::tetragamma>(table, Kernel::tetragamma);
  set<lane::pentagamma>(table, Kernel::pentagamma);
  set<lane::hexagamma>(table, Kernel::hexagamma);
  set<lane::lgamma_ratio>(table, Kernel::lgamma_ratio);
  set<lane::digamma_ratio>(table, Kernel::digamma_ratio);
  set<lane::lbeta>(table, Kernel::lbeta);
  set<lane::comb>(table, Kernel::comb);
  set<lane::normal_pdf>(table, Kernel::normal_pdf);
  set<lane::normal_cdf>(table, Kernel::normal_cdf);
  set<lane::normal_log_cdf>(table, Kernel::normal_log_cdf);
  set<scalar::normal_quantile>(table, Kernel::normal_quantile);
  set<lane::normal_hazard>(table, Kernel::normal_hazard);
  set<lane::normal_hazard_excess>(table, Kernel::normal_hazard_excess);
  set<scalar::gamma_lower>(table, Kernel::gamma_lower);
  set<scalar::gamma_upper>(table, Kernel::gamma_upper);
  set<scalar::log_gamma_lower>(table, Kernel::log_gamma_lower);
  set<scalar::log_gamma_upper>(table, Kernel::log_gamma_upper);
  set<scalar::log_gamma_lower_by_shape>(table, Kernel::log_gamma_lower_by_shape);
  set<scalar::log_gamma_upper_by_shape>(table, Kernel::log_gamma_upper_by_shape);
  set<scalar::gamma_log_density>(table, Kernel::gamma_log_density);
  set<scalar::gamma_quantile>(table, Kernel::gamma_quantile);
  set<scalar::gamma_upper_quantile>(table, Kernel::gamma_upper_quantile);
  set<scalar::beta_lower>(table, Kernel::beta_lower);
  set<scalar::beta_upper>(table, Kernel::beta_upper);
  set<scalar::log_beta_lower>(table, Kernel::log_beta_lower);
  set<scalar::log_beta_upper>(table, Kernel::log_beta_upper);
  set<scalar::log_beta_lower_by_shapes>(table, Kernel::log_beta_lower_by_shapes);
  set<scalar::log_beta_upper_by_shapes>(table, Kernel::log_beta_upper_by_shapes);
  set<scalar::beta_log_density>(table, Kernel::beta_log_density);
  set<scalar::beta_quantile>(table, Kernel::beta_quantile);
  set<scalar::beta_quantile_complement>(table, Kernel::beta_quantile_complement);
  set<scalar::t_lower>(table, Kernel::t_lower);
  set<scalar::log_t_lower>(table, Kernel::log_t_lower);
  set<scalar::log_t_lower_by_df>(table, Kernel::log_t_lower_by_df);
  set<scalar::t_quantile>(table, Kernel::t_quantile);
  set<scalar::binomial_quantile>(table, Kernel::binomial_quantile);
  set<scalar::poisson_quantile>(table, Kernel::poisson_quantile);
  set<scalar::negative_binomial_quantile>(table, Kernel::negative_binomial_quantile);
  set<scalar::uniform_random>(table, Kernel::uniform_random);
  set<scalar::normal_random>(table, Kernel::normal_random);
  return table;
}

} // namespace

#if defined(__AVX512F__)
const KernelTable& avx512_kernels()
{
  static const KernelTable table = build_table("avx512");
  return table;
}
#elif defined(__AVX2__)
const KernelTable& avx2_kernels()
{
  static const KernelTable table = build_table("avx2");
  return table;
}
#else
const KernelTable& baseline_kernels()
{
  static const KernelTable table = build_table("baseline");
  return table;
}
#endif

} // namespace torvale::engine
