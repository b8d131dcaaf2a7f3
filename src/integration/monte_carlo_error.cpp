#include "integration/monte_carlo_error.h"

#include "host/values/missing.h"
#include "integration/subjects/evaluation_parts.h"
#include "integration/subjects/integrator.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

namespace torvale::integration {

namespace {

// Adds the shares of a batch's slots, nqpr numbers each, subject by subject in the order of the data: the sum is the
// same however subjects are dealt to batches.
void add_by_subject(const model::NX& n, const model::BatchWork& b, const std::vector<double>& of_slot,
                    std::vector<double>& shares)
{
  std::vector<int> slots(static_cast<std::size_t>(b.slots));
  std::iota(slots.begin(), slots.end(), 0);
  const auto subject = [&](int slot) { return b.subject[static_cast<std::size_t>(slot)]; };
  std::sort(slots.begin(), slots.end(), [&](int x, int y) { return subject(x) < subject(y); });
  for (const int slot : slots) {
    if (b.failure[static_cast<std::size_t>(slot)] != 0) continue;
    const double* const own = of_slot.data() + slot * n.leaf().nqpr;
    for (std::size_t q = 0; q < shares.size(); ++q) shares[q] += own[q];
  }
}

} // namespace

int monte_carlo_error(model::NX& n, double& error)
{
  error = host::missing;
  model::TVLThreadCtx& ctx = *n.ctx[0];
  ctx.frame->set_parameters(n.parm.data());
  ctx.batch.prior_loaded = false;
  const long points = n.leaf().nqpr;
  std::vector<double> shares(static_cast<std::size_t>(points), 0.0), of_slot;
  for (const auto& batch : n.batches) {
    take_batch(n, ctx, batch);
    if (const int rc = integrator_of(n).evaluate(n, ctx, false); rc > 2) return rc;
    of_slot.resize(static_cast<std::size_t>(ctx.batch.slots * points));
    if (const int rc = find_shares(n, ctx, of_slot.data()); rc > 2) return rc;
    add_by_subject(n, ctx.batch, of_slot, shares);
  }
  double mean = 0.0, square = 0.0;
  for (const double s : shares) mean += s / static_cast<double>(points);
  for (const double s : shares) square += (s - mean) * (s - mean);
  if (points > 1) error = std::sqrt(square / static_cast<double>(points - 1) * static_cast<double>(points));
  if (!std::isfinite(error)) error = host::missing;
  return 0;
}

} // namespace torvale::integration
