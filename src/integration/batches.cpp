// Contexts, batches and work arrays: everything that an evaluation finds ready.

#include "integration/objective.h"

#include "evaluation/record_sums.h"
#include "integration/evaluation_parts.h"
#include "parallel/worker_pool.h"

#include <algorithm>

namespace torvale::integration {

using model::BadCause;
using model::Batch;
using model::BatchWork;
using model::BlockWork;
using model::NX;
using model::REFFECT;
using model::TVLThreadCtx;

namespace {

// A batch fills a few tiles of the mode search, and there are enough batches for all workers.
constexpr std::int64_t batch_rows = 2 * engine::max_lanes;
constexpr int batch_slots = 256;
constexpr long batches_per_context = 8;

template <class T> void size(std::vector<T>& v, long count)
{
  v.assign(static_cast<std::size_t>(count), T{});
}

bool keeps_values(const NX& n)
{
  const auto& p = n.programs;
  for (const engine::Program* program : {p.setup, p.value, p.gradient, p.mode, p.curvature})
    if (program != nullptr && engine::sequential(*program)) return true;
  return false;
}

// The records that tiles visit, by subject. Without random effects there is one list for all.
void list_records(NX& n)
{
  const bool all = keeps_values(n);
  n.record_rows.clear();
  n.record_first.assign(1, 0);
  const auto add = [&](std::int64_t first, std::int64_t count) {
    for (std::int64_t row = first; row < first + count; ++row)
      if (all || n.store->badobs[static_cast<std::size_t>(row)] == BadCause::none)
        n.record_rows.push_back(static_cast<std::int32_t>(row));
    n.record_first.push_back(static_cast<std::int32_t>(n.record_rows.size()));
  };
  if (n.nreff() == 0) return add(0, n.store->nobs);
  for (const auto& s : n.reff[0].SubInfo) add(s.first_row, s.badsub ? 0 : s.SubCount);
}

void close_batch(NX& n, Batch& batch, int contents)
{
  if (contents == batch.first) return;
  batch.last = contents;
  const auto records = [&](int s) {
    return n.record_first[static_cast<std::size_t>(s) + 1] - n.record_first[static_cast<std::size_t>(s)];
  };
  std::stable_sort(n.batch_subjects.begin() + batch.first, n.batch_subjects.end(),
                   [&](int a, int b) { return records(a) > records(b); });
  n.batches.push_back(batch);
  batch = Batch{contents, contents, 0, 0};
}

// Subjects in order, until a batch has rows enough for full tiles; smaller batches when workers would stand idle.
void deal_batches(NX& n)
{
  n.batches.clear();
  n.batch_subjects.clear();
  if (n.nreff() == 0) return;
  const REFFECT& reff = n.reff[0];
  const long contexts = n.workers != nullptr ? n.workers->contexts() : 1;
  const std::int64_t share = contexts == 1 ? batch_rows : n.store->nobs / (contexts * batches_per_context) + 1;
  const std::int64_t most_rows = std::min(batch_rows, share);
  Batch batch;
  for (std::size_t s = 0; s < reff.SubInfo.size(); ++s) {
    const auto& subject = reff.SubInfo[s];
    if (subject.badsub) continue;
    const auto contents = static_cast<int>(n.batch_subjects.size());
    const std::int64_t rows = subject.first_row + subject.SubCount - batch.first_row;
    if (contents > batch.first && (rows > most_rows || contents - batch.first >= batch_slots)) close_batch(n, batch, contents);
    if (contents == batch.first) batch.first_row = subject.first_row;
    n.batch_subjects.push_back(static_cast<int>(s));
    batch.rows = subject.first_row + subject.SubCount - batch.first_row;
  }
  close_batch(n, batch, static_cast<int>(n.batch_subjects.size()));
}

void size_block(const REFFECT& reff, BlockWork& block)
{
  const long nr = reff.nr, nrs = reff.nrs, bordered = (nr + 1) * (nr + 2) / 2;
  size(block.gi, nrs);
  size(block.gic, nrs);
  size(block.singGr, nr);
  size(block.hessumat, bordered);
  size(block.hessumat0, bordered);
  size(block.dfr, nr + 1);
  size(block.work1, std::max(nrs, nr + 1));
  size(block.work2, 5 * nr);
  size(block.work3, nrs + 3 * nr);
}

void size_batch(const NX& n, const REFFECT& reff, BatchWork& b)
{
  int slots = 1;
  for (const Batch& batch : n.batches) slots = std::max(slots, batch.last - batch.first);
  const long nr = reff.nr, nrs = reff.nrs, np = n.nparm;
  const bool derivatives = n.programs.curvature != nullptr || n.programs.gradient != nullptr;
  const long priors = n.programs.setup_varies ? slots : 1;
  const long arguments = reff.nd + (derivatives ? reff.nd * np : 0);
  b.mode_stride = (slots + 7) / 8 * 8;
  b.pair_stride = evaluation::tile_pairs;
  for (std::vector<int>* v : {&b.subject, &b.column, &b.failure, &b.active, &b.run_slot}) size(*v, slots);
  size(b.failure_row, slots);
  size(b.runs, slots);
  size(b.search, slots);
  size(b.mean, priors * nr);
  size(b.factor, priors * nrs);
  size(b.arguments, priors * arguments);
  size(b.outputs, arguments);
  for (std::vector<double>* v : {&b.z, &b.zold, &b.slope}) size(*v, slots * nr);
  for (std::vector<double>* v : {&b.curve, &b.covariance, &b.spread}) size(*v, slots * nrs);
  if (n.programs.mode != nullptr) size(b.mode_sums, (1 + nr + nrs) * b.mode_stride);
  if (n.programs.curvature != nullptr) size(b.curvature_sums, (nr * np + (np + nr) * nrs) * b.mode_stride);
  size(b.point_sums, (n.programs.gradient != nullptr ? 1 + np + nr : 1) * b.pair_stride);
  size(b.ran, nr * b.pair_stride);
  size(b.prior, b.pair_stride);
  size(b.peak, slots);
  size(b.total, slots);
  size(b.point_moments, slots * (nr + nrs));
  size(b.slope_moments, slots * (nr + nr * nr));
  size(b.direct, slots * np);
  size(b.scratch, point_scratch(n, reff));
  b.prior_loaded = false;
}

void size_slots(NX& n)
{
  const long slots = n.nreff() > 0 ? static_cast<long>(n.reff[0].SubInfo.size()) : observation_blocks(n);
  n.grad_stride = (n.nparm + 7) / 8 * 8;
  size(n.slot_value, slots);
  size(n.slot_grad, slots * n.grad_stride);
  size(n.slot_status, slots);
  n.slot_row.assign(static_cast<std::size_t>(slots), -1);
}

void size_modes(NX& n)
{
  if (n.nreff() == 0) return;
  const std::size_t subjects = n.reff[0].SubInfo.size();
  if (n.ebes_known.size() == subjects && n.ebes.size() == subjects * static_cast<std::size_t>(n.reff[0].nr)) return;
  forget_modes(n);
}

} // namespace

void size_contexts(NX& n)
{
  list_records(n);
  deal_batches(n);
  const std::size_t contexts = n.workers != nullptr ? static_cast<std::size_t>(n.workers->contexts()) : 1;
  n.ctx.resize(contexts);
  for (std::size_t c = 0; c < contexts; ++c) {
    if (n.ctx[c] == nullptr) n.ctx[c] = std::make_unique<TVLThreadCtx>();
    TVLThreadCtx& ctx = *n.ctx[c];
    ctx.threadId = static_cast<int>(c);
    if (ctx.frame == nullptr) ctx.frame = std::make_unique<engine::Frame>(*n.gcmp, n.bound);
    size(ctx.tile.observation, engine::max_lanes);
    size(ctx.tile.point, engine::max_lanes);
    size(ctx.work, n.nparm);
    if (n.nreff() == 0) continue;
    size_block(n.reff[0], ctx.block);
    size_batch(n, n.reff[0], ctx.batch);
  }
  size_slots(n);
  size_modes(n);
  n.parmlast.clear();
}

void forget_modes(NX& n)
{
  n.ebtrial_point.clear();
  if (n.nreff() == 0) return;
  const long subjects = static_cast<long>(n.reff[0].SubInfo.size());
  for (std::vector<double>* v : {&n.ebes, &n.ebtrial}) size(*v, subjects * n.reff[0].nr);
  for (std::vector<char>* v : {&n.ebes_known, &n.ebtrial_known}) size(*v, subjects);
}

} // namespace torvale::integration
