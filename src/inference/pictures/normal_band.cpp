#include "inference/pictures/normal_band.h"

#include "probability/normal.h"
#include "probability/quantiles.h"

#include <algorithm>
#include <cmath>

namespace torvale::inference {

double expected_quantile(std::size_t i, std::size_t n)
{
  return probability::zprobit((static_cast<double>(i) + 0.5) / static_cast<double>(n));
}

NormalBand normal_quantile_band(std::size_t count)
{
  constexpr std::size_t most_places = 81;
  NormalBand band;
  const auto n = static_cast<double>(count);
  const double level = 0.0145 / (std::log(n) * std::log(std::log(n)));
  const std::size_t places = std::min(count, most_places);
  std::size_t last = count;
  for (std::size_t k = 0; k < places; ++k) {
    // Places stand densely at the ends, where the band bends: the order statistic at equal steps of an arc.
    const double share =
        places == 1
            ? 0.5
            : 0.5 * (1 - std::cos(3.141592653589793 * static_cast<double>(k) / static_cast<double>(places - 1)));
    const std::size_t i = places == count ? k : static_cast<std::size_t>(std::lround(share * (n - 1)));
    if (i == last) continue;
    last = i;
    const double a = static_cast<double>(i) + 1, b = n - static_cast<double>(i);
    double low = 0, high = 0;
    if (probability::zprobin(level / 2, a, b, &low) != 0 || probability::zprobin(1 - level / 2, a, b, &high) != 0)
      continue;
    band.expected.push_back(expected_quantile(i, count));
    band.low.push_back(probability::zprobit(low));
    band.high.push_back(probability::zprobit(high));
  }
  return band;
}

} // namespace torvale::inference
