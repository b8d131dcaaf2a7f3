#pragma once

namespace torvale::bench {

// The transcendental functions of a logistic log likelihood and nothing else, for `lanes` values, over and over from a
// buffer of `buffer` values that stays in the first-level cache: exp(x) and one logarithm, or exp(x) and
// two. Returns their sum.
double exponentials_and_logarithms(const double* x, int buffer, long lanes, int logarithms);

// Instruction set that the loop was compiled for, as the engine names it.
const char* hand_loop_isa();

} // namespace torvale::bench
