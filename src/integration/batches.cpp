// Contexts, batches and work arrays: everything that an evaluation finds ready.

#include "integration/objective.h"

#include "evaluation/likelihood_programs.h"
#include "integration/subjects/evaluation_parts.h"
#include "integration/subjects/slot_tree.h"
#include "modes/packed.h"
#include "modes/search_rules.h"
#include "parallel/worker_pool.h"

#include <algorithm>
#include <utility>

namespace torvale::integration {

using model::BadCause;
using model::Batch;
using model::BatchWork;
using model::GroupState;
using model::ModelLists;
using model::NX;
using model::REFFECT;
using model::TVLThreadCtx;

namespace {

// A batch fills a few tiles of the mode search, and there are enough batches for all workers. It takes more rows where
// that brings it subjects enough to lie side by side in the lanes.
constexpr std::int64_t batch_rows = 2 * engine::max_lanes, most_batch_rows = 8 * batch_rows;
constexpr int enough_slots = 64, batch_slots = 256;
// Where values go from record to record, the lanes of a tile are subjects alone, however many records they have.
constexpr int lanes_of_a_record = 16;
constexpr long batches_per_context = 8;

bool keeps_values(const ModelLists& n)
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
  if (n.nreff() > 0 && (all || std::all_of(n.store->badobs.begin(), n.store->badobs.end(),
                                           [](BadCause cause) { return cause == BadCause::none; }))) {
    for (const auto& s : n.leaf().SubInfo) n.record_first.push_back(s.first_row + s.SubCount);
    return;
  }
  const auto add = [&](std::int64_t first, std::int64_t count) {
    for (std::int64_t row = first; row < first + count; ++row)
      if (all || n.store->badobs[static_cast<std::size_t>(row)] == BadCause::none)
        n.record_rows.push_back(static_cast<std::int32_t>(row));
    n.record_first.push_back(static_cast<std::int32_t>(n.record_rows.size()));
  };
  if (n.nreff() == 0) return add(0, n.store->nobs);
  for (const auto& s : n.leaf().SubInfo) add(s.first_row, s.badsub ? 0 : s.SubCount);
}

int records_of(const GroupState& n, int subject)
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
      n.batch_records.push_back(
          n.record_row(static_cast<std::size_t>(n.record_first[static_cast<std::size_t>(s)] + level)));
    }
    n.batch_levels.push_back(
        static_cast<std::int32_t>(static_cast<std::int64_t>(n.batch_records.size()) - batch.first_record));
  }
  batch.records = n.batch_levels.back();
}

// The usable subjects of all levels in a batch of nests, with their place in the tree.
void list_nodes(NX& n, const Batch& batch)
{
  std::vector<model::NestNodes> levels(n.reff.size());
  std::vector<int> nests; // of the batch
  for (int s = batch.first_nest; s < batch.last_nest; ++s)
    if (!n.outer().SubInfo[static_cast<std::size_t>(s)].badsub) nests.push_back(s);
  for (std::size_t k = n.reff.size(); k-- > 0;) {
    model::NestNodes& nodes = levels[k];
    const auto& subjects = n.reff[k].SubInfo;
    const auto add = [&](int subject, int parent) {
      if (subjects[static_cast<std::size_t>(subject)].badsub) return;
      nodes.subject.push_back(subject);
      nodes.parent.push_back(parent);
    };
    for (std::size_t nest = 0; nest < nests.size(); ++nest) {
      nodes.first.push_back(static_cast<int>(nodes.subject.size()));
      if (k + 1 == n.reff.size()) {
        add(nests[nest], -1);
        continue;
      }
      const model::NestNodes& parents = levels[k + 1];
      for (int v = parents.first[nest]; v < parents.first[nest + 1]; ++v) {
        const auto& parent =
            n.reff[k + 1].SubInfo[static_cast<std::size_t>(parents.subject[static_cast<std::size_t>(v)])];
        for (int child = parent.first_child; child < parent.last_child; ++child) add(child, v);
      }
    }
    nodes.first.push_back(static_cast<int>(nodes.subject.size()));
  }
  // Slots of the leaves; a subject above takes that of its first leaf.
  std::vector<std::pair<int, int>> by_subject;
  for (int i = batch.first; i < batch.last; ++i)
    by_subject.emplace_back(n.batch_subjects[static_cast<std::size_t>(i)], i - batch.first);
  std::sort(by_subject.begin(), by_subject.end());
  for (const auto& entry : by_subject) levels[0].slot.push_back(entry.second);
  for (std::size_t k = 1; k < levels.size(); ++k) {
    levels[k].slot.assign(levels[k].subject.size(), -1);
    for (std::size_t v = 0; v < levels[k - 1].subject.size(); ++v)
      if (int& first = levels[k].slot[static_cast<std::size_t>(levels[k - 1].parent[v])]; first < 0)
        first = levels[k - 1].slot[v];
  }
  n.batch_nodes.push_back(std::move(levels));
}

void close_batch(NX& n, Batch& batch, int contents, int nest)
{
  if (contents == batch.first) return;
  batch.last = contents;
  batch.last_nest = nest;
  batch.number = static_cast<int>(n.batches.size());
  const auto more_records = [&](int a, int b) { return records_of(n, a) > records_of(n, b); };
  const auto from = n.batch_subjects.begin() + batch.first;
  if (!std::is_sorted(from, n.batch_subjects.end(), more_records)) // often all have as many
    std::stable_sort(from, n.batch_subjects.end(), more_records);
  list_levels(n, batch);
  if (n.nreff() > 1) list_nodes(n, batch);
  n.batches.push_back(batch);
  batch.first = contents;
  batch.first_nest = nest;
}

// The leaves of an outermost subject: a range of the leaf level's subjects.
std::pair<int, int> leaves_of(const ModelLists& n, int nest)
{
  int first = nest, last = nest + 1;
  for (std::size_t k = n.reff.size() - 1; k > 0; --k) {
    const auto& subjects = n.reff[k].SubInfo;
    first = subjects[static_cast<std::size_t>(first)].first_child;
    last = subjects[static_cast<std::size_t>(last - 1)].last_child;
  }
  return {first, last};
}

// With several levels a leaf keeps sums for every joint point of its ancestors: fewer leaves where these are many.
long slots_of_a_batch(const NX& n)
{
  if (n.nreff() == 1) return batch_slots;
  double sums = std::max(1, n.programs.gradient.places); // of one leaf
  for (std::size_t k = 1; k < n.reff.size(); ++k) sums *= static_cast<double>(n.reff[k].nqpr);
  constexpr double most_sums = 1e6;
  return static_cast<long>(std::clamp(most_sums / sums, 1.0, static_cast<double>(batch_slots)));
}

// So many subjects that the lanes of a level fill whole strips, or half of one.
long whole_strips(std::int64_t slots)
{
  constexpr std::int64_t strip = 128;
  if (slots > strip / 2) return static_cast<long>((slots + strip - 1) / strip * strip);
  return static_cast<long>(slots > strip / 4 ? strip / 2 : std::max<std::int64_t>(slots, 1));
}

// Whole nests in order, until a batch has rows enough for full tiles; smaller batches when workers would stand idle.
void deal_batches(NX& n)
{
  n.batches.clear();
  n.batch_nodes.clear();
  for (std::vector<std::int32_t>* v : {&n.batch_subjects, &n.batch_records, &n.batch_levels}) v->clear();
  if (n.nreff() == 0) return;
  const auto& leaves = n.leaf().SubInfo;
  if (leaves.empty()) return;
  n.batch_records.reserve(static_cast<std::size_t>(n.record_first.back()));
  n.batch_subjects.reserve(leaves.size());
  const long contexts = n.workers != nullptr ? n.workers->contexts() : 1;
  const std::int64_t share = contexts == 1 ? most_batch_rows : n.store->nobs / (contexts * batches_per_context) + 1;
  const std::int64_t mean_rows = n.store->nobs / static_cast<std::int64_t>(leaves.size()) + 1;
  const std::int64_t enough = enough_slots * mean_rows;
  const std::int64_t most_rows =
      keeps_values(n) ? std::min(std::max(batch_rows, enough), std::max(share, lanes_of_a_record * mean_rows))
                      : std::min(enough <= most_batch_rows ? std::max(batch_rows, enough) : batch_rows, share);
  const long most_slots = std::min(slots_of_a_batch(n), whole_strips(most_rows / mean_rows));
  const std::int64_t row_limit = 2 * most_rows; // subjects of many more records than the mean
  Batch batch;
  std::int64_t first_row = 0;
  const int nests = static_cast<int>(n.outer().SubInfo.size());
  for (int nest = 0; nest < nests; ++nest) {
    const auto& subject = n.outer().SubInfo[static_cast<std::size_t>(nest)];
    if (subject.badsub) continue;
    const auto [first, last] = leaves_of(n, nest);
    const auto contents = static_cast<int>(n.batch_subjects.size());
    const int slots = contents - batch.first;
    const std::int64_t rows = subject.first_row + subject.SubCount - first_row;
    if (slots > 0 && (rows > row_limit || slots + (last - first) > most_slots)) close_batch(n, batch, contents, nest);
    if (contents == batch.first) first_row = subject.first_row;
    for (int leaf = first; leaf < last; ++leaf)
      if (!leaves[static_cast<std::size_t>(leaf)].badsub) n.batch_subjects.push_back(leaf);
  }
  close_batch(n, batch, static_cast<int>(n.batch_subjects.size()), nests);
}

void size_slots_of_batches(const NX& n, BatchWork& b)
{
  long terms = 0;
  for (const model::ModelProgram* const p : {&n.programs.linear, &n.programs.linear_gradient, &n.programs.mode,
                                             &n.programs.gradient, &n.programs.closing, &n.programs.closing_point})
    terms = std::max<long>(terms, p->term_count);
  size(b.term_sums, terms * evaluation::term_stride);
  int slots = 1;
  for (const Batch& batch : n.batches)
    slots = std::max({slots, batch.last - batch.first, batch.last_nest - batch.first_nest});
  for (std::vector<int>* v : {&b.subject, &b.nest, &b.column, &b.failure, &b.active}) size(*v, slots);
  size(b.failure_row, slots);
  b.prior_loaded = false;
}

void size_slots(NX& n)
{
  const long slots = n.nreff() > 0 ? static_cast<long>(n.outer().SubInfo.size()) : observation_blocks(n);
  n.grad_stride = n.nparm;
  size(n.slot_value, slots);
  size(n.slot_grad, slots * n.grad_stride);
  size(n.slot_status, slots);
  SlotTree(n.tree_sums, slots, 1 + static_cast<std::size_t>(n.nparm));
  n.slot_row.assign(static_cast<std::size_t>(slots), -1);
}

// Places of the levels in the list of modes; returns its length.
long place_modes(ModelLists& n)
{
  long length = 0;
  for (REFFECT& reff : n.reff) {
    reff.mode_first = length;
    length += static_cast<long>(reff.SubInfo.size()) * reff.nr;
  }
  return length;
}

void size_modes(NX& n)
{
  if (n.nreff() == 0) return;
  if (n.ebes_known.size() == n.outer().SubInfo.size() && n.ebes.size() == static_cast<std::size_t>(place_modes(n)))
    return;
  forget_modes(n);
}

} // namespace

void size_contexts(NX& n)
{
  const bool gradient = n.dograd || n.nqpspec;
  if (n.nreff() == 1 && n.method == 0 && n.adaptive && n.leaf().nqpr == 1 && gradient)
    evaluation::specialise_single_point(n);
  evaluation::specialise_totals(n);
  list_records(n);
  deal_batches(n);
  if (n.bound != nullptr)
    engine::cmporder(*n.bound, n.batch_records.data(), static_cast<std::int64_t>(n.batch_records.size()));
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
  forget_evaluation(n);
}

void forget_modes(NX& n)
{
  n.ebtrial_point.clear();
  forget_evaluation(n);
  if (n.nreff() == 0) return;
  const long length = place_modes(n), subjects = static_cast<long>(n.outer().SubInfo.size());
  for (std::vector<double>* v : {&n.ebes, &n.ebtrial}) size(*v, length);
  for (std::vector<char>* v : {&n.ebes_known, &n.ebtrial_known}) size(*v, subjects);
  constexpr long most_derivatives = 1L << 23; // they are to cost less memory than the data
  const bool predicted = n.programs.closing && !n.programs.factored && (n.nreff() == 1 || !n.ebiter) &&
                         length * n.nparm <= most_derivatives;
  for (std::vector<float>* v : {&n.ebes_by, &n.ebtrial_by}) size(*v, predicted ? length * n.nparm : 0);
  const bool plain =
      n.nreff() == 1 || std::all_of(n.reff.begin(), n.reff.end(), [](const REFFECT& r) { return r.nr == 1; });
  const bool bent = predicted && n.needtriu && plain && n.programs.ne <= modes::most_bent_effects;
  for (std::vector<float>* v : {&n.ebes_bend, &n.ebtrial_bend})
    size(*v, bent ? static_cast<long>(n.leaf().SubInfo.size()) * modes::tetrahedron(n.programs.ne) : 0);
  n.ebtrial_by_known = false;
  n.ebes_point.clear();
}

} // namespace torvale::integration
