// The chain of one instruction set; compiled once for each, like the lane kernels.

#include "engine/chains/chain_builds.h"
#include "engine/kernels/lane_arithmetic.h"

namespace torvale::engine {
namespace {

// A link applied to V vectors, V known to the compiler so that they stay in registers.
template <auto F, int V> inline void unary(Lanes* acc)
{
#pragma GCC unroll 8
  for (int v = 0; v < V; ++v) acc[v] = F(acc[v]);
}
template <auto F, int V> inline void binary(Lanes* acc, const double* x)
{
#pragma GCC unroll 8
  for (int v = 0; v < V; ++v) acc[v] = F(acc[v], load(x + v * width));
}
template <auto F, int V> inline void ternary(Lanes* acc, const double* x, const double* y)
{
#pragma GCC unroll 8
  for (int v = 0; v < V; ++v) acc[v] = F(acc[v], load(x + v * width), load(y + v * width));
}

// The operations with the accumulator first.
inline Lanes subtract_from(Lanes a, Lanes x)
{
  return x - a;
}
inline Lanes divide_into(Lanes a, Lanes x)
{
  return lane::divide(x, a);
}
inline Lanes add_product(Lanes a, Lanes x, Lanes y)
{
  return x * y + a;
}
inline Lanes subtract_product(Lanes a, Lanes x, Lanes y)
{
  return a - x * y;
}
inline Lanes product_minus(Lanes a, Lanes x, Lanes y)
{
  return x * y - a;
}
inline Lanes multiply_take(Lanes a, Lanes x, Lanes y)
{
  return y - a * x;
}
inline Lanes greater(Lanes a, Lanes x)
{
  return lane::less(x, a);
}
inline Lanes greater_equal(Lanes a, Lanes x)
{
  return lane::less_equal(x, a);
}
inline Lanes greater_known(Lanes a, Lanes x)
{
  return lane::less_known(x, a);
}
inline Lanes greater_equal_known(Lanes a, Lanes x)
{
  return lane::less_equal_known(x, a);
}
inline Lanes not_and(Lanes a, Lanes x)
{
  return lane::and_not(x, a);
}
inline Lanes choose(Lanes a, Lanes x, Lanes y)
{
  return lane::select(x, a, y);
}
inline Lanes choose_other(Lanes a, Lanes x, Lanes y)
{
  return lane::select(x, y, a);
}
inline Lanes choose_by(Lanes a, Lanes x, Lanes y)
{
  return lane::select(a, x, y);
}
inline Lanes keep_or_zero(Lanes a, Lanes x)
{
  return lane::select_or_zero(x, a);
}
inline Lanes zero_unless(Lanes a, Lanes x)
{
  return lane::select_or_zero(a, x);
}

template <int V> inline void block(double* out, const double* start, const ChainLink* links, int count, int at)
{
  Lanes acc[V];
#pragma GCC unroll 8
  for (int v = 0; v < V; ++v) acc[v] = load(start + at + v * width);
  for (int k = 0; k < count; ++k) {
    const double* const x = links[k].x + at;
    const double* const y = links[k].y + at;
    switch (links[k].op) {
    case ChainOp::add:
      binary<lane::add, V>(acc, x);
      break;
    case ChainOp::subtract:
      binary<lane::subtract, V>(acc, x);
      break;
    case ChainOp::subtract_from:
      binary<subtract_from, V>(acc, x);
      break;
    case ChainOp::multiply:
      binary<lane::multiply, V>(acc, x);
      break;
    case ChainOp::divide:
      binary<lane::divide, V>(acc, x);
      break;
    case ChainOp::divide_into:
      binary<divide_into, V>(acc, x);
      break;
    case ChainOp::divide_unchecked:
      binary<lane::divide_unchecked, V>(acc, x);
      break;
    case ChainOp::add_product:
      ternary<add_product, V>(acc, x, y);
      break;
    case ChainOp::subtract_product:
      ternary<subtract_product, V>(acc, x, y);
      break;
    case ChainOp::product_minus:
      ternary<product_minus, V>(acc, x, y);
      break;
    case ChainOp::multiply_add:
      ternary<lane::multiply_add, V>(acc, x, y);
      break;
    case ChainOp::multiply_subtract:
      ternary<lane::multiply_subtract, V>(acc, x, y);
      break;
    case ChainOp::multiply_take:
      ternary<multiply_take, V>(acc, x, y);
      break;
    case ChainOp::negate:
      unary<lane::negate, V>(acc);
      break;
    case ChainOp::square:
      unary<lane::square, V>(acc);
      break;
    case ChainOp::cube:
      unary<lane::cube, V>(acc);
      break;
    case ChainOp::reciprocal:
      unary<lane::reciprocal, V>(acc);
      break;
    case ChainOp::absolute:
      unary<lane::absolute, V>(acc);
      break;
    case ChainOp::less:
      binary<lane::less, V>(acc, x);
      break;
    case ChainOp::greater:
      binary<greater, V>(acc, x);
      break;
    case ChainOp::less_equal:
      binary<lane::less_equal, V>(acc, x);
      break;
    case ChainOp::greater_equal:
      binary<greater_equal, V>(acc, x);
      break;
    case ChainOp::less_known:
      binary<lane::less_known, V>(acc, x);
      break;
    case ChainOp::greater_known:
      binary<greater_known, V>(acc, x);
      break;
    case ChainOp::less_equal_known:
      binary<lane::less_equal_known, V>(acc, x);
      break;
    case ChainOp::greater_equal_known:
      binary<greater_equal_known, V>(acc, x);
      break;
    case ChainOp::and_:
      binary<lane::and_, V>(acc, x);
      break;
    case ChainOp::or_:
      binary<lane::or_, V>(acc, x);
      break;
    case ChainOp::not_:
      unary<lane::not_, V>(acc);
      break;
    case ChainOp::and_not:
      binary<lane::and_not, V>(acc, x);
      break;
    case ChainOp::not_and:
      binary<not_and, V>(acc, x);
      break;
    case ChainOp::is_missing:
      unary<lane::is_missing, V>(acc);
      break;
    case ChainOp::canonical:
      unary<lane::canonical, V>(acc);
      break;
    case ChainOp::choose:
      ternary<choose, V>(acc, x, y);
      break;
    case ChainOp::choose_other:
      ternary<choose_other, V>(acc, x, y);
      break;
    case ChainOp::choose_by:
      ternary<choose_by, V>(acc, x, y);
      break;
    case ChainOp::keep_or_zero:
      binary<keep_or_zero, V>(acc, x);
      break;
    case ChainOp::zero_unless:
      binary<zero_unless, V>(acc, x);
      break;
    }
  }
#pragma GCC unroll 8
  for (int v = 0; v < V; ++v) store(out + at + v * width, acc[v]);
}

// Eight vectors at a time hide the cost of reading the links; smaller blocks take what is left.
void run(double* out, const double* start, const ChainLink* links, int count, int n)
{
  int at = 0;
  for (; at + 8 * width <= n; at += 8 * width) block<8>(out, start, links, count, at);
  for (; at + 4 * width <= n; at += 4 * width) block<4>(out, start, links, count, at);
  for (; at < n; at += width) block<1>(out, start, links, count, at);
}

} // namespace

#if defined(__AVX512F__)
const ChainFn avx512_chain = run;
#elif defined(__AVX2__)
const ChainFn avx2_chain = run;
#else
const ChainFn baseline_chain = run;
#endif

} // namespace torvale::engine
