// Contexts, batches and work arrays: everything that an evaluation finds ready.

#include "integration/objective.h"

#include "integration/evaluation_parts.h"
#include "parallel/worker_pool.h"

#include <algorithm>

namespace torvale::integration {

using model::BadCause;
using model::Batch;
using model::BatchWork;
using model::NX;
using model::REFFECT;
using model::TVLThreadCtx;

namespace {

// A batch fills a few tiles of the mode search, and there are enough batches for all workers. It takes more rows where
// that brings it subjects enough to lie side by side in the lanes.
constexpr std::int64_t batch_rows = 2 * engine::max_lanes, most_batch_rows = 8 * batch_rows;
constexpr int enough_slots = 64, batch_slots = 256;
constexpr long batches_per_context = 8;

bool keeps_values(const NX& n)
{
  const auto keeps = [](const model::ModelProgram& program) { return program && engine::sequential(*program.code); };
  const auto& p = n.programs;
  return keeps(p.value) || keeps(p.gradient) || keeps(p.mode) || keeps(p.curvature) ||
         std::any_of(n.reff.begin(), n.reff.end(), [&](const REFFECT& reff) { return keeps(reff.setup); });
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
  for (const auto& s : n.leaf().SubInfo) add(s.first_row, s.badsub ? 0 : s.SubCount);
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
  const REFFECT& reff = n.leaf();
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

void size_slots_of_batches(const NX& n, BatchWork& b)
{
  int slots = 1;
  for (const Batch& batch : n.batches) slots = std::max(slots, batch.last - batch.first);
  for (std::vector<int>* v : {&b.subject, &b.nest, &b.column, &b.failure, &b.active}) size(*v, slots);
  size(b.failure_row, slots);
  b.prior_loaded = false;
}

void size_slots(NX& n)
{
  const long slots = n.nreff() > 0 ? static_cast<long>(n.outer().SubInfo.size()) : observation_blocks(n);
  n.grad_stride = (n.nparm + 7) / 8 * 8;
  size(n.slot_value, slots);
  size(n.slot_grad, slots * n.grad_stride);
  size(n.slot_status, slots);
  n.slot_row.assign(static_cast<std::size_t>(slots), -1);
}

void size_modes(NX& n)
{
  if (n.nreff() == 0) return;
  const std::size_t subjects = n.leaf().SubInfo.size();
  if (n.ebes_known.size() == subjects && n.ebes.size() == subjects * static_cast<std::size_t>(n.leaf().nr)) return;
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
    size_slots_of_batches(n, ctx.batch);
    integrator_of(n).size_batch(n, ctx);
  }
  size_slots(n);
  size_modes(n);
  n.parmlast.clear();
}

void forget_modes(NX& n)
{
  n.ebtrial_point.clear();
  if (n.nreff() == 0) return;
  const long subjects = static_cast<long>(n.leaf().SubInfo.size());
  for (std::vector<double>* v : {&n.ebes, &n.ebtrial}) size(*v, subjects * n.leaf().nr);
  for (std::vector<char>* v : {&n.ebes_known, &n.ebtrial_known}) size(*v, subjects);
}

} // namespace torvale::integration
