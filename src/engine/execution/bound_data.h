#pragma once
// BoundData: the columns of one BY group and everything that a model computes from them alone.
//
// Computed columns are made when a program is first run on the data, once for all programs and frames; a lock guards
// the making, and a column never changes or moves afterwards.

#include "engine/execution/lane_runner.h"

#include <mutex>
#include <unordered_map>

namespace torvale::engine {

// The values that a data variable has, where they are few, and which of them each row has.
struct DistinctValues {
  static constexpr int most = 4096, rows_each = 8; // more values, or fewer rows for each, are not worth a table
  std::vector<std::int32_t> row;                   // a row that has the value
  host::RowVector<std::uint16_t> of_row;
};

class BoundData final : public CharacterColumns {
public:
  BoundData(const CMPGLOBAL& gcmp, const DataView& view);

  std::int64_t rows() const { return view_.rows; }
  const host::RowMemory& memory() const { return view_.memory; }
  // Row where the subject of a row starts.
  std::int64_t subject_start(std::int64_t row) const;
  // Fills `columns` with one pointer per entry of Program::columns, making what is not there yet. Returns 0, or 1 when
  // a loop that depends on data alone does not end.
  int prepare(const Program& program, std::vector<const double*>& columns) const;
  std::string_view text(std::int32_t symbol, std::int64_t row) const override;
  // The rows as cmporder listed them: whether `records` is a part of that list, and a column in that order, made at the
  // first call.
  void set_order(const std::int32_t* rows, std::int64_t count) const;
  bool in_order(const std::int32_t* records, std::int64_t count) const
  {
    return order_ != nullptr && records >= order_ && records + count <= order_ + ordered_rows_;
  }
  const std::int32_t* order() const { return order_; }
  std::int64_t ordered_rows() const { return ordered_rows_; }
  std::uint64_t order_version() const { return order_version_; }
  const double* ordered(const double* column) const;
  // Of a numeric variable, by its symbol; null when its values are not few. Found at the first call.
  const DistinctValues* distinct(std::int32_t symbol) const;
  // Value of a data variable; missing when the data lack it.
  double raw(std::int32_t symbol, std::int64_t row) const;

private:
  const DataColumn* column(std::int32_t symbol) const;
  const double* raw_column(std::int32_t symbol) const;
  int compute(const Program& program) const;

  const CMPGLOBAL& gcmp_;
  DataView view_;
  mutable std::mutex making_;
  mutable std::mutex lacking_; // of missing_
  mutable std::unordered_map<NodeId, LaneArray> computed_;
  mutable bool endless_ = false;
  mutable LaneArray missing_; // the column of a variable that the data lack, when some program reads one
  mutable const std::int32_t* order_ = nullptr; // borrowed
  mutable std::int64_t ordered_rows_ = 0;
  mutable std::uint64_t order_version_ = 0;
  mutable std::unordered_map<std::int32_t, std::unique_ptr<const DistinctValues>> distinct_; // by symbol
  mutable std::unordered_map<const double*, LaneArray> ordered_; // by the column that they hold in order
};

} // namespace torvale::engine
