#include "host/message_names.h"
#include "integration/evaluation_parts.h"

#include "evaluation/random_covariance.h"
#include "matrix/cholesky.h"
#include "matrix/packed.h"
#include "modes/mode_search.h"

#include <algorithm>
#include <cmath>

namespace torvale::integration {

using model::Batch;
using model::BatchWork;
using model::NX;
using model::REFFECT;
using model::SUBINFO;
using model::TVLThreadCtx;

namespace {

// The scale of the points by z: the Cholesky factor of the inverse Hessian, or the identity (then L alone scales u).
void set_spread(const NX& n, BatchWork& b, int slot)
{
  const int nr = n.reff[0].nr, nrs = n.reff[0].nrs;
  double* const c = b.spread.data() + static_cast<long>(slot) * nrs;
  if (!n.adscale) {
    std::fill_n(c, nrs, 0.0);
    for (int i = 0; i < nr; ++i) c[matrix::packed_diagonal(i)] = 1.0;
    return;
  }
  const double* const from = b.covariance.data() + static_cast<long>(slot) * nrs;
  if (nr == 1) {
    c[0] = std::sqrt(from[0]);
    return;
  }
  std::copy_n(from, nrs, c);
  for (int i = 0; i < nr; ++i) {
    const double own = std::abs(from[matrix::packed_diagonal(i)]);
    matrix::zchol(i, c, own == 0.0 ? n.singchol : n.singchol * own);
  }
}

void find_centres(const NX& n, BatchWork& b)
{
  for (int slot = 0; slot < b.slots; ++slot) {
    if (b.failure[static_cast<std::size_t>(slot)] != 0) continue;
    if (!n.adaptive) std::fill_n(b.z.begin() + static_cast<long>(slot) * n.reff[0].nr, n.reff[0].nr, 0.0);
    set_spread(n, b, slot);
  }
}

// The trial mode u = m + L z of a slot.
void store_mode(NX& n, const BatchWork& b, int slot, std::size_t subject)
{
  const int nr = n.reff[0].nr;
  const long p = modes::prior_of(n, slot);
  const double* l = b.factor.data() + p * n.reff[0].nrs;
  const double* const z = b.z.data() + static_cast<long>(slot) * nr;
  double* const u = n.ebtrial.data() + subject * static_cast<std::size_t>(nr);
  for (int i = 0; i < nr; ++i) {
    u[i] = b.mean[static_cast<std::size_t>(p * nr + i)];
    for (int k = 0; k <= i; ++k) u[i] += l[k] * z[k];
    l += i + 1;
  }
  n.ebtrial_known[subject] = 1;
}

// Closes a subject: value and gradient of its integral into its slot of the run. constants: nr/2 log 2 pi - nr log s,
// of the prior and of the scale of the points; their factor C adds 1/2 log det H.
void close_subject(NX& n, const TVLThreadCtx& ctx, int slot, bool gradient, double constants)
{
  const BatchWork& b = ctx.batch;
  const auto s = static_cast<std::size_t>(slot);
  const auto subject = static_cast<std::size_t>(b.subject[s]);
  const REFFECT& reff = n.reff[0];
  int& status = n.slot_status[subject];
  status = b.failure[s];
  n.slot_row[subject] = reff.SubInfo[subject].fvalidobs;
  if (status != 0) return;
  const double total = b.total[s];
  double v = -(std::log(total) + b.peak[s]) + constants;
  if (n.adscale) v += 0.5 * b.search[s].logdet;
  if (!(total > 0.0) || !(v < model::failure_objective) || !std::isfinite(v)) {
    status = reff.sub_character ? message::integral_zero_text_subject::message_number
                                : message::integral_zero::message_number;
    return;
  }
  n.slot_value[subject] = v;
  if (gradient) subject_gradient(n, ctx, slot, n.slot_grad.data() + static_cast<long>(subject) * n.grad_stride);
  if (n.adaptive) store_mode(n, b, slot, subject);
}

} // namespace

void take_batch(const NX& n, TVLThreadCtx& ctx, const Batch& batch)
{
  BatchWork& b = ctx.batch;
  b.slots = batch.last - batch.first;
  std::copy(n.batch_subjects.begin() + batch.first, n.batch_subjects.begin() + batch.last, b.subject.begin());
  std::fill_n(b.failure.begin(), b.slots, 0);
  b.level = n.batch_levels.data() + batch.first_level;
  b.levels = batch.levels;
  b.rows = n.batch_records.data() + batch.first_record;
  ctx.frame->set_records(b.rows, batch.records);
}

int tvlgaus(NX& n, TVLThreadCtx& ctx, const Batch& batch)
{
  const bool gradient = n.dograd;
  take_batch(n, ctx, batch);
  if (const int rc = evaluation::load_priors(n, ctx, n.programs.setup != n.programs.setup_value); rc > 2) return rc;
  if (n.adaptive)
    if (const int rc = modes::tvlebes(n, ctx); rc > 2) return rc;
  find_centres(n, ctx.batch);
  if (const int rc = sum_points(n, ctx, gradient); rc > 2) return rc;
  if (gradient && n.adaptive)
    if (const int rc = sum_curvature(n, ctx); rc > 2) return rc;
  const double constants = n.reff[0].nr * (0.5 * log2pi - std::log(n.qscale * root_two));
  for (int slot = 0; slot < ctx.batch.slots; ++slot) close_subject(n, ctx, slot, gradient, constants);
  return 0;
}

} // namespace torvale::integration
