#pragma once
// Marks the rows that cannot be used, from what the program yields for them.

#include "data/pass_findings.h"
#include "data/row_runner.h"

namespace torvale::data {

// RowMarker: takes the outputs of the pass's program for the rows of a tile. Writes n.store's badobs and replicate
// of these rows only, so that workers may take tiles side by side.
class RowMarker {
public:
  explicit RowMarker(model::NX& n);
  void take(const RowTile& tile, const engine::Frame& frame, BlockFindings& found) const;

private:
  bool usable(const double* values, int lanes, model::BadCause cause) const;
  void take_replicates(const RowTile& tile, const double* values) const;
  void look_at(std::int64_t row, double value, model::BadCause cause, BlockFindings& found) const;
  void count_impossible(const RowTile& tile, const double* loglik, BlockFindings& found) const;

  model::NX& n_;
  const bool counts_; // the response is a count
};

} // namespace torvale::data
