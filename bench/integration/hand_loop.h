#pragma once

namespace torvale::bench {

// The transcendental functions of a logistic log likelihood and nothing else: log(1 + exp(x)) for `lanes` values, over
// and over from a buffer of `buffer` values that stays in the first-level cache. Returns their sum.
double exponentials_and_logarithms(const double* x, int buffer, long lanes);

// Instruction set that the loop was compiled for, as the engine names it.
const char* hand_loop_isa();

} // namespace torvale::bench
