#include "engine/kernels/scalar_kernels.h"

#include "engine/kernels/counter_random.h"
#include "engine/kernels/discrete_quantiles.h"
#include "engine/kernels/shape_derivatives.h"
#include "probability/beta.h"
#include "probability/gamma.h"
#include "probability/normal.h"
#include "probability/quantiles.h"
#include "probability/student.h"

#include <cmath>
#include <limits>

namespace torvale::engine::scalar {
namespace {

using probability::Tails;

constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

template <class F> void each_lane(double* out, int n, F f)
{
  for (int i = 0; i < n; ++i) out[i] = f(i);
}

bool is_probability(double p)
{
  return p > 0.0 && p < 1.0;
}

// Below the support everything lies above, and above it below.
constexpr Tails all_above{0.0, 1.0, -infinity, 0.0, -infinity};
constexpr Tails all_below{1.0, 0.0, 0.0, -infinity, -infinity};
constexpr Tails no_tails{not_a_number, not_a_number, not_a_number, not_a_number, not_a_number};

Tails gamma_at(double x, double shape)
{
  if (std::isnan(x) || !(shape > 0.0)) return no_tails;
  if (x <= 0.0) return all_above;
  if (std::isinf(x)) return all_below;
  return probability::gamma_tails(x, shape);
}

template <double Tails::*tail> void gamma_tail(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) { return gamma_at(in[0][i], in[1][i]).*tail; });
}

// The smaller of x and y = 1 - x is the exact one.
Tails beta_at(double x, double a, double b, double y)
{
  if (std::isnan(x) || std::isnan(y) || !(a > 0.0 && b > 0.0)) return no_tails;
  if (x <= 0.0) return all_above;
  if (y <= 0.0) return all_below;
  return probability::beta_tails(probability::beta_point_pair(x, y), a, b);
}

template <double Tails::*tail> void beta_tail(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) { return beta_at(in[0][i], in[1][i], in[2][i], in[3][i]).*tail; });
}

Tails t_at(double t, double df)
{
  if (std::isnan(t) || !(df > 0.0)) return no_tails;
  if (std::isinf(t)) return t < 0.0 ? all_above : all_below;
  return probability::student_tails(t, df);
}

int order_of(double x)
{
  return x >= 0.0 && x <= 3.0 ? static_cast<int>(x) : -1;
}

} // namespace

// One line each, so that the family reads as a table.
// clang-format off
void gamma_lower(double* out, const double* const* in, int n) { gamma_tail<&Tails::lower>(out, in, n); }
void gamma_upper(double* out, const double* const* in, int n) { gamma_tail<&Tails::upper>(out, in, n); }
void log_gamma_lower(double* out, const double* const* in, int n) { gamma_tail<&Tails::log_lower>(out, in, n); }
void log_gamma_upper(double* out, const double* const* in, int n) { gamma_tail<&Tails::log_upper>(out, in, n); }
void beta_lower(double* out, const double* const* in, int n) { beta_tail<&Tails::lower>(out, in, n); }
void beta_upper(double* out, const double* const* in, int n) { beta_tail<&Tails::upper>(out, in, n); }
void log_beta_lower(double* out, const double* const* in, int n) { beta_tail<&Tails::log_lower>(out, in, n); }
void log_beta_upper(double* out, const double* const* in, int n) { beta_tail<&Tails::log_upper>(out, in, n); }
// clang-format on

void gamma_log_density(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) { return probability::gamma_log_density(in[0][i], in[1][i]); });
}
void beta_log_density(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) {
    const double x = in[0][i], y = in[3][i];
    return probability::beta_log_density(probability::beta_point_pair(x, y), in[1][i], in[2][i]);
  });
}

void t_lower(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) { return t_at(in[0][i], in[1][i]).lower; });
}
void log_t_lower(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) { return t_at(in[0][i], in[1][i]).log_lower; });
}

void log_gamma_lower_by_shape(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) { return log_gamma_tail_by_shape(in[0][i], in[1][i], order_of(in[2][i]), false); });
}
void log_gamma_upper_by_shape(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) { return log_gamma_tail_by_shape(in[0][i], in[1][i], order_of(in[2][i]), true); });
}
void log_beta_lower_by_shapes(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) {
    return log_beta_tail_by_shapes(in[0][i], in[3][i], in[1][i], in[2][i], order_of(in[4][i]), order_of(in[5][i]),
                                   false);
  });
}
void log_beta_upper_by_shapes(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) {
    return log_beta_tail_by_shapes(in[0][i], in[3][i], in[1][i], in[2][i], order_of(in[4][i]), order_of(in[5][i]),
                                   true);
  });
}
void log_t_lower_by_df(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) { return engine::log_t_lower_by_df(in[0][i], in[1][i], order_of(in[2][i])); });
}

void normal_quantile(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) { return is_probability(in[0][i]) ? probability::zprobit(in[0][i]) : not_a_number; });
}
void gamma_quantile(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) {
    const double p = in[0][i], shape = in[1][i];
    return is_probability(p) && shape > 0.0 ? probability::gamma_quantile(probability::lower_target(p), shape)
                                            : not_a_number;
  });
}
void gamma_upper_quantile(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) {
    const double q = in[0][i], shape = in[1][i];
    return is_probability(q) && shape > 0.0 ? probability::gamma_quantile(probability::upper_target(q), shape)
                                            : not_a_number;
  });
}
void beta_quantile(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) {
    const double p = in[0][i], a = in[1][i], b = in[2][i];
    return is_probability(p) && a > 0.0 && b > 0.0 ? probability::beta_quantile(probability::lower_target(p), a, b).x
                                                   : not_a_number;
  });
}
void beta_quantile_complement(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) {
    const double p = in[0][i], a = in[1][i], b = in[2][i];
    return is_probability(p) && a > 0.0 && b > 0.0 ? probability::beta_quantile(probability::lower_target(p), a, b).y
                                                   : not_a_number;
  });
}
void t_quantile(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) {
    const double p = in[0][i], df = in[1][i];
    return is_probability(p) && df > 0.0 ? probability::student_quantile(probability::lower_target(p), df)
                                         : not_a_number;
  });
}
void binomial_quantile(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) { return engine::binomial_quantile(in[0][i], in[1][i], in[2][i]); });
}
void poisson_quantile(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) { return engine::poisson_quantile(in[0][i], in[1][i]); });
}
void negative_binomial_quantile(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) { return engine::negative_binomial_quantile(in[0][i], in[1][i], in[2][i]); });
}

void uniform_random(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) { return uniform_at(in[0][i], in[1][i], in[2][i], in[3][i]); });
}
void normal_random(double* out, const double* const* in, int n)
{
  each_lane(out, n, [=](int i) { return probability::zprobit(uniform_at(in[0][i], in[1][i], in[2][i], in[3][i])); });
}

} // namespace torvale::engine::scalar
