#include "data/row_marker.h"

#include "evaluation/machine_builds.h"
#include "model/distribution_labels.h"

#include <algorithm>
#include <cmath>

namespace torvale::data {

using model::BadCause;

namespace {

// A whole number, without a call: adding 2^52 rounds what is smaller to one. Infinities count as whole, NaNs do not.
bool whole(double x)
{
  constexpr double two_52 = 4503599627370496.0;
  const double size = std::abs(x);
  return (size >= two_52) | ((size + two_52) - two_52 == size);
}

// What a value must be.
enum class Must : std::uint8_t { exist, be_whole, not_be_less, be_more };

// Nearly always all lanes are fine: that is found out in vectors.
template <class Good> bool all(const double* values, int lanes, const Good& good)
{
  std::uint64_t refused = 0; // as wide as the values
  for (int j = 0; j < lanes; ++j) refused |= good(values[j]) ? 0U : 1U;
  return refused == 0;
}

// One comparison tells whether either of two values is missing.
bool all_numbers(const double* values, int lanes)
{
  const int half = lanes / 2;
  std::uint64_t missing = values[lanes - 1] == values[lanes - 1] ? 0U : 1U;
  for (int j = 0; j < half; ++j) missing |= __builtin_isunordered(values[j], values[half + j]) ? 1U : 0U;
  return missing == 0;
}

bool all_good(Must must, double limit, const double* values, int lanes)
{
  switch (must) {
  case Must::be_whole:
    return all(values, lanes, whole);
  case Must::not_be_less:
    return all(values, lanes, [limit](double x) { return x >= limit; });
  case Must::be_more:
    return all(values, lanes, [limit](double x) { return x > limit; });
  case Must::exist:
    break;
  }
  return all_numbers(values, lanes);
}

TORVALE_AVX2_BUILD bool all_good_avx2(Must must, double limit, const double* values, int lanes)
{
  return all_good(must, limit, values, lanes);
}

bool all_lanes(Must must, double limit, const double* values, int lanes)
{
  static const auto build = evaluation::build_for_machine(all_good, all_good_avx2);
  return build(must, limit, values, lanes);
}

} // namespace

RowMarker::RowMarker(model::NX& n) : n_(n), counts_(model::has_probabilities(n.disttype)) {}

void RowMarker::take(const RowTile& tile, const engine::Frame& frame, BlockFindings& found) const
{
  const int outputs = static_cast<int>(n_.pass_kind.size());
  const double* loglik = nullptr;
  for (int k = 0; k < outputs; ++k) {
    const auto cause = static_cast<BadCause>(n_.pass_kind[static_cast<std::size_t>(k)]);
    const double* const values = frame.output(k);
    if (cause == BadCause::log_likelihood && loglik == nullptr) loglik = values;
    if (cause == BadCause::replicate) take_replicates(tile, values);
    if (usable(values, tile.lanes, cause)) continue;
    for (int j = 0; j < tile.lanes; ++j) look_at(tile.row(j), values[j], cause, found);
  }
  if (loglik != nullptr && !all_lanes(Must::be_more, model::impossible_loglik, loglik, tile.lanes))
    count_impossible(tile, loglik, found);
}

void RowMarker::count_impossible(const RowTile& tile, const double* loglik, BlockFindings& found) const
{
  for (int j = 0; j < tile.lanes; ++j) {
    const std::int64_t row = tile.row(j);
    if (loglik[j] > model::impossible_loglik || n_.store->badobs[static_cast<std::size_t>(row)] != BadCause::none)
      continue;
    ++found.impossible;
    if (found.first_impossible.size() < BlockFindings::most_shown) found.first_impossible.push_back(row);
  }
}

bool RowMarker::usable(const double* values, int lanes, BadCause cause) const
{
  const Must must = cause == BadCause::replicate              ? Must::not_be_less
                    : cause == BadCause::dependent && counts_ ? Must::be_whole
                                                              : Must::exist;
  return all_lanes(must, n_.singvar, values, lanes);
}

void RowMarker::take_replicates(const RowTile& tile, const double* values) const
{
  for (int j = 0; j < tile.lanes; ++j) n_.store->replicate[static_cast<std::size_t>(tile.row(j))] = values[j];
}

void RowMarker::look_at(std::int64_t row, double value, BadCause cause, BlockFindings& found) const
{
  const bool refused = cause == BadCause::replicate && !(value >= n_.singvar);
  if (std::isnan(value) || refused) {
    auto& bad = n_.store->badobs[static_cast<std::size_t>(row)];
    if (bad != BadCause::none) return;
    bad = cause;
    ++found.bad;
  } else if (cause == BadCause::dependent && counts_ && !whole(value) && found.fractions++ == 0) {
    found.first_fraction = row;
  }
}

} // namespace torvale::data
