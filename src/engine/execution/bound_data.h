#pragma once
// BoundData: the columns of one BY group and everything that a model computes from them alone.
//
// Computed columns are made when a program is first run on the data, once for all programs and frames; a lock guards
// the making, and a column never changes or moves afterwards.

#include "engine/execution/lane_runner.h"

#include <mutex>
#include <unordered_map>

namespace torvale::engine {

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
  // Value of a data variable; missing when the data lack it.
  double raw(std::int32_t symbol, std::int64_t row) const;

private:
  const DataColumn* column(std::int32_t symbol) const;
  const double* raw_column(std::int32_t symbol) const;
  int compute(const Program& program) const;

  const CMPGLOBAL& gcmp_;
  DataView view_;
  mutable std::mutex making_;
  mutable std::unordered_map<NodeId, LaneArray> computed_;
  mutable bool endless_ = false;
  mutable LaneArray missing_; // the column of a variable that the data lack
};

} // namespace torvale::engine
