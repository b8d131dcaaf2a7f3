#include "evaluation/lane_loops.h"

#include <bit>

namespace torvale::evaluation {

namespace {

// The loops themselves: compiled into each of the builds below.

[[gnu::always_inline]] inline void add_loop(double* __restrict sum, const double* __restrict from, int n)
{
  for (int j = 0; j < n; ++j) sum[j] += from[j];
}

[[gnu::always_inline]] inline void shift_loop(std::int32_t* __restrict out, const std::int32_t* __restrict from, std::int32_t step, int n)
{
  for (int j = 0; j < n; ++j) out[j] = from[j] + step;
}

[[gnu::always_inline]] inline void exponential_loop(double* x, int n)
{
  constexpr double smallest = -708.3964185;
  constexpr double log2e = 1.4426950408889634;
  constexpr double ln2_high = 6.93147180369123816490e-01, ln2_low = 1.90821492927058770002e-10;
  constexpr double shift = 6755399441055744.0; // 1.5 2^52: adding it rounds to a whole number in the low bits
  constexpr double taylor[] = {1.0 / 6227020800, 1.0 / 479001600, 1.0 / 39916800, 1.0 / 3628800, 1.0 / 362880, 1.0 / 40320,
                               1.0 / 5040,       1.0 / 720,       1.0 / 120,      1.0 / 24,      1.0 / 6,      0.5};
  for (int j = 0; j < n; ++j) {
    const double a = x[j] >= smallest ? x[j] : smallest;
    const double shifted = a * log2e + shift;
    const double k = shifted - shift;
    const double r = (a - k * ln2_high) - k * ln2_low;
    double p = taylor[0];
    for (int c = 1; c < 12; ++c) p = p * r + taylor[c];
    // exp(r) = 1 + (r + r^2 p), times 2^k through the exponent field.
    const double value = 1.0 + (r + r * r * p);
    const auto power = std::bit_cast<std::uint64_t>(shifted) << 52;
    const double result = std::bit_cast<double>(std::bit_cast<std::uint64_t>(value) + power);
    x[j] = x[j] >= smallest ? result : 0.0;
  }
}

struct Loops {
  void (*add)(double*, const double*, int);
  void (*shift)(std::int32_t*, const std::int32_t*, std::int32_t, int);
  void (*exponential)(double*, int);
};

void add_plain(double* sum, const double* from, int n) { add_loop(sum, from, n); }
void shift_plain(std::int32_t* out, const std::int32_t* from, std::int32_t step, int n) { shift_loop(out, from, step, n); }
void exponential_plain(double* x, int n) { exponential_loop(x, n); }

#if defined(__x86_64__)
[[gnu::target("avx2")]] void add_avx2(double* sum, const double* from, int n) { add_loop(sum, from, n); }
[[gnu::target("avx2")]] void shift_avx2(std::int32_t* out, const std::int32_t* from, std::int32_t step, int n)
{
  shift_loop(out, from, step, n);
}
[[gnu::target("avx2")]] void exponential_avx2(double* x, int n) { exponential_loop(x, n); }

[[gnu::target("avx512f,avx512dq,prefer-vector-width=512")]] void add_avx512(double* sum, const double* from, int n)
{
  add_loop(sum, from, n);
}
[[gnu::target("avx512f,avx512dq,prefer-vector-width=512")]] void shift_avx512(std::int32_t* out, const std::int32_t* from,
                                                                              std::int32_t step, int n)
{
  shift_loop(out, from, step, n);
}
[[gnu::target("avx512f,avx512dq,prefer-vector-width=512")]] void exponential_avx512(double* x, int n) { exponential_loop(x, n); }
#endif

Loops choose()
{
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq")) return {add_avx512, shift_avx512, exponential_avx512};
  if (__builtin_cpu_supports("avx2")) return {add_avx2, shift_avx2, exponential_avx2};
#endif
  return {add_plain, shift_plain, exponential_plain};
}

const Loops loops = choose();

} // namespace

void add_lanes(double* sum, const double* from, int n)
{
  loops.add(sum, from, n);
}

void shift_rows(std::int32_t* out, const std::int32_t* from, std::int32_t step, int n)
{
  loops.shift(out, from, step, n);
}

void exponentials_of_nonpositive(double* x, int n)
{
  loops.exponential(x, n);
}

} // namespace torvale::evaluation
