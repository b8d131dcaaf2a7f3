#pragma once

#include <limits>

namespace torvale::probability {

// Machine limits as rounded decimals. They are thresholds of published behaviour, so they are used as written
// instead of their exact neighbours in <limits>.
inline constexpr double eps = 1.110223024625157e-16;              // half the distance from 1 to its upper neighbour
inline constexpr double dmin = 2.225073858507202e-308;            // smallest normal number
inline constexpr double log_smallest = -708.3964185;              // exp below this underflows
inline constexpr double series_tolerance = 5.551115123125785e-16; // five times eps: sums and fractions stop here
inline constexpr double largest_shape = 9007199254740992.0;       // 2^53: above it x + 1 is x

inline constexpr double ln2 = 0.69314718055994531;
inline constexpr double ln_sqrt_2pi = 0.91893853320467274;
inline constexpr double ln_pi = 1.1447298858494002;
inline constexpr double pi = 3.14159265358979324;
inline constexpr double infinity = std::numeric_limits<double>::infinity();
inline constexpr double not_a_number =
    std::numeric_limits<double>::quiet_NaN(); // result of an argument outside the domain

} // namespace torvale::probability
