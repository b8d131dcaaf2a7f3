#include "sampling/diagnostics.h"

#include "host/values/missing.h"
#include "probability/normal.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace torvale::sampling {

namespace {

using host::missing;

double mean_of(std::span<const double> x)
{
  return std::accumulate(x.begin(), x.end(), 0.0) / static_cast<double>(x.size());
}

// Sum of squares about the mean, divided by n - 1.
double variance_of(std::span<const double> x, double mean)
{
  double sum = 0.0;
  for (const double v : x) sum += (v - mean) * (v - mean);
  return sum / static_cast<double>(x.size() - 1);
}

// Between neighbouring order statistics: place p (n - 1) from 0.
double quantile_of(const std::vector<double>& sorted, double p)
{
  const double at = p * static_cast<double>(sorted.size() - 1);
  const auto low = static_cast<std::size_t>(at);
  const std::size_t high = std::min(low + 1, sorted.size() - 1);
  return sorted[low] + (at - static_cast<double>(low)) * (sorted[high] - sorted[low]);
}

// Each chain in two halves; the middle draw of an odd number is left out.
std::vector<double> split(const Chains& chains)
{
  const long n = chains.length(), half = n / 2;
  std::vector<double> out;
  out.reserve(static_cast<std::size_t>(2 * half * chains.chains));
  for (int c = 0; c < chains.chains; ++c) {
    const auto x = chains.chain(c);
    out.insert(out.end(), x.begin(), x.begin() + half);
    out.insert(out.end(), x.end() - half, x.end());
  }
  return out;
}

// Normal scores of the ranks among all draws, ties at their average rank: probit((r - 3/8) / (S + 1/4)).
std::vector<double> normal_scores(std::span<const double> x)
{
  const std::size_t total = x.size();
  std::vector<std::size_t> order(total);
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return x[a] < x[b]; });
  std::vector<double> score(total);
  for (std::size_t first = 0; first < total;) {
    std::size_t last = first;
    while (last + 1 < total && x[order[last + 1]] == x[order[first]]) ++last;
    const double rank = 0.5 * static_cast<double>(first + last) + 1.0;
    const double z = probability::zprobit((rank - 0.375) / (static_cast<double>(total) + 0.25));
    for (std::size_t k = first; k <= last; ++k) score[order[k]] = z;
    first = last + 1;
  }
  return score;
}

// Potential scale reduction: root of the pooled over the mean within-chain variance.
double scale_reduction(const Chains& chains)
{
  const auto n = static_cast<double>(chains.length());
  std::vector<double> means;
  double within = 0.0;
  for (int c = 0; c < chains.chains; ++c) {
    means.push_back(mean_of(chains.chain(c)));
    within += variance_of(chains.chain(c), means.back());
  }
  within /= chains.chains;
  const double between = variance_of(means, mean_of(means));
  if (within == 0.0) return between == 0.0 ? 1.0 : missing;
  return std::sqrt((n - 1.0) / n + between / within);
}

// Autocovariance of a chain at a lag, divided by n.
double autocovariance(std::span<const double> x, double mean, long lag)
{
  double sum = 0.0;
  const std::size_t n = x.size(), l = static_cast<std::size_t>(lag);
  for (std::size_t i = 0; i + l < n; ++i) sum += (x[i] - mean) * (x[i + l] - mean);
  return sum / static_cast<double>(n);
}

// The autocorrelation that all chains share, lag by lag.
class SharedCorrelation {
public:
  explicit SharedCorrelation(const Chains& chains) : chains_(chains)
  {
    const auto n = static_cast<double>(chains.length());
    for (int c = 0; c < chains.chains; ++c) means_.push_back(mean_of(chains.chain(c)));
    within_ = mean_covariance(0) * n / (n - 1.0);
    total_ = within_ * (n - 1.0) / n;
    if (chains.chains > 1) total_ += variance_of(means_, mean_of(means_));
  }
  double total() const { return total_; }
  double at(long lag) const { return 1.0 - (within_ - mean_covariance(lag)) / total_; }

private:
  double mean_covariance(long lag) const
  {
    double sum = 0.0;
    for (int c = 0; c < chains_.chains; ++c)
      sum += autocovariance(chains_.chain(c), means_[static_cast<std::size_t>(c)], lag);
    return sum / chains_.chains;
  }

  const Chains& chains_;
  std::vector<double> means_;
  double within_ = 0.0, total_ = 0.0;
};

bool all_finite(std::span<const double> x)
{
  return std::all_of(x.begin(), x.end(), [](double v) { return std::isfinite(v); });
}

bool all_equal(std::span<const double> x)
{
  return std::all_of(x.begin(), x.end(), [&](double v) { return v == x.front(); });
}

double indicator_size(const Chains& halves, double bound)
{
  std::vector<double> below(halves.draws.size());
  for (std::size_t k = 0; k < below.size(); ++k) below[k] = halves.draws[k] <= bound ? 1.0 : 0.0;
  return effective_size({below, halves.chains});
}

} // namespace

Correlogram correlogram(const Chains& chains)
{
  constexpr double faded = 0.05;
  constexpr long most_lags = 60;
  Correlogram out;
  const long longest = chains.length() / 4;
  if (longest < 1 || all_equal(chains.draws) || !all_finite(chains.draws)) return out;
  const SharedCorrelation rho(chains);
  long reach = 1;
  while (reach < longest && std::abs(rho.at(reach)) > faded) reach *= 2;
  reach = std::min(std::max(reach, 10L), longest);
  const long step = (reach + most_lags - 1) / most_lags;
  for (long lag = 0; lag <= reach; lag += step) {
    out.lag.push_back(static_cast<double>(lag));
    out.correlation.push_back(rho.at(lag));
  }
  return out;
}

double effective_size(const Chains& chains)
{
  const long n = chains.length();
  const auto draws = static_cast<double>(chains.draws.size());
  if (n < 4) return missing;
  if (all_equal(chains.draws)) return draws;
  const SharedCorrelation rho(chains);
  // Sums of neighbouring pairs (even, odd lag) while they are positive, then made to fall. The even one behind them
  // counts when it is positive.
  std::vector<double> pairs;
  double even = 1.0, odd = rho.at(1);
  for (long lag = 1; lag < n - 3 && even + odd > 0.0; lag += 2) {
    pairs.push_back(even + odd);
    even = rho.at(lag + 1);
    odd = rho.at(lag + 2);
  }
  for (std::size_t k = 1; k < pairs.size(); ++k) pairs[k] = std::min(pairs[k], pairs[k - 1]);
  double tau = -1.0;
  for (const double p : pairs) tau += 2.0 * p;
  tau += std::max(even, 0.0);
  tau = std::max(tau, 1.0 / std::log10(draws));
  return draws / tau;
}

Diagnostics diagnose(const Chains& chains)
{
  Diagnostics d{missing, missing, {missing, missing, missing}, missing, missing, missing, missing};
  const bool finite = std::all_of(chains.draws.begin(), chains.draws.end(), [](double x) { return std::isfinite(x); });
  if (chains.length() < 4 || !finite) return d;
  d.mean = mean_of(chains.draws);
  d.sd = std::sqrt(variance_of(chains.draws, d.mean));
  std::vector<double> sorted(chains.draws.begin(), chains.draws.end());
  std::sort(sorted.begin(), sorted.end());
  const double places[3] = {0.025, 0.5, 0.975};
  for (int k = 0; k < 3; ++k) d.quantile[k] = quantile_of(sorted, places[k]);

  const std::vector<double> values = split(chains);
  const Chains halves{values, 2 * chains.chains};
  const std::vector<double> scores = normal_scores(values);
  std::vector<double> folded(values.size()), halves_sorted = values;
  std::sort(halves_sorted.begin(), halves_sorted.end());
  const double median = quantile_of(halves_sorted, 0.5);
  for (std::size_t k = 0; k < folded.size(); ++k) folded[k] = std::abs(values[k] - median);
  const std::vector<double> folded_scores = normal_scores(folded);
  d.rhat = std::max(scale_reduction({scores, halves.chains}), scale_reduction({folded_scores, halves.chains}));
  d.ess_bulk = effective_size({scores, halves.chains});
  d.ess_tail = std::min(indicator_size(halves, quantile_of(halves_sorted, 0.05)),
                        indicator_size(halves, quantile_of(halves_sorted, 0.95)));
  d.mcse = d.sd / std::sqrt(effective_size(halves));
  return d;
}

} // namespace torvale::sampling
