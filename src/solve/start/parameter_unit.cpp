#include "solve/start/parameter_unit.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

bool tells_of(const std::vector<double>& products, std::size_t j, double x)
{
  if (products.empty()) return false;
  constexpr double rounding = 1e-24;          // which leaves 1e-32 of what there is to know; units reach less far
  const double size = x != 0.0 ? x * x : 1.0; // which the parameter's unit leaves out of it
  const double own = products[j * (j + 3) / 2];
  return own * size > rounding && std::isfinite(own);
}

double unit_of(const std::vector<double>& products, std::size_t j, double x)
{
  return tells_of(products, j, x) ? 1.0 / std::sqrt(products[j * (j + 3) / 2]) : 1.0 + std::abs(x);
}

double short_unit_of(const std::vector<double>& products, std::size_t j, double x)
{
  const double unit = unit_of(products, j, x);
  return x != 0.0 ? std::min(unit, most_lengths * std::abs(x)) : unit;
}

} // namespace torvale::solve
