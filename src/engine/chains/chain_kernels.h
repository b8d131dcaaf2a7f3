#pragma once
// Chains: operations that hand one value on, each using it once, run without storing what lies between.
//
// A kernel loads its operands, works, and stores: for an addition the store alone takes longer than the sum. A chain
// keeps an accumulator per vector in registers through all its links. It computes what its operations would one by one,
// bit for bit.

#include "engine/kernels/kernels.h"

#include <string_view>

namespace torvale::engine {

// What a link does to the accumulator `acc` with operands x and y.
enum class ChainOp : std::uint8_t {
  add,               // acc + x
  subtract,          // acc - x
  subtract_from,     // x - acc
  multiply,          // acc * x
  divide,            // acc / x; missing when x is 0
  divide_into,       // x / acc; missing when acc is 0
  divide_unchecked,  // acc / x
  add_product,       // acc + x * y
  subtract_product,  // acc - x * y
  product_minus,     // x * y - acc
  multiply_add,      // acc * x + y
  multiply_subtract, // acc * x - y
  multiply_take,     // y - acc * x
  negate,
  square,
  cube,
  reciprocal,
  absolute,
  less,    // acc < x, exact for missing values
  greater, // x < acc
  less_equal,
  greater_equal,
  less_known,
  greater_known,
  less_equal_known,
  greater_equal_known, // no operand is missing
  and_,
  or_,
  not_,
  and_not, // acc and not x
  not_and, // x and not acc
  is_missing,
  canonical,    // acc; the ordinary missing value in place of any other NaN
  choose,       // x ? acc : y
  choose_other, // x ? y : acc
  choose_by,    // acc ? x : y
  keep_or_zero, // x ? acc : 0
  zero_unless,  // acc ? x : 0
};

struct ChainLink {
  ChainOp op = ChainOp::add;
  const double* x = nullptr;
  const double* y = nullptr;
};

// out = the accumulator after `count` links, beginning as start; n lanes, a multiple of lane_padding.
using ChainFn = void (*)(double* out, const double* start, const ChainLink* links, int count, int n);

// The chain of the build with that name.
ChainFn chain_kernel(std::string_view isa);

} // namespace torvale::engine
