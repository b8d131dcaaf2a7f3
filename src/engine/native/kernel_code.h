#pragma once
// Machine code of one kernel: the instructions that do what its loop over lanes does, bit for bit.

#include "engine/native/register_allocator.h"

namespace torvale::engine {

// A call aside from the straight code, where that met a lane which it is not made for: the kernel does all lanes. Of
// means of exponentials with the same rates the first calls for all orders; the others find out that it has, and take
// their result.
struct RareCall {
  Xbyak::Label enter, back;
  Kernel kernel = Kernel::copy;
  int group = -1;                  // of means of exponentials: ValuePlan::mean_orders
  int order = -1;                  // of a mean
  std::int32_t first_slot = -1;    // of the group: whether there was a call (bits of lanes), the mask of these lanes,
                                   // then the results by order
  int far = -1, shown = -1;        // registers: what the other lanes take, and what is added to all
  bool called = true;              // false: the first of the group does the call
  std::vector<int> arguments;      // registers
  int out = 0;                     // likewise
  std::vector<int> vectors, masks; // registers that the call must leave as they are
};

// Writes the code of operation `op`, which the allocator has begun. False: the kernel has none and must be called.
bool write_kernel(VectorCode& code, RegisterAllocator& registers, const PlanOperation& op,
                  std::vector<RareCall>& rare_calls);

} // namespace torvale::engine
