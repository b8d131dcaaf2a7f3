#pragma once
// The builds of the lane kernels; each is defined by lane_kernels.cpp, compiled for that instruction set.

#include "engine/kernels/kernels.h"

namespace torvale::engine {

extern const KernelTable baseline_kernels;
extern const KernelTable avx2_kernels;
extern const KernelTable avx512_kernels;

} // namespace torvale::engine
