#pragma once
// The builds of the lane kernels; each is defined by lane_kernels.cpp, compiled for that instruction set.

#include "engine/kernels/kernels.h"

namespace torvale::engine {

const KernelTable& baseline_kernels();
const KernelTable& avx2_kernels();
const KernelTable& avx512_kernels();

} // namespace torvale::engine
