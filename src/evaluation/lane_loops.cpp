#include "evaluation/lane_loops.h"

#include "evaluation/slot_group.h"

#include <bit>
#include <cstring>
#include <limits>
#include <type_traits>

namespace torvale::evaluation {

namespace {

// The loops themselves: compiled into each of the builds below.

[[gnu::always_inline]] inline void add_loop(double* __restrict sum, const double* __restrict from, int n)
{
  for (int j = 0; j < n; ++j) sum[j] += from[j];
}

// Eight sums stay in registers through all rows; what is read beyond a row's end is not stored.
[[gnu::always_inline]] inline void add_rows_loop(double* __restrict sum, const double* __restrict from, int n, int rows)
{
  constexpr int block = 8;
  for (int first = 0; first < n; first += block) {
    double acc[block] = {};
    const int used = n - first < block ? n - first : block;
    for (int j = 0; j < used; ++j) acc[j] = sum[first + j];
    for (int r = 0; r < rows; ++r)
      for (int j = 0; j < block; ++j) acc[j] += from[r * n + first + j];
    for (int j = 0; j < used; ++j) sum[first + j] = acc[j];
  }
}

[[gnu::always_inline]] inline void add_multiples_loop(double* __restrict sum, const double* __restrict from,
                                                      double factor, int n)
{
  for (int j = 0; j < n; ++j) sum[j] += from[j] * factor;
}

[[gnu::always_inline]] inline void add_products_loop(double* __restrict sum, const double* __restrict a,
                                                     const double* __restrict b, int n)
{
  for (int j = 0; j < n; ++j) sum[j] += a[j] * b[j];
}

[[gnu::always_inline]] inline void add_present_products_loop(double* __restrict sum, const double* __restrict a,
                                                             const double* __restrict b, int n)
{
  for (int j = 0; j < n; ++j) {
    const double product = a[j] * b[j];
    sum[j] += a[j] == 0.0 ? 0.0 : product;
  }
}

[[gnu::always_inline]] inline void add_interleaved_products_loop(double* __restrict part, const double* __restrict a,
                                                                 const double* __restrict b, int n)
{
  constexpr int chains = 8;
  double sum[chains];
  for (int k = 0; k < chains; ++k) sum[k] = part[k];
  int j = 0;
  for (; j + chains <= n; j += chains)
    for (int k = 0; k < chains; ++k) sum[k] += a[j + k] * b[j + k];
  for (int k = 0; j + k < n; ++k) sum[k] += a[j + k] * b[j + k];
  for (int k = 0; k < chains; ++k) part[k] = sum[k];
}

[[gnu::always_inline]] inline bool finite_above_loop(double low, const double* x, int n)
{
  std::int64_t all = 1; // as wide as what is compared
  for (int j = 0; j < n; ++j)
    all &= std::int64_t{x[j] > low} & std::int64_t{x[j] <= std::numeric_limits<double>::max()};
  return all != 0;
}

[[gnu::always_inline]] inline void shift_loop(std::int32_t* __restrict out, const std::int32_t* __restrict from,
                                              std::int32_t step, int n)
{
  for (int j = 0; j < n; ++j) out[j] = from[j] + step;
}

// Loops with comparisons are written out for vectors: the compiler leaves them alone, as a comparison might trap. Every
// number goes through the same steps, in a vector or at the end alone.
template <class T> [[gnu::always_inline]] inline void load(T& t, const double* from)
{
  std::memcpy(&t, from, sizeof t);
}
template <class T> [[gnu::always_inline]] inline void store(const T& t, double* to)
{
  std::memcpy(to, &t, sizeof t);
}

template <class T> [[gnu::always_inline]] inline void exponential_at(double* x)
{
  using Bits = std::conditional_t<sizeof(T) == sizeof(double), std::uint64_t, FourBits>;
  constexpr double smallest = -708.3964185;
  constexpr double log2e = 1.4426950408889634;
  constexpr double ln2_high = 6.93147180369123816490e-01, ln2_low = 1.90821492927058770002e-10;
  constexpr double shift = 6755399441055744.0; // 1.5 2^52: adding it rounds to a whole number in the low bits
  constexpr double taylor[] = {1.0 / 6227020800, 1.0 / 479001600, 1.0 / 39916800, 1.0 / 3628800,
                               1.0 / 362880,     1.0 / 40320,     1.0 / 5040,     1.0 / 720,
                               1.0 / 120,        1.0 / 24,        1.0 / 6,        0.5};
  T given;
  load(given, x);
  const T least = T{} + smallest, zero = {};
  const T a = given >= smallest ? given : least;
  const T shifted = a * log2e + shift;
  const T k = shifted - shift;
  const T r = (a - k * ln2_high) - k * ln2_low;
  T p = T{} + taylor[0];
  for (int c = 1; c < 12; ++c) p = p * r + taylor[c];
  // exp(r) = 1 + (r + r^2 p), times 2^k through the exponent field.
  const T value = 1.0 + (r + r * r * p);
  const T result = std::bit_cast<T>(std::bit_cast<Bits>(value) + (std::bit_cast<Bits>(shifted) << 52));
  store(given >= smallest ? result : zero, x);
}

[[gnu::always_inline]] inline void exponential_loop(double* x, int n)
{
  int j = 0;
  for (; j + 4 <= n; j += 4) exponential_at<Four>(x + j);
  for (; j < n; ++j) exponential_at<double>(x + j);
}

template <class T>
[[gnu::always_inline]] inline void join_at(double* sum, const double* from, double above, double failed)
{
  T s, f;
  load(s, sum);
  load(f, from);
  const T none = T{} + failed;
  s = f > above ? s + f : none;
  store(s, sum);
}

[[gnu::always_inline]] inline void join_loop(double* __restrict sum, const double* __restrict from, double above,
                                             double failed, int n)
{
  int j = 0;
  for (; j + 4 <= n; j += 4) join_at<Four>(sum + j, from + j, above, failed);
  for (; j < n; ++j) join_at<double>(sum + j, from + j, above, failed);
}

template <class T> [[gnu::always_inline]] inline void larger_at(double* to, const double* from)
{
  T t, f;
  load(t, to);
  load(f, from);
  t = t < f ? f : t;
  store(t, to);
}

[[gnu::always_inline]] inline void larger_loop(double* __restrict to, const double* __restrict from, int n)
{
  int j = 0;
  for (; j + 4 <= n; j += 4) larger_at<Four>(to + j, from + j);
  for (; j < n; ++j) larger_at<double>(to + j, from + j);
}

struct Loops {
  void (*add)(double*, const double*, int);
  void (*add_rows)(double*, const double*, int, int);
  void (*add_multiples)(double*, const double*, double, int);
  void (*add_products)(double*, const double*, const double*, int);
  void (*add_present_products)(double*, const double*, const double*, int);
  void (*add_interleaved_products)(double*, const double*, const double*, int);
  bool (*finite_above)(double, const double*, int);
  void (*shift)(std::int32_t*, const std::int32_t*, std::int32_t, int);
  void (*exponential)(double*, int);
  void (*join)(double*, const double*, double, double, int);
  void (*larger)(double*, const double*, int);
};

// One build of the loops; `target` is an attribute, or nothing for the instructions that every machine has.
#define TORVALE_LOOPS(name, target)                                                                                    \
  struct name {                                                                                                        \
    target static void add(double* sum, const double* from, int n) { add_loop(sum, from, n); }                         \
    target static void rows(double* sum, const double* from, int n, int count) { add_rows_loop(sum, from, n, count); } \
    target static void multiples(double* sum, const double* from, double factor, int n)                                \
    {                                                                                                                  \
      add_multiples_loop(sum, from, factor, n);                                                                        \
    }                                                                                                                  \
    target static void products(double* sum, const double* a, const double* b, int n)                                  \
    {                                                                                                                  \
      add_products_loop(sum, a, b, n);                                                                                 \
    }                                                                                                                  \
    target static void present_products(double* sum, const double* a, const double* b, int n)                          \
    {                                                                                                                  \
      add_present_products_loop(sum, a, b, n);                                                                         \
    }                                                                                                                  \
    target static void interleaved(double* part, const double* a, const double* b, int n)                              \
    {                                                                                                                  \
      add_interleaved_products_loop(part, a, b, n);                                                                    \
    }                                                                                                                  \
    target static bool finite_above(double low, const double* x, int n) { return finite_above_loop(low, x, n); }       \
    target static void shift(std::int32_t* out, const std::int32_t* from, std::int32_t step, int n)                    \
    {                                                                                                                  \
      shift_loop(out, from, step, n);                                                                                  \
    }                                                                                                                  \
    target static void exponential(double* x, int n) { exponential_loop(x, n); }                                       \
    target static void join(double* sum, const double* from, double above, double failed, int n)                       \
    {                                                                                                                  \
      join_loop(sum, from, above, failed, n);                                                                          \
    }                                                                                                                  \
    target static void larger(double* to, const double* from, int n) { larger_loop(to, from, n); }                     \
    static constexpr Loops table{add,   rows,        multiples, products, present_products, interleaved, finite_above, \
                                 shift, exponential, join,      larger};                                               \
  };

TORVALE_LOOPS(Plain, )
#if defined(__x86_64__)
TORVALE_LOOPS(Avx2, [[gnu::target("avx2")]])
#if defined(__clang__) // knows the width by its option only
TORVALE_LOOPS(Avx512, [[gnu::target("avx512f,avx512dq")]])
#else
TORVALE_LOOPS(Avx512, [[gnu::target("avx512f,avx512dq,prefer-vector-width=512")]])
#endif
#endif
#undef TORVALE_LOOPS

Loops choose()
{
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq")) return Avx512::table;
  if (__builtin_cpu_supports("avx2")) return Avx2::table;
#endif
  return Plain::table;
}

const Loops loops = choose();

} // namespace

void add_lanes(double* sum, const double* from, int n)
{
  loops.add(sum, from, n);
}

void add_rows(double* sum, const double* from, int n, int rows)
{
  loops.add_rows(sum, from, n, rows);
}

void add_multiples(double* sum, const double* from, double factor, int n)
{
  loops.add_multiples(sum, from, factor, n);
}

void add_products(double* sum, const double* a, const double* b, int n)
{
  loops.add_products(sum, a, b, n);
}

void add_present_products(double* sum, const double* a, const double* b, int n)
{
  loops.add_present_products(sum, a, b, n);
}

void add_interleaved_products(double* part, const double* a, const double* b, int n)
{
  loops.add_interleaved_products(part, a, b, n);
}

bool all_finite_above(double low, const double* x, int n)
{
  return loops.finite_above(low, x, n);
}

void shift_rows(std::int32_t* out, const std::int32_t* from, std::int32_t step, int n)
{
  loops.shift(out, from, step, n);
}

void exponentials_of_nonpositive(double* x, int n)
{
  loops.exponential(x, n);
}

void join_above(double* sum, const double* from, double above, double failed, int n)
{
  loops.join(sum, from, above, failed, n);
}

void keep_larger(double* to, const double* from, int n)
{
  loops.larger(to, from, n);
}

} // namespace torvale::evaluation
