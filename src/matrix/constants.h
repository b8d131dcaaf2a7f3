#pragma once

// Machine limits as the numerics use them. They are rounded decimals on purpose: every routine
// that tests against one of them tests against exactly this value.
namespace torvale::matrix {

constexpr double eps = 1.110223024625157e-16;   // unit roundoff, 2^-53
constexpr double dmin = 2.225073858507202e-308; // smallest normal number
constexpr double rootmin = 1.491668147e-154;    // its square root

} // namespace torvale::matrix
