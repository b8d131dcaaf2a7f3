#include "inference/pictures/count_frequencies.h"

#include "inference/outputs/response_moments.h"

#include <algorithm>
#include <cmath>

namespace torvale::inference {

namespace {

// Single counts where so many bins are earned by the sample, else 2, 5, 10, 20, ... counts a bin. The largest fiftieth
// of the sample does not widen the bins: it shares the last one.
CountFrequencies bins_of(std::vector<double> counts)
{
  CountFrequencies out;
  std::sort(counts.begin(), counts.end());
  const auto n = static_cast<double>(counts.size());
  const double most = std::clamp(std::floor(2 * std::sqrt(n)), 8.0, 36.0);
  const double low = counts.front(), high = counts[static_cast<std::size_t>(0.98 * (n - 1))];
  const auto start = [&] { return std::floor(low / out.width) * out.width; };
  const auto bins_up_to = [&](double count) { return std::floor((count - out.first) / out.width) + 1; };
  for (int k = 1; out.first = start(), bins_up_to(high) > most; ++k)
    out.width = (k % 3 == 0 ? 1.0 : k % 3 == 1 ? 2.0 : 5.0) * std::pow(10.0, k / 3);
  if (high / out.width < most) out.first = 0; // bins that cost nothing
  const double bins = std::min(bins_up_to(counts.back()), std::max(most, bins_up_to(high)));
  out.observed.assign(static_cast<std::size_t>(bins) + 1, 0.0);
  out.expected = out.observed;
  return out;
}

// Adds the probabilities of one record. Edges far from its mean, where nothing is left, are not looked at.
void add_expected(int distribution, const double* arguments, CountFrequencies& out)
{
  constexpr double nothing = 1e-9;
  const auto bins = static_cast<std::ptrdiff_t>(out.expected.size());
  const auto above = [&](std::ptrdiff_t edge) { // the count is in bin `edge` or higher
    return count_tails(distribution, out.first + static_cast<double>(edge) * out.width - 1, arguments).upper;
  };
  const double mean = response_moments(distribution, arguments).mean;
  const auto middle =
      static_cast<std::ptrdiff_t>(std::clamp((mean - out.first) / out.width, 0.0, static_cast<double>(bins - 1)));
  const double at_middle = middle > 0 ? above(middle) : 1.0;
  double higher = at_middle;
  for (std::ptrdiff_t k = middle; k < bins && higher > nothing; ++k) {
    const double next = k + 1 < bins ? above(k + 1) : 0.0;
    out.expected[static_cast<std::size_t>(k)] += higher - next;
    higher = next;
  }
  double lower = at_middle;
  for (std::ptrdiff_t k = middle - 1; k >= 0 && lower < 1 - nothing; --k) {
    const double next = k > 0 ? above(k) : 1.0;
    out.expected[static_cast<std::size_t>(k)] += next - lower;
    lower = next;
  }
}

} // namespace

CountFrequencies count_frequencies(int distribution, const std::vector<double>& response,
                                   const std::vector<double>& arguments)
{
  const auto each = static_cast<std::size_t>(response_arguments(distribution));
  std::vector<double> counts;
  std::vector<const double*> of;
  for (std::size_t i = 0; i < response.size(); ++i) {
    const double* a = arguments.data() + i * each;
    if (!(response[i] >= 0) || !std::isfinite(count_tails(distribution, response[i], a).upper)) continue;
    counts.push_back(std::floor(response[i]));
    of.push_back(a);
  }
  if (counts.empty()) return {};
  CountFrequencies out = bins_of(counts);
  const auto last = static_cast<double>(out.observed.size() - 1);
  for (const double k : counts) ++out.observed[static_cast<std::size_t>(std::min((k - out.first) / out.width, last))];
  for (const double* a : of) add_expected(distribution, a, out);
  return out;
}

} // namespace torvale::inference
