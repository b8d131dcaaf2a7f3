#pragma once
// Random numbers by counter: what a chain draws is a function of the seed, the chain, the iteration and the subject, so
// the same seed gives the same draws for any number of threads and any batches.

#include "engine/kernels/counter_random.h"
#include "probability/normal.h"

#include <cstdint>
#include <string_view>

namespace torvale::sampling {

// The seed of a BY group: the run's own without BY. Draws of different groups have nothing in common, so that they may
// be compared row by row, and those of a group do not depend on which others there are. group: its values as text.
inline std::int64_t group_seed(std::int64_t seed, std::string_view group)
{
  if (group.empty()) return seed;
  std::uint64_t hash = 0xcbf29ce484222325U; // FNV-1a (Fowler, Noll and Vo) over the seed and the text
  const auto add = [&](std::uint64_t byte) { hash = (hash ^ byte) * 0x100000001b3U; };
  for (int k = 0; k < 64; k += 8) add((static_cast<std::uint64_t>(seed) >> k) & 0xff);
  for (const char c : group) add(static_cast<unsigned char>(c));
  return static_cast<std::int64_t>((hash ^ (hash >> 29)) & ((std::uint64_t{1} << 53) - 1)); // whole numbers of a double
}

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
