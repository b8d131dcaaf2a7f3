#pragma once
// Hand-written loops for the models of program_models.cpp, built for each instruction set: the other side of the ratio.

namespace torvale::bench {

struct HandInput {
  const double* time = nullptr;
  const double* dv = nullptr;
  const double* log_factorial = nullptr; // lgamma(1 + y) of the Poisson model: depends on data alone
  const double* theta = nullptr;
  const double* effects = nullptr;
  bool new_point = true; // theta or effects have changed: what depends on them alone is computed anew
};

// Writes output k of lane i to out[k * 512 + i], in the order of CompiledModel::meaning(). lanes: a multiple of 8.
using HandLoop = void (*)(const HandInput& in, double* out, int lanes);

struct HandLoops {
  HandLoop loop[5][3] = {}; // model, Wanted
};

extern const HandLoops hand_loops_baseline, hand_loops_avx2, hand_loops_avx512;

} // namespace torvale::bench
