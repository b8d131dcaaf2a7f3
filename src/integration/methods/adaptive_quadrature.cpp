#include "integration/subjects/evaluation_parts.h"

#include "evaluation/random_covariance.h"
#include "matrix/packed.h"
#include "modes/mode_search.h"

#include <algorithm>
#include <cmath>

namespace torvale::integration {

using model::BatchWork;
using model::NX;
using model::REFFECT;
using model::TVLThreadCtx;

namespace {

// What the subjects of the batch know of effects to which G leaves no variance: the unit of those variances.
void note_null_directions(const NX& n, BatchWork& b)
{
  const int nr = n.leaf().nr, nrs = n.leaf().nrs;
  const auto has_null = [&](const double* l) {
    for (int i = 0; i < nr; ++i)
      if (l[matrix::packed_diagonal(i)] == 0.0) return true;
    return false;
  };
  if (!n.leaf().setup_varies && !has_null(b.factor.data())) return; // the factor of all of them
  const bool at_mode = taken_at_modes(n, b, true);
  for (int slot = 0; slot < b.slots; ++slot) {
    const auto s = static_cast<std::size_t>(slot);
    if (b.failure[s] != 0 || !(b.total[s] > 0.0)) continue;
    const double* const l = b.factor.data() + static_cast<long>(modes::prior_of(n, slot)) * nrs;
    const double* const slope = at_mode ? b.slope.data() + static_cast<long>(slot) * nr
                                        : b.slope_moments.data() + static_cast<long>(slot) * (nr + nr * nr);
    const double* const curve = b.curve.data() + static_cast<long>(slot) * nrs;
    for (int i = 0; i < nr; ++i) {
      const long d = matrix::packed_diagonal(i);
      if (l[d] != 0.0) continue;
      const double mean_slope = slope[i] / b.total[s];
      double& scale = b.null_scale[static_cast<std::size_t>(i)];
      scale = std::max(scale, mean_slope * mean_slope + (n.adaptive ? std::abs(curve[d]) : 0.0));
    }
  }
}

// tvlgaus: a batch of subjects with one level of random effects (gaus Gauss). A nest is a slot.
class AdaptiveQuadrature final : public ClosesEach<AdaptiveQuadrature> {
public:
  void size_batch(const NX& n, TVLThreadCtx& ctx) const override;
  int evaluate(const NX& n, TVLThreadCtx& ctx, bool gradient) const override;
  int close_value(const NX& n, const TVLThreadCtx& ctx, int slot, double& value) const;
  void close_gradient(const NX& n, const TVLThreadCtx& ctx, int slot, double* gradient) const
  {
    if (ctx.batch.factored.in_use)
      close_factored(n, ctx, slot, gradient);
    else
      std::copy_n(ctx.batch.gradients.begin() + static_cast<long>(slot) * n.nparm, n.nparm, gradient);
  }
  void close_modes(NX& n, const TVLThreadCtx& ctx, std::span<const int> slots) const override
  {
    keep_trial_modes(n, ctx, slots);
  }
};

void AdaptiveQuadrature::size_batch(const NX& n, TVLThreadCtx& ctx) const
{
  size_subject_work(n, ctx);
  size_point_sums(n, ctx);
  size_factored(n, ctx);
}

int AdaptiveQuadrature::evaluate(const NX& n, TVLThreadCtx& ctx, bool gradient) const
{
  const REFFECT& reff = n.leaf();
  if (const int rc = evaluation::load_priors(n, ctx, reff.setup.places > reff.setup_value.places); rc > 2) return rc;
  ctx.batch.constants = reff.nr * (0.5 * log2pi - std::log(n.qscale * root_two));
  const modes::AtModes at_modes{sum_at_modes, n.programs.closing_mode(0)};
  if (n.adaptive)
    if (const int rc = modes::tvlebes(n, ctx, gradient && n.programs.closing ? &at_modes : nullptr); rc > 2) return rc;
  if (!n.adaptive) std::fill_n(ctx.batch.z.begin(), static_cast<long>(ctx.batch.slots) * reff.nr, 0.0);
  if (!taken_at_modes(n, ctx.batch, gradient)) find_spread(n, ctx.batch);
  if (const int rc = sum_points(n, ctx, gradient); rc > 2) return rc;
  if (!gradient) return 0;
  note_null_directions(n, ctx.batch);
  if (ctx.batch.factored.in_use) return factored_gradients(n, ctx);
  subject_gradients(n, ctx.batch);
  return 0;
}

// The factor C of the scale adds 1/2 log det H to the constants.
int AdaptiveQuadrature::close_value(const NX& n, const TVLThreadCtx& ctx, int slot, double& value) const
{
  const BatchWork& b = ctx.batch;
  const auto s = static_cast<std::size_t>(slot);
  if (b.failure[s] != 0) return b.failure[s];
  const double total = b.total[s];
  const double log_total = total == 1.0 ? 0.0 : std::log(total); // 1: that of a single point
  value = -(log_total + b.peak[s]) + b.constants;
  if (n.adscale) value += 0.5 * b.search[s].logdet;
  return total > 0.0 ? 0 : zero_integral(n);
}

} // namespace

const Integrator& adaptive_quadrature()
{
  static const AdaptiveQuadrature integrator;
  return integrator;
}

} // namespace torvale::integration
