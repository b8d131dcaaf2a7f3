#include "engine/kernels/discrete_quantiles.h"

#include "probability/beta.h"
#include "probability/gamma.h"
#include "probability/normal.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::engine {
namespace {

using probability::Tails;

constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr double most = 0x1p53; // whole numbers end here

bool reached(double p, const Tails& t)
{
  constexpr double slack = 1e-13, rounding_of_p = 0x1p-52;
  return p <= 0.5 ? t.lower >= p * (1.0 - slack) : t.upper <= (1.0 - p) * (1.0 + slack) + rounding_of_p;
}

// From a guess outwards in doubling steps until the answer is bracketed, then bisection.
template <class TailsAt> double smallest_reaching(double p, double guess, double top, TailsAt tails_at)
{
  // The guess may be infinite less infinite. low: -1 or a point not reached.
  double high = guess > 0.0 ? std::min(std::floor(guess), top) : 0.0, low = high, step = 1.0;
  if (reached(p, tails_at(high))) {
    do {
      high = low;
      low = std::max(high - step, -1.0);
      step *= 2.0;
    } while (low >= 0.0 && reached(p, tails_at(low)));
  } else {
    do {
      low = high;
      if (low >= top) return top < most ? top : not_a_number;
      high = std::min(low + step, top);
      step *= 2.0;
    } while (!reached(p, tails_at(high)));
  }
  while (high - low > 1.0) {
    const double middle = std::floor(0.5 * (low + high));
    (reached(p, tails_at(middle)) ? high : low) = middle;
  }
  return high;
}

} // namespace

double binomial_quantile(double p, double trials, double probability)
{
  if (!(p > 0.0 && p < 1.0 && trials >= 0.0 && trials < most && probability >= 0.0 && probability <= 1.0))
    return not_a_number;
  trials = std::floor(trials);
  if (probability == 0.0 || trials == 0.0) return 0.0;
  if (probability == 1.0) return trials;
  const double mean = trials * probability, sd = std::sqrt(mean * (1.0 - probability));
  return smallest_reaching(p, mean + sd * probability::zprobit(p), trials, [=](double k) {
    if (k >= trials) return Tails{1.0, 0.0, 0.0, -std::numeric_limits<double>::infinity(), 0.0};
    return probability::exchanged(probability::beta_tails(probability::beta_point(probability), k + 1.0, trials - k));
  });
}

double poisson_quantile(double p, double mean)
{
  if (!(p > 0.0 && p < 1.0 && mean >= 0.0 && mean < most)) return not_a_number;
  if (mean == 0.0) return 0.0;
  return smallest_reaching(p, mean + std::sqrt(mean) * probability::zprobit(p), most,
                           [=](double k) { return probability::exchanged(probability::gamma_tails(mean, k + 1.0)); });
}

double negative_binomial_quantile(double p, double size, double probability)
{
  if (!(p > 0.0 && p < 1.0 && size > 0.0 && size < most && probability > 0.0 && probability <= 1.0))
    return not_a_number;
  if (probability == 1.0) return 0.0;
  const double mean = size * (1.0 - probability) / probability, sd = std::sqrt(mean / probability);
  return smallest_reaching(p, mean + sd * probability::zprobit(p), most, [=](double k) {
    return probability::beta_tails(probability::beta_point(probability), size, k + 1.0);
  });
}

} // namespace torvale::engine
