#pragma once
// The builds of the chain; each is defined by chain_lanes.cpp, compiled for that instruction set.

#include "engine/chains/chain_kernels.h"

namespace torvale::engine {

extern const ChainFn baseline_chain;
extern const ChainFn avx2_chain;
extern const ChainFn avx512_chain;

} // namespace torvale::engine
