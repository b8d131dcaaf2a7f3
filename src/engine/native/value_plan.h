#pragma once
// ValuePlan: the steps of a stage as operations on values, each made once, with masks told from numbers.
//
// A step's registers are shared by many values; here every value has a number of its own, so that machine registers can
// be given out by when a value is used next. Kernels answer true or false with 1 or 0; where another kernel asks for a
// mask, the comparison's own result serves without a detour through numbers.

#include "engine/stages/program.h"

#include <vector>

namespace torvale::engine {

using ValueId = std::int32_t;
inline constexpr ValueId no_value = -1;

struct PlanValue {
  enum class From : std::uint8_t { operation, input, fixed } from = From::operation;
  bool mask = false;                           // true or false in the form of the machine's comparisons
  bool present = false;                        // a constant that is not missing
  std::int32_t half = 0;                       // of a pair: which of the two vectors it is of
  std::int32_t index = 0;                      // of the input or the fixed register
  std::int32_t first_use = 0, end_of_uses = 0; // its part of ValuePlan::uses
};

struct PlanOperation {
  enum class Kind : std::uint8_t {
    kernel,    // out = kernel(in...)
    to_mask,   // out = in[0] > 0
    to_number, // out = in[0] ? 1 : 0
    nan,       // out (a mask) = in[0] or in[1] is a NaN
    any_nan,   // the run tells whether the mask in[0] was ever true
    store,     // result `index` = in[0]
  } kind = Kind::kernel;
  Kernel kernel = Kernel::copy;
  ValueId out = no_value;
  std::int32_t operands = 0;
  std::array<ValueId, kernel_operands_max> in{};
  std::int32_t index = 0;  // of a result; of a mean of exponentials its order, -1 where it is called
  std::int32_t group = -1; // of a mean: its place in ValuePlan::mean_orders
  std::int32_t half = 0;   // of a pair, of a store: which of the two vectors it stores
};

struct ValuePlan {
  std::vector<PlanValue> values;
  std::vector<PlanOperation> operations;
  std::vector<std::vector<int>> mean_orders; // orders of the means of the same rates
  std::vector<std::int32_t> uses;            // value by value the operations that read it, ascending
};

// False when the stage has steps that cannot be planned: loops, text tests. uniform: per input, whether one number
// stands for all lanes. paired: each operation is there twice, for one vector of lanes and for the next one; what is
// the same in both is made once.
bool plan_values(const StageCode& code, const std::vector<bool>& uniform, bool paired, ValuePlan& plan);

} // namespace torvale::engine
