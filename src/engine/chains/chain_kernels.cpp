#include "engine/chains/chain_kernels.h"

#include "engine/chains/chain_builds.h"

namespace torvale::engine {

ChainFn chain_kernel(std::string_view isa)
{
#if defined(__x86_64__)
  if (isa == "avx512") return avx512_chain;
  if (isa == "avx2") return avx2_chain;
#endif
  (void)isa;
  return baseline_chain;
}

} // namespace torvale::engine
