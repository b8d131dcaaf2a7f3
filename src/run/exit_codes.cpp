#include "run/exit_codes.h"

#include <algorithm>
#include <array>

namespace torvale::run {

int worse_exit(int a, int b)
{
  static constexpr std::array order = {130, 1, 2, 3, 4, 7, 5, 6, 0};
  const auto rank = [](int code) { return std::find(order.begin(), order.end(), code); };
  return rank(a) <= rank(b) ? a : b;
}

} // namespace torvale::run
