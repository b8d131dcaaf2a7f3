#pragma once

#include <bit>
#include <cstdint>
#include <limits>

namespace torvale::optimizer {

// The missing value marks an option that was not set: a NaN whose upper 16 bits are all ones.
inline constexpr std::uint64_t missing_bits = 0xFFFFFE0000000000u;
inline constexpr double missing = std::bit_cast<double>(missing_bits);

// True for every NaN whose upper 16 bits are all ones, the whole family of missing values.
inline bool is_missing(double x)
{
  return std::bit_cast<std::uint64_t>(x) >> 48 == 0xFFFFu;
}

inline constexpr double largest = std::numeric_limits<double>::max(); // the infinite bound
inline constexpr double smallest_normal = 2.225073858507202e-308;
inline constexpr double tiny_threshold = 2.2250738585072018e-304; // zero test of slopes, steps and pivots
inline constexpr double root_smallest = 1.491668147e-154;         // square root of the smallest normal
inline constexpr double machine_epsilon = 2.220446049250314e-16;
inline constexpr double unit_roundoff = 1.110223024625157e-16;

} // namespace torvale::optimizer
