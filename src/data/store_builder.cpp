// Builds the columnar store of a BY group. Everything downstream sees rows in subject order; the maps back to the file
// are kept for messages only. Where the file is in that order already, the columns are the input's own.

#include "data/data_pass.h"
#include "data/subject_index.h"
#include "host/messages/names/files.h"
#include "host/messages/names/methods.h"
#include "host/messages/names/optimization.h"
#include "host/messages/names/statements.h"
#include "parallel/worker_pool.h"

#include <algorithm>
#include <sys/mman.h>

namespace torvale::data {

using model::NX;
using model::Store;

namespace {

void keep_column(NX& n, Store& store, const engine::CMPSYM& symbol)
{
  const host::Column& column = n.fid->columns()[static_cast<std::size_t>(symbol.dsvarno - 1)];
  engine::DataColumn kept;
  kept.dsvarno = symbol.dsvarno;
  const auto rows = static_cast<std::size_t>(store.nobs);
  const bool as_read = store.group_order.empty();
  if (as_read && column.numeric()) {
    kept.numeric = column.numbers().data() + n.rows.begin;
  } else if (column.numeric()) {
    auto values = store.datapool->doubles(rows);
    for (std::size_t k = 0; k < rows; ++k)
      values[k] = column.number(n.rows.begin + static_cast<std::size_t>(store.group_order[k]));
    kept.numeric = values.data();
  } else {
    auto codes = store.datapool->array<std::int32_t>(rows);
    for (std::size_t k = 0; k < rows; ++k)
      codes[k] = static_cast<std::int32_t>(
          column.codes()[n.rows.begin + static_cast<std::size_t>(store.group_row(static_cast<std::int64_t>(k)))]);
    kept.codes = codes.data();
    kept.dictionary = &column.dictionary();
  }
  store.view.columns.push_back(kept);
}

// Where the rows of the group stand in the store; nothing is kept where they stand in their own order.
void set_rows(Store& store, const std::vector<std::int32_t>& order)
{
  const auto rows = order.size();
  store.group_order.assign(order.begin(), order.end());
  store.store_order.resize(rows);
  for (std::size_t k = 0; k < rows; ++k)
    store.store_order[static_cast<std::size_t>(order[k])] = static_cast<std::int32_t>(k);
}

// The system hands out memory page by page, when it is first written: to all workers at once.
void write_pages(parallel::WorkerPool* workers, void* memory, std::size_t bytes)
{
  constexpr std::size_t page = 4096, block = 256 * page;
  auto* const to = static_cast<unsigned char*>(memory);
  parallel::deal(workers, static_cast<long>((bytes + block - 1) / block), [&](int, long item) {
    const std::size_t first = static_cast<std::size_t>(item) * block, last = std::min(first + block, bytes);
#ifdef MADV_POPULATE_WRITE
    // Whole pages in one request, where the system knows of it.
    const std::size_t aligned = (page - reinterpret_cast<std::uintptr_t>(to) % page) % page;
    if (first + aligned < last && ::madvise(to + first + aligned, last - first - aligned, MADV_POPULATE_WRITE) == 0)
      return;
#endif
    for (std::size_t at = first; at < last; at += page) to[at] = 0;
  });
}

// The subjects of a level, and their place under those of the next outer one, which are set.
void set_subjects(NX& n, std::size_t level, const SubjectRows& rows)
{
  auto& subjects = n.reff[level].SubInfo;
  const auto count = static_cast<std::size_t>(rows.count());
  subjects.clear();
  subjects.reserve(count);
  write_pages(n.workers.get(), subjects.data(), count * sizeof(model::SUBINFO));
  const bool outermost = level + 1 == n.reff.size();
  for (std::size_t s = 0; s < count; ++s) {
    model::SUBINFO& subject = subjects.emplace_back(); // in place: what was written field by field is slow to copy
    subject.ranind = static_cast<std::int16_t>(level);
    subject.index = static_cast<int>(s);
    subject.first_row = rows.start[s];
    subject.SubCount = rows.start[s + 1] - rows.start[s];
    if (!outermost) {
      subject.parent = rows.parent[s];
      auto& parent = n.reff[level + 1].SubInfo[static_cast<std::size_t>(subject.parent)];
      if (parent.last_child == 0) parent.first_child = subject.index;
      parent.last_child = subject.index + 1;
    }
  }
}

// Kept and lagged values start anew with each leaf: what a record yields depends on the effects of its own chain only.
void set_starts(const NX& n, Store& store)
{
  store.subject_start.assign(static_cast<std::size_t>(store.nobs), 0);
  for (const auto& leaf : n.leaf().SubInfo)
    std::fill_n(store.subject_start.begin() + leaf.first_row, leaf.SubCount, static_cast<std::int32_t>(leaf.first_row));
}

// Says how the file lies: unsorted data are fine with the index, and worth a warning without it.
void report_order(NX& n, const model::REFFECT& reff, const SubjectIndex& index)
{
  if (!n.nosort) {
    if (index.level.front().count() < index.changes)
      n.host->log().xpmlog(message::unsorted_subjects_joined{.variable = reff.subname});
    return;
  }
  const host::Column& column = n.fid->columns()[static_cast<std::size_t>(reff.sub_dsvarno - 1)];
  for (std::size_t row = n.rows.begin + 1; row < n.rows.end; ++row) {
    if (host::compare_cells(column, row, column, row - 1) >= 0) continue;
    host::MessagePlace place;
    place.row = n.fid->file_row(row);
    if (n.sortwarn)
      n.host->log().xpmlog(message::no_memory_to_sort_subjects{.variable = reff.subname}, place);
    else
      n.host->log().xpmlog(message::unsorted_subjects_split{.variable = reff.subname}, place);
    n.raise(4);
    return;
  }
}

// The heap, or a scratch file: with NOSORTSUB, and when the group does not fit into what is free.
host::RowMemory memory_of_store(NX& n)
{
  if (n.nosort) return std::make_shared<host::ScratchFile>();
  constexpr double row_overhead = 80; // bytes of a row in the index and in evaluations
  const double columns = static_cast<double>(engine::cmppdv(*n.gcmp).variables.size());
  const double needed = static_cast<double>(n.rows.rows()) * (row_overhead + sizeof(double) * columns);
  const auto free = static_cast<double>(n.host->libraries().memory());
  if (free <= 0.0 || needed <= free) return {};
  host::MessageLog& log = n.host->log();
  log.xpmlog(message::store_in_scratch_file{.needed = host::bytes_text(needed), .free = host::bytes_text(free)});
  if (n.runThreads) {
    log.xpmlog(message::no_memory_for_threads);
    n.runThreads = false;
    n.nthreads = 0;
  }
  return std::make_shared<host::ScratchFile>();
}

// The subject index; where it finds no memory, one RANDOM is served in file order, as with NOSORTSUB.
int find_subjects(NX& n, SubjectIndex& index)
{
  try {
    return tvlsubj(n, index);
  } catch (const std::bad_alloc&) {
    if (n.nosort || n.nreff() > 1) throw;
  }
  n.nosort = n.sortwarn = true;
  return tvlsubj(n, index);
}

} // namespace

int tvlenvt(NX& n)
{
  n.bound.reset();
  n.ctx.clear();
  if (n.sortwarn) n.nosort = n.sortwarn = false; // what an earlier group lacked memory for
  n.store = std::make_unique<Store>(memory_of_store(n));
  Store& store = *n.store;

  SubjectIndex index;
  store.nobs = static_cast<std::int64_t>(n.rows.rows());
  store.badobs.assign(n.rows.rows(), model::BadCause::none);
  if (n.nreff() > 0) {
    if (find_subjects(n, index) != 0) {
      n.raise(1012);
      return 1;
    }
    set_rows(store, index.order);
    index.order = {};
    for (std::size_t k = n.reff.size(); k-- > 0;) set_subjects(n, k, index.level[k]);
    if (engine::keeps_values(*n.gcmp)) set_starts(n, store);
    report_order(n, n.outer(), index);
  } else {
    if (n.rows.rows() == 0) {
      n.host->log().xpmlog(message::no_usable_observation{});
      n.raise(1012);
      return 1;
    }
  }

  store.view.rows = store.nobs;
  for (const engine::CMPSYM* symbol : engine::cmppdv(*n.gcmp).variables) keep_column(n, store, *symbol);
  store.view.subject_start = store.subject_start.empty() ? nullptr : store.subject_start.data();
  n.bound = engine::cmpbind(*n.gcmp, store.view);
  return 0;
}

} // namespace torvale::data
