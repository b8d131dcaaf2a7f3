#pragma once
// Numbers of random effects that are small enough to unroll.

#include <type_traits>

namespace torvale::modes {

// unrolled: act(order), with the number of effects as a constant up to 3, and 0 for any other. Returns what act does.
template <class Act> decltype(auto) unrolled(int nr, Act&& act)
{
  switch (nr) {
  case 1:
    return act(std::integral_constant<int, 1>{});
  case 2:
    return act(std::integral_constant<int, 2>{});
  case 3:
    return act(std::integral_constant<int, 3>{});
  default:
    return act(std::integral_constant<int, 0>{});
  }
}

} // namespace torvale::modes
