#pragma once
// Derivatives of the logarithms of distribution functions by their shapes and degrees of freedom, to third order.
//
// No closed form exists. The series or continued fraction of the integral is summed in truncated Taylor polynomials of
// the shape instead of numbers, so no difference is taken: relative error about 1e-12 (third derivatives 1e-11) for
// shapes from 1e-3 to 1e5 where the tail is at least 1e-200, less where a tail is the complement of one close to 1. NaN
// where 20000 terms do not suffice, for an argument outside the domain, or an order that is not 1, 2 or 3.

namespace torvale::engine {

// (d/da)^order of log P(a, x) (lower) or log Q(a, x) (upper), the regularized incomplete gamma functions.
double log_gamma_tail_by_shape(double x, double a, int order, bool upper);

// (d/da)^i (d/db)^j of the log of I_x(a, b) (lower) or of 1 - I_x(a, b) (upper), 1 <= i + j <= 3; y = 1 - x.
double log_beta_tail_by_shapes(double x, double y, double a, double b, int i, int j, bool upper);

// (d/d df)^order of the log of the lower tail of Student's t.
double log_t_lower_by_df(double t, double df, int order);

} // namespace torvale::engine
