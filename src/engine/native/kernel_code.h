#pragma once
// Machine code of one kernel: the instructions that do what its loop over lanes does, bit for bit.

#include "engine/native/register_allocator.h"

namespace torvale::engine {

// Writes the code of operation `op`, which the allocator has begun. False: the kernel has none and must be called.
bool write_kernel(VectorCode& code, RegisterAllocator& registers, const PlanOperation& op);

} // namespace torvale::engine
