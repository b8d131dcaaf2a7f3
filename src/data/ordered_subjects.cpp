#include "data/ordered_subjects.h"

#include "evaluation/machine_builds.h"
#include "parallel/worker_pool.h"

#include <algorithm>
#include <array>
#include <atomic>

namespace torvale::data {

namespace {

constexpr std::size_t block_rows = 4096;

// The subject values of a level, as the rows of the group have them.
struct LevelKeys {
  const double* numbers = nullptr;      // null: texts
  const std::uint32_t* codes = nullptr; // of texts, in order of first appearance
  std::uint32_t missing = 0;            // code of the empty text
};

LevelKeys keys_of(const model::NX& n, const model::REFFECT& reff)
{
  const host::Column& column = n.fid->columns()[static_cast<std::size_t>(reff.sub_dsvarno - 1)];
  LevelKeys keys;
  if (column.numeric()) {
    keys.numbers = column.numbers().data() + n.rows.begin;
  } else {
    const auto& texts = column.dictionary();
    keys.codes = column.codes().data() + n.rows.begin;
    keys.missing = static_cast<std::uint32_t>(std::find(texts.begin(), texts.end(), std::string()) - texts.begin());
  }
  return keys;
}

// The subjects of a level that start in a block; parents count from 0 within the block, -1 stands for one that has
// started before. The outermost level has no parents.
struct BlockSubjects {
  std::vector<std::int32_t> start, parent;
};

// What is known of a block's rows while its levels are gone through, the outermost first.
struct BlockRows {
  std::size_t first = 0, count = 0;
  std::array<std::uint64_t, block_rows> starts{}; // 1: a subject of the last level starts at the row
  std::array<std::int32_t, block_rows> parent, start;
};

// Marks the rows 1 to count - 1 whose value differs from that of the row before. Not 0 where one is missing, or falls
// within an outer subject though it must grow.
template <class Key> std::uint64_t mark_changes(const Key* keys, std::size_t count, bool grow, std::uint64_t* starts)
{
  const std::uint64_t growing = grow ? 1U : 0U;
  std::uint64_t refused = 0; // all as wide as numbers, for vectors
  for (std::size_t i = 1; i < count; ++i) {
    const std::uint64_t falls = keys[i] < keys[i - 1] ? growing : 0U, missing = keys[i] != keys[i] ? 1U : 0U;
    refused |= (falls & ~starts[i]) | missing;
    starts[i] |= keys[i] != keys[i - 1] ? 1U : 0U;
  }
  return refused;
}

template <class Key>
TORVALE_AVX2_BUILD std::uint64_t mark_changes_avx2(const Key* keys, std::size_t count, bool grow, std::uint64_t* starts)
{
  return mark_changes(keys, count, grow, starts);
}

// One level of a block. False where a value falls within an outer subject though it must grow, or is missing.
template <class Key>
bool take_level(const Key* keys, Key missing, bool grow, bool outermost, BlockRows& rows, BlockSubjects& found)
{
  static const auto mark = evaluation::build_for_machine(mark_changes<Key>, mark_changes_avx2<Key>);
  if (!outermost) {
    std::int32_t outer = -1;
    for (std::size_t i = 0; i < rows.count; ++i) rows.parent[i] = outer += static_cast<std::int32_t>(rows.starts[i]);
  }
  // The first row stands beside the last of the block before.
  const Key* const here = keys + rows.first;
  bool refused = here[0] != here[0] || (rows.first > 0 && grow && here[0] < here[-1] && rows.starts[0] == 0);
  if (rows.first == 0 || here[0] != here[-1]) rows.starts[0] = 1;
  refused = refused || mark(here, rows.count, grow, rows.starts.data()) != 0;
  std::size_t count = 0;
  for (std::size_t i = 0; i < rows.count; ++i) {
    rows.start[count] = static_cast<std::int32_t>(i);
    count += rows.starts[i];
  }
  const auto first = static_cast<std::int32_t>(rows.first);
  found.start.resize(count);
  for (std::size_t k = 0; k < count; ++k) {
    const auto i = static_cast<std::size_t>(rows.start[k]);
    refused = refused || here[i] == missing;
    found.start[k] = first + rows.start[k];
  }
  for (std::size_t k = 0; !outermost && k < count; ++k)
    found.parent.push_back(rows.parent[static_cast<std::size_t>(rows.start[k])]);
  return !refused;
}

// Puts what the blocks have found of a level together; `outer` are the same blocks of the next outer level, null at the
// outermost.
void join_blocks(const std::vector<BlockSubjects>& found, const std::vector<BlockSubjects>* outer, std::size_t rows,
                 SubjectRows& level)
{
  std::size_t count = 0;
  for (const BlockSubjects& block : found) count += block.start.size();
  level.start.reserve(count + 1);
  if (outer != nullptr) level.parent.reserve(count);
  std::int32_t parents = 0; // that start before the block
  for (std::size_t b = 0; b < found.size(); ++b) {
    level.start.insert(level.start.end(), found[b].start.begin(), found[b].start.end());
    for (const std::int32_t parent : found[b].parent) level.parent.push_back(parents + parent);
    if (outer != nullptr) parents += static_cast<std::int32_t>((*outer)[b].start.size());
  }
  level.start.push_back(static_cast<std::int32_t>(rows));
}

} // namespace

bool index_ordered_rows(const model::NX& n, SubjectIndex& index)
{
  const std::size_t rows = n.rows.rows(), levels = n.reff.size();
  const auto blocks = static_cast<long>((rows + block_rows - 1) / block_rows);
  std::vector<LevelKeys> keys;
  for (const auto& reff : n.reff) keys.push_back(keys_of(n, reff));
  std::vector<std::vector<BlockSubjects>> found(levels, std::vector<BlockSubjects>(static_cast<std::size_t>(blocks)));
  std::atomic<bool> ordered = true;
  parallel::deal(n.workers.get(), blocks, [&](int, long block) {
    if (!ordered.load(std::memory_order_relaxed)) return;
    BlockRows here;
    here.first = static_cast<std::size_t>(block) * block_rows;
    here.count = std::min(block_rows, rows - here.first);
    for (std::size_t k = levels; k-- > 0;) {
      BlockSubjects& subjects = found[k][static_cast<std::size_t>(block)];
      const bool outermost = k + 1 == levels;
      const bool good = keys[k].numbers != nullptr
                            ? take_level(keys[k].numbers, host::missing, !n.nosort, outermost, here, subjects)
                            : take_level(keys[k].codes, keys[k].missing, !n.nosort, outermost, here, subjects);
      if (!good) return ordered.store(false, std::memory_order_relaxed);
    }
  });
  if (!ordered) return false;
  index.level.assign(levels, {});
  for (std::size_t k = levels; k-- > 0;) {
    join_blocks(found[k], k + 1 < levels ? &found[k + 1] : nullptr, rows, index.level[k]);
    if (k + 1 < levels) found[k + 1] = {};
  }
  index.order.clear();
  index.changes = index.level.front().count();
  return true;
}

} // namespace torvale::data
