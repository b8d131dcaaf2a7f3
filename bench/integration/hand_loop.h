#pragma once

namespace torvale::bench {

// The transcendental functions of a logistic log likelihood and nothing else, for `lanes` values, over and over from a
// buffer of `buffer` values that stays in the first-level cache: exp(x) and none, one or two logarithms. Returns their
// sum.
double exponentials_and_logarithms(const double* x, int buffer, long lanes, int logarithms);

// The first-order objective of y ~ normal(exp(b0 + b1 x + u), s2), u of variance g. x and y by record of a subject, subjects side by
// side; `subjects` a multiple of 8.
double first_order_objective(const double* x, const double* y, int subjects, int observations, double b0, double b1, double s2, double g);

// Instruction set that the loop was compiled for, as the engine names it.
const char* hand_loop_isa();

} // namespace torvale::bench
