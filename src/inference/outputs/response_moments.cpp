#include "inference/outputs/response_moments.h"

#include "host/values/missing.h"
#include "probability/discrete.h"
#include "probability/gamma.h"
#include "probability/normal.h"
#include "probability/student.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::inference {

using host::missing;
using probability::Tails;

namespace {

// Codes of the MODEL statement.
enum Distribution { normal = 0, t = 1, binary = 2, binomial = 3, poisson = 4, negbin = 6, gamma_response = 7 };

double quantile_of(const Tails& tails)
{
  return tails.log_lower <= tails.log_upper ? probability::normal_quantile_log(tails.log_lower)
                                            : -probability::normal_quantile_log(tails.log_upper);
}

double log_sum(double a, double b)
{
  const double high = std::max(a, b), low = std::min(a, b);
  return high == -std::numeric_limits<double>::infinity() ? high : high + std::log1p(std::exp(low - high));
}

// The tails of a count at k as `tails` gives them; between the jumps at k - 1 and k, from the side whose tail is
// smaller.
template <class F> double quantile_on_jump(double k, double share, F&& tails)
{
  const Tails at = tails(k);
  constexpr double nothing = -std::numeric_limits<double>::infinity();
  if (at.log_upper < at.log_lower)
    return -probability::normal_quantile_log(log_sum(at.log_upper, std::log1p(-share) + at.log_density));
  const double below = k > 0 ? tails(k - 1).log_lower : nothing;
  return probability::normal_quantile_log(std::min(0.0, log_sum(below, std::log(share) + at.log_density)));
}

double unchecked_quantile(int distribution, double y, const double* a, double share)
{
  switch (distribution) {
  case normal:
    return a[1] > 0 ? (y - a[0]) / std::sqrt(a[1]) : missing;
  case t:
    return a[1] > 0 ? quantile_of(probability::student_tails((y - a[0]) / std::sqrt(a[1]), a[2])) : missing;
  case binary:
  case binomial:
  case poisson:
  case negbin:
    return quantile_on_jump(std::floor(y), share, [&](double k) { return count_tails(distribution, k, a); });
  case gamma_response:
    return quantile_of(probability::gamma_tails(y / a[1], a[0]));
  default:
    return missing;
  }
}

} // namespace

int response_arguments(int distribution)
{
  switch (distribution) {
  case t:
    return 3;
  case binary:
  case poisson:
    return 1;
  case normal:
  case binomial:
  case negbin:
  case gamma_response:
    return 2;
  default:
    return 0;
  }
}

ResponseMoments response_moments(int distribution, const double* a)
{
  switch (distribution) {
  case normal:
    return {a[0], a[1], {1.0}};
  case t: // mean, squared scale, degrees of freedom
    return {a[2] > 1 ? a[0] : missing, a[2] > 2 ? a[1] * a[2] / (a[2] - 2) : missing, {1.0}};
  case binary:
    return {a[0], a[0] * (1 - a[0]), {1.0}};
  case binomial: // trials, probability
    return {a[0] * a[1], a[0] * a[1] * (1 - a[1]), {a[1], a[0]}};
  case poisson:
    return {a[0], a[0], {1.0}};
  case negbin: // size, probability
    return {a[0] * (1 - a[1]) / a[1], a[0] * (1 - a[1]) / (a[1] * a[1]), {(1 - a[1]) / a[1], -a[0] / (a[1] * a[1])}};
  case gamma_response: // shape, scale
    return {a[0] * a[1], a[0] * a[1] * a[1], {a[1], a[0]}};
  default:
    return {missing, missing};
  }
}

Tails count_tails(int distribution, double k, const double* a)
{
  switch (distribution) {
  case binary:
    return probability::binomial_tails(k, 1.0, a[0]);
  case binomial:
    return probability::binomial_tails(k, a[0], a[1]);
  case poisson:
    return probability::poisson_tails(k, a[0]);
  case negbin:
    return probability::negative_binomial_tails(k, a[0], a[1]);
  default:
    return {missing, missing, missing, missing, missing};
  }
}

double quantile_residual(int distribution, double y, const double* arguments, double share)
{
  const double q = unchecked_quantile(distribution, y, arguments, share);
  return std::isfinite(q) ? q : missing;
}

bool randomized(int distribution)
{
  return distribution == binary || distribution == binomial || distribution == poisson || distribution == negbin;
}

} // namespace torvale::inference
