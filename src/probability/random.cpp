#include "probability/random.h"

#include <algorithm>
#include <cmath>

namespace torvale::probability {

double zranuni(std::int64_t* seed)
{
  constexpr std::uint64_t modulus = 2147483647; // 2^31 - 1, prime; 397204094 is a primitive root
  const std::uint64_t product =
      397204094u * static_cast<std::uint64_t>(std::clamp(*seed, std::int64_t{1}, largest_seed));
  // 2^31 = 1 modulo 2^31 - 1: fold the high bits onto the low 31. The product is below 2^60, so the sum is below 2^32
  // and one subtraction completes it.
  std::uint64_t x = (product >> 31) + (product & modulus);
  if (x >= modulus) x -= modulus;
  *seed = static_cast<std::int64_t>(x);
  return static_cast<double>(x) / 2147483647.0;
}

double zrannor(std::int64_t* seed)
{
  const double u1 = zranuni(seed); // two statements: the order of the draws is part of the stream
  const double u2 = zranuni(seed);
  return std::cos(6.283185307179586 * u2) * std::sqrt(-2.0 * std::log(u1));
}

void zranms(std::int64_t* seed, int which, const SeedServices& services)
{
  if (which == 2) {
    services.store(services.host, "SYSRANEND", *seed);
    return;
  }
  if (*seed < 1 || *seed > largest_seed) {
    const double t = services.date_time(services.host) * 0.001;
    const double fraction = std::isfinite(t) ? t - std::floor(t) : 0.0;
    *seed = static_cast<std::int64_t>(std::floor(fraction * 1000000000.0)) + 1;
  }
  if (which != 0) services.store(services.host, "SYSRANDOM", *seed);
}

} // namespace torvale::probability
