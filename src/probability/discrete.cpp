#include "probability/discrete.h"

#include "probability/beta.h"
#include "probability/constants.h"
#include "probability/gamma.h"

#include <algorithm>
#include <cmath>

namespace torvale::probability {
namespace {

constexpr Tails outside{not_a_number, not_a_number, not_a_number, not_a_number, not_a_number};
constexpr Tails below_all{0.0, 1.0, -infinity, 0.0, -infinity};
constexpr Tails above_all{1.0, 0.0, 0.0, -infinity, -infinity};

Tails at_last(double log_probability)
{
  return {1.0, 0.0, 0.0, -infinity, log_probability};
}

// Whether the lower probability of k reaches the target, judged on the smaller of the target's tails. The slack keeps a
// target that was itself computed as a cumulative probability from falling over to the next count.
bool reaches(const Tails& at_k, TailTarget target)
{
  constexpr double slack = 1e-13;
  if (target.log_lower <= target.log_upper) return at_k.log_lower >= target.log_lower - slack;
  return at_k.log_upper <= target.log_upper + slack;
}

// Smallest count in [0, last] that reaches the target: doubling from the start, then bisection on integers.
template <class TailsAt> double smallest_count(const TailsAt& tails_at, TailTarget target, double start, double last)
{
  double high = std::clamp(std::floor(start), 0.0, last);
  double low = -1.0; // does not reach the target
  double step = 1.0;
  while (!reaches(tails_at(high), target)) {
    if (high >= last) return last;
    low = high;
    high = std::min(last, high + step);
    step *= 2.0;
    if (high > 1e300) return infinity;
  }
  for (step = 1.0; high - step > low && reaches(tails_at(high - step), target); step *= 2.0) high -= step;
  low = std::max(low, high - step);
  while (high - low > 1.0) {
    const double middle = low + std::floor(0.5 * (high - low));
    if (middle == low || middle == high) break; // counts beyond 2^53
    (reaches(tails_at(middle), target) ? high : low) = middle;
  }
  return high;
}

bool usable(TailTarget target)
{
  return target.log_lower <= 0.0 && target.log_upper <= 0.0;
}

} // namespace

// P(X <= k) is the upper gamma tail of shape k + 1 at the mean, and its density there is P(X = k).
Tails poisson_tails(double k, double mean)
{
  if (std::isnan(k) || !(mean >= 0.0) || std::isinf(mean)) return outside;
  k = std::floor(k);
  if (k < 0.0) return below_all;
  if (std::isinf(k)) return above_all;
  if (mean == 0.0) return at_last(k == 0.0 ? 0.0 : -infinity);
  return exchanged(gamma_tails(mean, k + 1.0));
}

// P(X <= k) = I_q(n - k, k + 1); its density in q is P(X = k) (n - k)/q.
Tails binomial_tails(double k, double n, double p)
{
  if (std::isnan(k) || !(n >= 0.0 && p >= 0.0 && p <= 1.0) || n != std::floor(n) || std::isinf(n)) return outside;
  k = std::floor(k);
  if (k < 0.0) return below_all;
  if (k > n) return above_all;
  if (k == n) return at_last(n == 0.0 ? 0.0 : n * std::log(p));
  if (p == 0.0) return at_last(k == 0.0 ? 0.0 : -infinity);
  if (p == 1.0) return below_all;
  const BetaPoint point = beta_point(p);
  const BetaPoint mirrored{point.y, point.x, point.log_y, point.log_x};
  Tails t = beta_tails(mirrored, n - k, k + 1.0);
  t.log_density += mirrored.log_x - std::log(n - k);
  return t;
}

// P(X <= k) = I_p(size, k + 1); its density in p is P(X = k) (size + k)/p.
Tails negative_binomial_tails(double k, double size, double p)
{
  if (std::isnan(k) || !(size > 0.0 && p > 0.0 && p <= 1.0) || std::isinf(size)) return outside;
  k = std::floor(k);
  if (k < 0.0) return below_all;
  if (std::isinf(k)) return above_all;
  if (p == 1.0) return at_last(k == 0.0 ? 0.0 : -infinity);
  Tails t = beta_tails(beta_point(p), size, k + 1.0);
  t.log_density += std::log(p) - std::log(size + k);
  return t;
}

double poisson_quantile(TailTarget target, double mean)
{
  if (!usable(target) || !(mean >= 0.0) || std::isinf(mean)) return not_a_number;
  if (target.log_upper == -infinity && mean > 0.0) return infinity;
  return smallest_count([=](double k) { return poisson_tails(k, mean); }, target, mean, infinity);
}

double binomial_quantile(TailTarget target, double n, double p)
{
  if (!usable(target) || std::isnan(binomial_tails(0.0, n, p).lower)) return not_a_number;
  if (target.log_upper == -infinity) return p == 0.0 ? 0.0 : n;
  return smallest_count([=](double k) { return binomial_tails(k, n, p); }, target, n * p, n);
}

double negative_binomial_quantile(TailTarget target, double size, double p)
{
  if (!usable(target) || std::isnan(negative_binomial_tails(0.0, size, p).lower)) return not_a_number;
  if (target.log_upper == -infinity && p < 1.0) return infinity;
  const double mean = size * (1.0 - p) / p;
  return smallest_count([=](double k) { return negative_binomial_tails(k, size, p); }, target, mean, infinity);
}

} // namespace torvale::probability
