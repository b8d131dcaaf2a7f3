#include "integration/subjects/integrator.h"

#include "integration/subjects/evaluation_parts.h"

#include <algorithm>
#include <cmath>

namespace torvale::integration {

using model::Batch;
using model::BatchWork;
using model::NX;
using model::TVLThreadCtx;

namespace {

// The value and gradient of a nest into its slot of the run. True when they are known.
bool close_nest(NX& n, const TVLThreadCtx& ctx, const Integrator& integrator, int nest)
{
  const auto subject = static_cast<std::size_t>(ctx.batch.nest[static_cast<std::size_t>(nest)]);
  int& status = n.slot_status[subject];
  double v = 0.0;
  status = integrator.close_value(n, ctx, nest, v);
  if (status == 0 && (!(v < model::failure_objective) || !std::isfinite(v))) status = zero_integral(n);
  if (status != 0) {
    n.slot_row[subject] = n.outer().SubInfo[subject].fvalidobs;
    return false;
  }
  n.slot_value[subject] = v;
  if (n.dograd)
    integrator.close_gradient(n, ctx, nest, n.slot_grad.data() + static_cast<long>(subject) * n.grad_stride);
  return true;
}

} // namespace

void take_batch(const NX& n, TVLThreadCtx& ctx, const Batch& batch)
{
  BatchWork& b = ctx.batch;
  b.slots = batch.last - batch.first;
  std::copy(n.batch_subjects.begin() + batch.first, n.batch_subjects.begin() + batch.last, b.subject.begin());
  std::fill_n(b.failure.begin(), b.slots, 0);
  b.number = batch.number;
  if (n.nreff() == 1) {
    b.nests = b.slots;
    std::copy_n(b.subject.begin(), b.slots, b.nest.begin());
  } else {
    b.nests = 0;
    for (int subject = batch.first_nest; subject < batch.last_nest; ++subject)
      if (!n.outer().SubInfo[static_cast<std::size_t>(subject)].badsub)
        b.nest[static_cast<std::size_t>(b.nests++)] = subject;
  }
  b.level = n.batch_levels.data() + batch.first_level;
  b.levels = batch.levels;
  b.rows = n.batch_records.data() + batch.first_record;
  ctx.frame->set_records(b.rows, batch.records);
}

int evaluate_batch(NX& n, TVLThreadCtx& ctx, const Batch& batch)
{
  const Integrator& integrator = integrator_of(n);
  take_batch(n, ctx, batch);
  if (const int rc = integrator.evaluate(n, ctx, n.dograd); rc > 2) return rc;
  int known = 0;
  for (int nest = 0; nest < ctx.batch.nests; ++nest)
    if (close_nest(n, ctx, integrator, nest)) ctx.batch.active[static_cast<std::size_t>(known++)] = nest;
  if (n.adaptive) integrator.close_modes(n, ctx, {ctx.batch.active.data(), static_cast<std::size_t>(known)});
  return 0;
}

const Integrator& integrator_of(const NX& n)
{
  if (n.method == 1) return first_order();
  if (n.method == 2) return trapezoid();
  if (n.method == 4) return support_points();
  return n.nreff() > 1 ? nest_quadrature() : adaptive_quadrature();
}

} // namespace torvale::integration
