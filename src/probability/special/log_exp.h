#pragma once

// Logarithms and exponentials that keep their accuracy where the plain formulas cancel.

namespace torvale::probability {

// zln1px: log(1 + z), also for z near 0. Below -1: NaN; at -1: -infinity. (z numeric, ln 1 plus x.)
double zln1px(double z);

// zexpm1: exp(z) - 1, also for z near 0. (z numeric, exp minus 1.)
double zexpm1(double z);

// zlnSumOfExp: log(exp(x1) + exp(x2)) without overflow. -infinity stands for a zero term. A NaN gives NaN.
double zlnSumOfExp(double x1, double x2);

// log(1 + v) - v with small relative error, v > -1. It is -v^2/2 near 0, where the plain difference keeps no digits.
double log1p_minus(double v);

// log(1 - exp(t)), t <= 0: the logarithm of the complement of a probability given by its logarithm t.
double log_complement(double t);

} // namespace torvale::probability
