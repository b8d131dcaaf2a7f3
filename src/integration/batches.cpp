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

// A batch fills a few tiles of the mode search, and there are enough batches for all workers. It takes more rows where
// that brings it subjects enough to lie side by side in the lanes.
constexpr std::int64_t batch_rows = 2 * engine::max_lanes, most_batch_rows = 8 * batch_rows;
constexpr int enough_slots = 64, batch_slots = 256;
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

int records_of(const NX& n, int subject)
{
  const auto s = static_cast<std::size_t>(subject);
  return n.record_first[s + 1] - n.record_first[s];
}

// The records of a batch, level by level.
void list_levels(NX& n, Batch& batch)
{
  batch.first_record = static_cast<std::int64_t>(n.batch_records.size());
  batch.first_level = static_cast<std::int64_t>(n.batch_levels.size());
  batch.levels = records_of(n, n.batch_subjects[static_cast<std::size_t>(batch.first)]);
  n.batch_levels.push_back(0);
  for (int level = 0; level < batch.levels; ++level) {
    for (int i = batch.first; i < batch.last; ++i) {
      const int s = n.batch_subjects[static_cast<std::size_t>(i)];
      if (records_of(n, s) <= level) break;
      n.batch_records.push_back(n.record_rows[static_cast<std::size_t>(n.record_first[static_cast<std::size_t>(s)] + level)]);
    }
    n.batch_levels.push_back(static_cast<std::int32_t>(static_cast<std::int64_t>(n.batch_records.size()) - batch.first_record));
  }
  batch.records = n.batch_levels.back();
}

void close_batch(NX& n, Batch& batch, int contents)
{
  if (contents == batch.first) return;
  batch.last = contents;
  std::stable_sort(n.batch_subjects.begin() + batch.first, n.batch_subjects.end(),
                   [&](int a, int b) { return records_of(n, a) > records_of(n, b); });
  list_levels(n, batch);
  n.batches.push_back(batch);
  batch.first = contents;
}

// Subjects in order, until a batch has rows enough for full tiles; smaller batches when workers would stand idle.
void deal_batches(NX& n)
{
  n.batches.clear();
  for (std::vector<std::int32_t>* v : {&n.batch_subjects, &n.batch_records, &n.batch_levels}) v->clear();
  if (n.nreff() == 0) return;
  const REFFECT& reff = n.reff[0];
  if (reff.SubInfo.empty()) return;
  const long contexts = n.workers != nullptr ? n.workers->contexts() : 1;
  const std::int64_t share = contexts == 1 ? most_batch_rows : n.store->nobs / (contexts * batches_per_context) + 1;
  const std::int64_t enough = enough_slots * (n.store->nobs / static_cast<std::int64_t>(reff.SubInfo.size()) + 1);
  const std::int64_t most_rows = std::min(enough <= most_batch_rows ? std::max(batch_rows, enough) : batch_rows, share);
  Batch batch;
  std::int64_t first_row = 0;
  for (std::size_t s = 0; s < reff.SubInfo.size(); ++s) {
    const auto& subject = reff.SubInfo[s];
    if (subject.badsub) continue;
    const auto contents = static_cast<int>(n.batch_subjects.size());
    const int slots = contents - batch.first;
    const std::int64_t rows = subject.first_row + subject.SubCount - first_row;
    if (slots > 0 && (rows > most_rows || slots >= batch_slots)) close_batch(n, batch, contents);
    if (contents == batch.first) first_row = subject.first_row;
    n.batch_subjects.push_back(static_cast<int>(s));
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
  b.pair_stride = evaluation::most_pairs + 8; // rows a power of two apart would share the lines of the caches
  for (std::vector<int>* v : {&b.subject, &b.column, &b.failure, &b.active}) size(*v, slots);
  size(b.failure_row, slots);
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
