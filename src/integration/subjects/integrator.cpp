#include "integration/subjects/integrator.h"

#include "integration/subjects/evaluation_parts.h"

#include <algorithm>

namespace torvale::integration {

using model::Batch;
using model::BatchWork;
using model::NX;
using model::TVLThreadCtx;

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

void keep_failure(NX& n, std::size_t subject, int status)
{
  n.slot_status[subject] = status != 0 ? status : zero_integral(n);
  n.slot_row[subject] = n.outer().SubInfo[subject].fvalidobs;
}

int evaluate_batch(NX& n, TVLThreadCtx& ctx, const Batch& batch)
{
  const Integrator& integrator = integrator_of(n);
  take_batch(n, ctx, batch);
  if (const int rc = integrator.evaluate(n, ctx, n.dograd); rc > 2) return rc;
  const int known = integrator.close_nests(n, ctx);
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
