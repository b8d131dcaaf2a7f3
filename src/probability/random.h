#pragma once

#include <cstdint>

// Reproducible random numbers. The only state is the caller's seed, in use between 1 and 2147483646.

namespace torvale::probability {

inline constexpr std::int64_t largest_seed = 2147483646;

// zranuni: the next uniform number in (0, 1), x/2147483647 with the Lehmer step x := 397204094 x mod (2^31 - 1), full
// period; *seed is left holding the new x. A seed outside 1..2147483646 is first moved to the nearer end. (z numeric,
// ran random, uni uniform.)
double zranuni(std::int64_t* seed);

// zrannor: the next standard normal number, by Box and Muller from two uniforms; the second of the pair is dropped.
// Never beyond 6.56 in size. (z numeric, ran random, nor normal.)
double zrannor(std::int64_t* seed);

// What zranms asks of the host.
struct SeedServices {
  double (*date_time)(void* host) = nullptr;                                 // current date-time
  void (*store)(void* host, const char* name, std::int64_t value) = nullptr; // sets a variable of the host
  void* host = nullptr;                                                      // handed to both
};

// zranms: makes a usable seed and publishes it. (z numeric, ran random, m macro variable, s seed.)
//   which 0: a seed outside 1..2147483646 becomes one from the clock: with t a thousandth of the date-time,
//            floor(1e9 (t - floor t)) + 1
//   which 1: the same, then the seed is stored in the host's variable SYSRANDOM
//   which 2: the seed as it stands is stored in SYSRANEND
void zranms(std::int64_t* seed, int which, const SeedServices& services);

} // namespace torvale::probability
