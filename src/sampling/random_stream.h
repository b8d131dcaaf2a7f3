#pragma once
// Random numbers by counter: what a chain draws is a function of the seed, the chain, the iteration and the subject, so
// the same seed gives the same draws for any number of threads and any batches.

#include "engine/kernels/counter_random.h"
#include "probability/normal.h"

#include <cstdint>

namespace torvale::sampling {

class RandomStream {
public:
  // stream: 0 for the parameters, subject + 1 for a subject's random effects.
  RandomStream(std::int64_t seed, int chain, std::int64_t iteration, std::int64_t stream)
      : seed_(static_cast<double>(seed)), stream_(static_cast<double>(stream) + 0x1p40 * chain),
        iteration_(static_cast<double>(iteration))
  {
  }

  double uniform() { return engine::uniform_at(seed_, stream_, iteration_, count_++); } // in (0, 1)
  double normal() { return probability::zprobit(uniform()); }

private:
  double seed_;
  double stream_; // the chain in its upper part: the only counter of 64 bits
  double iteration_;
  double count_ = 0.0;
};

} // namespace torvale::sampling
