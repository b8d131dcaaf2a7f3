#pragma once
// The data of one BY group: columns in subject order, and the subject index.

#include "engine/engine.h"
#include "host/storage/pool.h"
#include "host/storage/scratch_file.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace torvale::model {

// Why an observation is not used. The first cause that applies is kept.
enum class BadCause : std::uint8_t {
  none,
  dependent,
  replicate,
  log_likelihood,
  gradient,
  random_argument,
  random_gradient,
  deleted,
  event
};

// Store: the kept variables of the BY group, one aligned column each, rows in subject order (subjects in order of first
// appearance, a subject's rows in file order). Built by the data room, constant during evaluations.
struct Store {
  Store() = default;
  // All that has an entry for every row lies in `memory`; null: the heap.
  explicit Store(const host::RowMemory& memory);

  std::unique_ptr<host::Pool> datapool;               // owns the columns that are not those of the input
  std::int64_t nobs = 0;                              // rows
  std::int64_t nobsu = 0;                             // rows used: not marked in badobs
  engine::DataView view;                              // the columns as the engine takes them
  std::vector<std::vector<std::string>> dictionaries; // texts of the character columns (view points into it)
  host::RowVector<std::int32_t> subject_start;        // per row: row where its subject starts; empty where nobody asks
  // Per row its position in the BY group, from 0 (observation number less one), and the inverse; both empty where the
  // group is in subject order already.
  host::RowVector<std::int32_t> group_order, store_order;
  host::RowVector<BadCause> badobs;  // per row: none when the observation is used
  host::RowVector<double> replicate; // per row: value of the REPLICATE variable; empty without one

  std::int64_t group_row(std::int64_t row) const
  {
    return group_order.empty() ? row : group_order[static_cast<std::size_t>(row)];
  }
  std::int64_t row_of_group(std::int64_t position) const
  {
    return store_order.empty() ? position : store_order[static_cast<std::size_t>(position)];
  }
};

inline Store::Store(const host::RowMemory& memory)
    : datapool(host::xmpoolc("data store", memory)), subject_start(host::RowAllocator<std::int32_t>(memory)),
      group_order(host::RowAllocator<std::int32_t>(memory)), store_order(host::RowAllocator<std::int32_t>(memory)),
      badobs(host::RowAllocator<BadCause>(memory)), replicate(host::RowAllocator<double>(memory))
{
  view.memory = memory;
}

// SUBINFO: one subject of one RANDOM statement. (Subject information; its name: subject_names.h.)
struct SUBINFO {
  std::int16_t ranind = 0;    // index of its REFFECT
  bool badsub = false;        // no observation is used
  int index = 0;              // position in SubInfo, from 0: order of first appearance
  std::int32_t first_row = 0; // first row in the store
  int SubCount = 0;           // rows
  int used = 0;               // rows used
  std::int32_t fvalidobs = 0; // store row of its first used observation
  std::int32_t lvalidobs = 0; // store row of its last used observation
  int parent = -1;            // the subject of the next outer level that it is nested in; -1 at the outermost
  int first_child = 0;        // its children in the next deeper level: first_child to last_child - 1
  int last_child = 0;
  double weight = 1.0; // replicate count of its last used observation; 1 without REPLICATE
};

} // namespace torvale::model
