#pragma once
// Kernels that work lane by lane: distribution functions and quantiles of the probability room, and random numbers.
// They are the same code for every instruction set.

namespace torvale::engine::scalar {

void normal_quantile(double* out, const double* const* in, int n);
void gamma_lower(double* out, const double* const* in, int n);
void gamma_upper(double* out, const double* const* in, int n);
void log_gamma_lower(double* out, const double* const* in, int n);
void log_gamma_upper(double* out, const double* const* in, int n);
void log_gamma_lower_by_shape(double* out, const double* const* in, int n);
void log_gamma_upper_by_shape(double* out, const double* const* in, int n);
void gamma_log_density(double* out, const double* const* in, int n);
void beta_log_density(double* out, const double* const* in, int n);
void gamma_quantile(double* out, const double* const* in, int n);
void gamma_upper_quantile(double* out, const double* const* in, int n);
void beta_lower(double* out, const double* const* in, int n);
void beta_upper(double* out, const double* const* in, int n);
void log_beta_lower(double* out, const double* const* in, int n);
void log_beta_upper(double* out, const double* const* in, int n);
void log_beta_lower_by_shapes(double* out, const double* const* in, int n);
void log_beta_upper_by_shapes(double* out, const double* const* in, int n);
void beta_quantile(double* out, const double* const* in, int n);
void beta_quantile_complement(double* out, const double* const* in, int n);
void t_lower(double* out, const double* const* in, int n);
void log_t_lower(double* out, const double* const* in, int n);
void log_t_lower_by_df(double* out, const double* const* in, int n);
void t_quantile(double* out, const double* const* in, int n);
void binomial_quantile(double* out, const double* const* in, int n);
void poisson_quantile(double* out, const double* const* in, int n);
void negative_binomial_quantile(double* out, const double* const* in, int n);
void uniform_random(double* out, const double* const* in, int n);
void normal_random(double* out, const double* const* in, int n);

} // namespace torvale::engine::scalar
