#pragma once
// Plain loops that a programmer would write by hand, compiled with the flags of each build of the lane kernels: the
// measure of the kernels.

namespace torvale::bench {

struct HandLoop {
  const char* kernel; // name of the kernel that does the same
  void (*run)(double* out, const double* const* in, int n);
};

// Null-terminated lists, by instruction set.
extern const HandLoop hand_loops_baseline[];
extern const HandLoop hand_loops_avx2[];
extern const HandLoop hand_loops_avx512[];

} // namespace torvale::bench
