#include "integration/monte_carlo_error.h"

#include "host/values/missing.h"
#include "integration/subjects/evaluation_parts.h"
#include "integration/subjects/integrator.h"

#include <cmath>

namespace torvale::integration {

int monte_carlo_error(model::NX& n, double& error)
{
  error = host::missing;
  model::TVLThreadCtx& ctx = *n.ctx[0];
  ctx.frame->set_parameters(n.parm.data());
  ctx.batch.prior_loaded = false;
  const long points = n.leaf().nqpr;
  std::vector<double> shares(static_cast<std::size_t>(points), 0.0);
  for (const auto& batch : n.batches) {
    take_batch(n, ctx, batch);
    if (const int rc = integrator_of(n).evaluate(n, ctx, false); rc > 2) return rc;
    if (const int rc = add_shares(n, ctx, shares.data()); rc > 2) return rc;
  }
  double mean = 0.0, square = 0.0;
  for (const double s : shares) mean += s / static_cast<double>(points);
  for (const double s : shares) square += (s - mean) * (s - mean);
  if (points > 1) error = std::sqrt(square / static_cast<double>(points - 1) * static_cast<double>(points));
  if (!std::isfinite(error)) error = host::missing;
  return 0;
}

} // namespace torvale::integration
