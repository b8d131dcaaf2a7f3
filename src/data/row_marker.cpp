#include "data/row_marker.h"

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

// Nearly always all lanes are fine: that is found out in vectors.
template <class Good> bool all(const double* values, int lanes, const Good& good)
{
  std::uint64_t refused = 0; // as wide as the values
  for (int j = 0; j < lanes; ++j) refused |= good(values[j]) ? 0U : 1U;
  return refused == 0;
}

} // namespace

RowMarker::RowMarker(model::NX& n)
    : n_(n),
      counts_(n.disttype == 2 || n.disttype == 3 || n.disttype == 4 || n.disttype == 6) // binary to neg. binomial
{
}

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
  const auto possible = [](double x) { return x > model::impossible_loglik; };
  if (loglik != nullptr && !all(loglik, tile.lanes, possible)) count_impossible(tile, loglik, found);
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
  const double least = n_.singvar;
  if (cause == BadCause::replicate) return all(values, lanes, [&](double x) { return x >= least; });
  if (cause == BadCause::dependent && counts_) return all(values, lanes, whole);
  return all(values, lanes, [](double x) { return x == x; });
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
    if (bad == BadCause::none) bad = cause;
  } else if (cause == BadCause::dependent && counts_ && !whole(value) && found.fractions++ == 0) {
    found.first_fraction = row;
  }
}

} // namespace torvale::data
