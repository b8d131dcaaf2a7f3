#include "inference/outputs/conditional_residuals.h"

#include "host/values/missing.h"

#include <cmath>

namespace torvale::inference {

double ConditionalResiduals::add(double e, const std::vector<std::size_t>& places, const double* z, double variance)
{
  const std::size_t n = mean_.size();
  gain_.assign(n, 0.0);
  double own = variance, deviation = e;
  for (std::size_t k = 0; k < places.size(); ++k) {
    const double* const row = covariance_.data() + places[k] * n;
    for (std::size_t i = 0; i < n; ++i) gain_[i] += z[k] * row[i];
    deviation -= z[k] * mean_[places[k]];
  }
  for (std::size_t k = 0; k < places.size(); ++k) own += z[k] * gain_[places[k]];
  if (!(own > 0.0) || !std::isfinite(deviation)) return host::missing;
  for (std::size_t i = 0; i < n; ++i) {
    if (gain_[i] == 0.0) continue;
    mean_[i] += gain_[i] * deviation / own;
    for (std::size_t j = 0; j < n; ++j) covariance_[i * n + j] -= gain_[i] * gain_[j] / own;
  }
  return deviation / std::sqrt(own);
}

} // namespace torvale::inference
