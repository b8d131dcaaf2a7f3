#pragma once
// Processor time of some work, so that a busy machine does not show; the best of many.

#include <algorithm>
#include <ctime>

namespace torvale::bench {

double seconds_of(auto&& work, int repeats = 100)
{
  const auto now = [] {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
  };
  double best = 1e9;
  for (int repeat = 0; repeat < repeats; ++repeat) {
    const double start = now();
    work();
    best = std::min(best, now() - start);
  }
  return best;
}

} // namespace torvale::bench
