#pragma once
// The unit of what is left between a parameter and its bounds.

#include "model/parameters.h"

#include <algorithm>
#include <cmath>

namespace torvale::model {

// bound_unit: 1, and less for a parameter that starts below a hundredth: tolerances of 1e-8 then are a millionth of its
// least start, however small its unit makes it. Starts of 0 say nothing.
inline double bound_unit(const PARMSTR& p)
{
  constexpr double many = 100.0;
  double unit = 1.0;
  for (const double start : p.parmlist)
    if (start != 0.0 && !std::isnan(start)) unit = std::min(unit, many * std::abs(start));
  return unit;
}

} // namespace torvale::model
