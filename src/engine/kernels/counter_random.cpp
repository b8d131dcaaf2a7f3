#include "engine/kernels/counter_random.h"

#include <cmath>
#include <cstdint>

namespace torvale::engine {
namespace {

// Philox 4x32-10 (Salmon, Moraes, Dror and Shaw, "Parallel random numbers: as easy as 1, 2, 3", 2011): ten rounds that
// multiply and mix a 128-bit counter under a 64-bit key. Two of the four result words are used.
std::uint64_t philox(std::uint32_t c0, std::uint32_t c1, std::uint32_t c2, std::uint32_t c3, std::uint64_t key)
{
  std::uint32_t k0 = static_cast<std::uint32_t>(key), k1 = static_cast<std::uint32_t>(key >> 32);
  for (int round = 0; round < 10; ++round) {
    const std::uint64_t p0 = std::uint64_t{0xD2511F53} * c0, p1 = std::uint64_t{0xCD9E8D57} * c2;
    c0 = static_cast<std::uint32_t>(p1 >> 32) ^ c1 ^ k0;
    c1 = static_cast<std::uint32_t>(p1);
    c2 = static_cast<std::uint32_t>(p0 >> 32) ^ c3 ^ k1;
    c3 = static_cast<std::uint32_t>(p0);
    k0 += 0x9E3779B9;
    k1 += 0xBB67AE85;
  }
  return (std::uint64_t{c1} << 32) | c0;
}

std::uint64_t whole(double x)
{
  return static_cast<std::uint64_t>(static_cast<std::int64_t>(x));
}

} // namespace

double uniform_at(double seed, double observation, double call_site, double count)
{
  const double largest =
      std::fmax(std::fmax(std::fabs(seed), std::fabs(observation)), std::fmax(std::fabs(call_site), std::fabs(count)));
  if (std::isnan(seed + observation + call_site + count) || largest > 0x1p53) return std::nan("");
  const std::uint64_t row = whole(observation);
  const std::uint64_t bits =
      philox(static_cast<std::uint32_t>(row), static_cast<std::uint32_t>(row >> 32),
             static_cast<std::uint32_t>(whole(call_site)), static_cast<std::uint32_t>(whole(count)), whole(seed));
  return (static_cast<double>(bits >> 11) + 0.5) * 0x1p-53;
}

} // namespace torvale::engine
