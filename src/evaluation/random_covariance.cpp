#include "evaluation/random_covariance.h"

#include "evaluation/record_sums.h"
#include "host/missing.h"
#include "matrix/cholesky.h"
#include "matrix/eigenvalues.h"
#include "matrix/packed.h"

#include <algorithm>
#include <cmath>

namespace torvale::evaluation {

using model::BatchWork;
using model::BlockWork;
using model::NX;
using model::REFFECT;
using model::TVLThreadCtx;

namespace {

constexpr int missing_argument = 135, not_semidefinite = 132;

// An indefinite G ends the evaluation; one that is semidefinite to singvar goes on.
void classify_singular(const NX& n, int nr, BlockWork& block)
{
  block.logdetgi = 0.0;
  double smallest = 0.0;
  std::copy_n(block.gi.begin(), matrix::packed_size(nr), block.work1.begin());
  matrix::zeigval(nr, block.work1.data(), &smallest, -1, block.work2.data());
  block.singG = smallest >= -n.singvar;
  block.negG = !block.singG;
}

// Number of the message that the prior in `block` deserves; 0 when it is usable.
int prior_failure(const BlockWork& block)
{
  return block.badG ? missing_argument : block.negG ? not_semidefinite : 0;
}

// Moves the arguments of one lane into prior `p`, factors G. Equal arguments as in the prior before give the same factor.
int take_prior(const NX& n, TVLThreadCtx& ctx, int p, const double* const* output, int lane, long arguments)
{
  const REFFECT& reff = n.leaf();
  BatchWork& b = ctx.batch;
  double* const values = b.arguments.data() + p * arguments;
  for (long k = 0; k < arguments; ++k) values[k] = output[k] != nullptr ? output[k][lane] : 0.0;
  double* const mean = b.mean.data() + static_cast<long>(p) * reff.nr;
  double* const factor = b.factor.data() + static_cast<long>(p) * reff.nrs;
  std::copy_n(values, reff.nr, mean);
  if (p > 0 && std::equal(values + reff.nr, values + reff.nd, values + reff.nr - arguments)) {
    std::copy_n(factor - reff.nrs, reff.nrs, factor);
  } else {
    std::copy_n(values + reff.nr, reff.nrs, ctx.block.gi.begin());
    tvlgetg(n, reff.nr, ctx.block);
    std::copy_n(ctx.block.gic.begin(), reff.nrs, factor);
  }
  for (int e = 0; e < reff.nr; ++e)
    if (std::isnan(mean[e])) return missing_argument;
  return prior_failure(ctx.block);
}

// Which of a slot's records is the first used one. Of programs that keep values the records before it are listed too.
std::int32_t first_used(const NX& n, const BatchWork& b, int slot)
{
  const auto& subject = n.leaf().SubInfo[static_cast<std::size_t>(b.subject[static_cast<std::size_t>(slot)])];
  const std::int32_t* const rows = n.record_rows.data() + n.record_first[static_cast<std::size_t>(subject.index)];
  int record = 0;
  while (rows[record] < subject.fvalidobs) ++record;
  return record;
}

// One subject's arguments, at its first used record. Programs that keep values must see the records before it.
int run_to_first_record(const NX& n, TVLThreadCtx& ctx, const engine::Program& program, int slot)
{
  const BatchWork& b = ctx.batch;
  const std::int32_t zero = 0;
  const bool keeps = engine::sequential(program);
  if (keeps) ctx.frame->reset_state(program, 1);
  const int last = first_used(n, b, slot);
  for (int record = keeps ? 0 : last; record <= last; ++record) {
    const std::int32_t observation = b.level[record] + slot;
    if (const int rc = tvlexec(ctx, program, {1, &observation, &zero, keeps ? &zero : nullptr}); rc > 2) return rc;
  }
  return 0;
}

// The arguments of all slots in one tile.
int run_first_records(const NX& n, TVLThreadCtx& ctx, const engine::Program& program)
{
  const BatchWork& b = ctx.batch;
  for (int slot = 0; slot < b.slots; ++slot) {
    const auto at = static_cast<std::size_t>(slot);
    ctx.tile.observation[at] = b.level[first_used(n, b, slot)] + slot;
    ctx.tile.point[at] = 0;
  }
  return tvlexec(ctx, program, {b.slots, ctx.tile.observation.data(), ctx.tile.point.data(), nullptr});
}

} // namespace

int tvlgetg(const NX& n, int nr, BlockWork& block)
{
  block.negG = block.singG = block.badG = false;
  block.logdetgi = 0.0;
  const long nrs = matrix::packed_size(nr);
  for (long k = 0; k < nrs; ++k)
    if (std::isnan(block.gi[static_cast<std::size_t>(k)])) {
      block.badG = true;
      return 1;
    }
  for (int i = 0; i < nr; ++i) {
    double& variance = block.gi[static_cast<std::size_t>(matrix::packed_diagonal(i))];
    if (variance < -n.singvar)
      block.negG = true;
    else if (variance < n.singvar)
      variance = 0.0;
  }
  if (block.negG) return 0;

  std::copy_n(block.gi.begin(), nrs, block.gic.begin());
  bool singular = false;
  for (int i = 0; i < nr; ++i) {
    const auto d = static_cast<std::size_t>(matrix::packed_diagonal(i));
    const double variance = block.gi[d];
    matrix::zchol(i, block.gic.data(), variance == 0.0 ? n.singchol : n.singchol * variance);
    const double pivot = block.gic[d];
    block.singGr[static_cast<std::size_t>(i)] = pivot > 0.0 ? 0 : 1;
    if (pivot > 0.0)
      block.logdetgi += 2.0 * std::log(pivot);
    else
      singular = true;
  }
  if (singular) classify_singular(n, nr, block);
  return 0;
}

int load_priors(const NX& n, TVLThreadCtx& ctx, bool with_derivatives)
{
  const REFFECT& reff = n.leaf();
  BatchWork& b = ctx.batch;
  const engine::Program& program = with_derivatives ? *reff.setup.code : *reff.setup_value.code;
  const long arguments = with_derivatives ? reff.setup.places : reff.nd;
  const bool varies = reff.setup_varies;
  if (!varies && b.prior_loaded) {
    std::fill_n(b.failure.begin(), b.slots, b.prior_failure);
    return 0;
  }
  // By place; the arguments themselves come first, and a derivative that is identically zero is no output.
  const auto collect = [&] {
    std::fill(b.outputs.begin(), b.outputs.end(), nullptr);
    if (with_derivatives)
      for (std::size_t k = 0; k < reff.setup.outputs.size(); ++k)
        b.outputs[static_cast<std::size_t>(reff.setup.outputs[k])] = ctx.frame->output(static_cast<int>(k));
    else
      for (int a = 0; a < reff.nd; ++a) b.outputs[static_cast<std::size_t>(a)] = ctx.frame->output(a);
  };
  ctx.frame->set_points(b.ran.data(), 1, 1); // the arguments do not read the random effects
  if (varies && !engine::sequential(program)) {
    if (const int rc = run_first_records(n, ctx, program); rc > 2) return rc;
    collect();
    for (int slot = 0; slot < b.slots; ++slot)
      b.failure[static_cast<std::size_t>(slot)] = take_prior(n, ctx, slot, b.outputs.data(), slot, arguments);
    return 0;
  }
  for (int slot = 0; slot < (varies ? b.slots : 1); ++slot) {
    if (const int rc = run_to_first_record(n, ctx, program, slot); rc > 2) return rc;
    collect();
    b.failure[static_cast<std::size_t>(slot)] = take_prior(n, ctx, slot, b.outputs.data(), 0, arguments);
  }
  if (!varies) {
    b.prior_loaded = true;
    b.prior_failure = b.failure[0];
    std::fill_n(b.failure.begin(), b.slots, b.prior_failure);
  }
  return 0;
}

} // namespace torvale::evaluation
