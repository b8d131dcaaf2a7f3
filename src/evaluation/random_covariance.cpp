#include "evaluation/random_covariance.h"

#include "evaluation/record_sums.h"
#include "host/messages/names/statements.h"
#include "host/values/missing.h"
#include "matrix/cholesky.h"
#include "matrix/eigenvalues.h"
#include "matrix/packed.h"

#include <algorithm>
#include <cmath>

namespace torvale::evaluation {

using model::BatchWork;
using model::BlockWork;
using model::FitState;
using model::NX;
using model::REFFECT;
using model::RunOptions;
using model::TVLThreadCtx;

namespace {

constexpr int missing_argument = message::random_covariance_missing::message_number;
constexpr int not_semidefinite = message::random_covariance_not_definite::message_number;
constexpr int missing_support = message::likelihood_not_usable::message_number;

// An indefinite G ends the evaluation; one that is semidefinite to singvar (of its largest variance) goes on.
void classify_singular(const RunOptions& n, int nr, BlockWork& block)
{
  block.logdetgi = 0.0;
  double smallest = 0.0;
  std::copy_n(block.gi.begin(), matrix::packed_size(nr), block.work1.begin());
  matrix::zeigval(nr, block.work1.data(), &smallest, -1, block.work2.data());
  double unit = 1.0;
  if (n.variance_floor == 0.0) { // then what is rounding depends on the units
    unit = 0.0;
    for (int i = 0; i < nr; ++i) unit = std::max(unit, block.gi[static_cast<std::size_t>(matrix::packed_diagonal(i))]);
  }
  block.singG = smallest >= -n.singvar * unit;
  block.negG = !block.singG;
}

// Number of the message that the prior in `block` deserves; 0 when it is usable.
int prior_failure(const BlockWork& block)
{
  return block.badG ? missing_argument : block.negG ? not_semidefinite : 0;
}

// A column of the factor that is zero gets the variance that the run lends it.
void lift_factor(const FitState& n, const REFFECT& reff, double* factor)
{
  for (int i = 0; i < reff.nr; ++i) {
    double& pivot = factor[matrix::packed_diagonal(i)];
    if (pivot == 0.0) pivot = std::sqrt(n.lift[static_cast<std::size_t>(reff.first_effect + i)]);
  }
}

// Moves the arguments of one lane into prior `p`, factors G. Equal arguments as in the prior before give the same
// factor.
int take_prior(const NX& n, TVLThreadCtx& ctx, const PriorEntries& entries, int p, int lane, long arguments)
{
  const REFFECT& reff = entries.reff;
  model::Priors& b = entries.priors;
  const double* const* const output = b.outputs.data();
  double* const values = b.arguments.data() + p * arguments;
  for (long k = 0; k < arguments; ++k) values[k] = output[k] != nullptr ? output[k][lane] : 0.0;
  if (reff.distrtype != 0) // support points: no mean, no G
    return std::any_of(values, values + reff.nd, [](double x) { return std::isnan(x); }) ? missing_support : 0;
  double* const mean = b.mean.data() + static_cast<long>(p) * reff.nr;
  double* const factor = b.factor.data() + static_cast<long>(p) * reff.nrs;
  std::copy_n(values, reff.nr, mean);
  if (p > 0 && std::equal(values + reff.nr, values + reff.nd, values + reff.nr - arguments)) {
    std::copy_n(factor - reff.nrs, reff.nrs, factor);
  } else {
    std::copy_n(values + reff.nr, reff.nrs, ctx.block.gi.begin());
    tvlgetg(n, reff.nr, ctx.block);
    std::copy_n(ctx.block.gic.begin(), reff.nrs, factor);
    if (!n.lift.empty()) lift_factor(n, reff, factor);
  }
  for (int e = 0; e < reff.nr; ++e)
    if (std::isnan(mean[e])) return missing_argument;
  return prior_failure(ctx.block);
}

int slot_of(const PriorEntries& entries, int entry)
{
  return entries.slot != nullptr ? entries.slot[entry] : entry;
}

// Which of a slot's records is the first used one. Of programs that keep values the records before it are listed too.
std::int32_t first_used(const NX& n, const BatchWork& b, int slot)
{
  const auto& subject = n.leaf().SubInfo[static_cast<std::size_t>(b.subject[static_cast<std::size_t>(slot)])];
  const auto first = static_cast<std::size_t>(n.record_first[static_cast<std::size_t>(subject.index)]);
  int record = 0;
  while (n.record_row(first + static_cast<std::size_t>(record)) < subject.fvalidobs) ++record;
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

// The arguments of entries first to first + count - 1 in one tile.
int run_first_records(const NX& n, TVLThreadCtx& ctx, const engine::Program& program, const PriorEntries& entries,
                      int first, int count)
{
  const BatchWork& b = ctx.batch;
  for (int k = 0; k < count; ++k) {
    const auto at = static_cast<std::size_t>(k);
    const int slot = slot_of(entries, first + k);
    ctx.tile.observation[at] = b.level[first_used(n, b, slot)] + slot;
    ctx.tile.point[at] = 0;
  }
  return tvlexec(ctx, program, {count, ctx.tile.observation.data(), ctx.tile.point.data(), nullptr});
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
    else if (variance < n.variance_floor || variance < 0.0)
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
  BatchWork& b = ctx.batch;
  return load_priors(n, ctx, {n.leaf(), b, nullptr, b.slots, b.failure.data()}, with_derivatives);
}

int load_priors(const NX& n, TVLThreadCtx& ctx, const PriorEntries& entries, bool with_derivatives)
{
  const REFFECT& reff = entries.reff;
  model::Priors& b = entries.priors;
  const engine::Program& program = with_derivatives ? *reff.setup.code : *reff.setup_value.code;
  const long arguments = with_derivatives ? reff.setup.places : reff.nd;
  const bool varies = reff.setup_varies;
  if (!varies && b.prior_loaded) {
    std::fill_n(entries.failure, entries.count, b.prior_failure);
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
  ctx.frame->set_points(ctx.batch.ran.data(), 1, 1); // the arguments do not read the random effects
  if (varies && !engine::sequential(program)) {
    for (int first = 0; first < entries.count; first += engine::max_lanes) {
      const int count = std::min(engine::max_lanes, entries.count - first);
      if (const int rc = run_first_records(n, ctx, program, entries, first, count); rc > 2) return rc;
      collect();
      for (int k = 0; k < count; ++k) entries.failure[first + k] = take_prior(n, ctx, entries, first + k, k, arguments);
    }
    return 0;
  }
  for (int entry = 0; entry < (varies ? entries.count : std::min(1, entries.count)); ++entry) {
    if (const int rc = run_to_first_record(n, ctx, program, slot_of(entries, entry)); rc > 2) return rc;
    collect();
    entries.failure[entry] = take_prior(n, ctx, entries, entry, 0, arguments);
  }
  if (!varies && entries.count > 0) {
    b.prior_loaded = true;
    b.prior_failure = entries.failure[0];
    std::fill_n(entries.failure, entries.count, b.prior_failure);
  }
  return 0;
}

} // namespace torvale::evaluation
