#pragma once
#include <concepts>
#include <limits>

namespace torvale::host {

// The whole number that an option's value asks for: cut towards zero, and the nearest that the type has when the value
// is beyond it. Missing values are 0.
template <std::integral T = int> T whole_number(double x)
{
  using limits = std::numeric_limits<T>;
  if (x >= static_cast<double>(limits::max())) return limits::max();
  if (x <= static_cast<double>(limits::min())) return limits::min();
  return x == x ? static_cast<T>(x) : T{0};
}

} // namespace torvale::host
