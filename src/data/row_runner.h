#pragma once
// Runs a program once for every row of the store, in lanes: blocks of rows on all workers of the run.

#include "model/run_record.h"

#include <functional>
#include <memory>
#include <vector>

namespace torvale::data {

// RowTile: lane j of a tile stands for row rows[j], or, where that is null, for row first + j.
struct RowTile {
  std::int64_t first = 0;
  int lanes = 0;
  const std::int32_t* rows = nullptr;
  std::int64_t row(int lane) const { return rows != nullptr ? rows[lane] : first + lane; }
};

// RowPoints: the random effects that rows are run at, ne numbers each: the same for all, or what `of` writes for a row.
struct RowPoints {
  std::vector<double> common;
  std::function<void(std::int64_t row, double* effects)> of; // empty: the common ones
};

// RowRunner: the frames of one pass over the data, one a worker, at one parameter vector.
class RowRunner {
public:
  RowRunner(const model::NX& n, const std::vector<double>& theta);

  // Visitor: called after each tile, on the worker that has run it: (tile, frame, block). Blocks are numbered in the
  // order of their rows; a worker visits no block but its own.
  using Visitor = std::function<void(const RowTile&, const engine::Frame&, long block)>;

  // Programs that keep values from record to record get the records of a subject in order, in one block. Returns 0 or
  // the engine's code above 2 (STOP, ABORT) of the first tile in row order that has one; its rows are then in
  // `stopped`.
  int run(const engine::Program& program, const RowPoints& points, const Visitor& visit,
          std::vector<std::int32_t>& stopped);

  long blocks() const;                                // most of them
  engine::Frame& frame() { return *frames_.front(); } // for single rows

private:
  int run_block(engine::Frame& frame, const engine::Program& program, const RowPoints& points, const Visitor& visit,
                long block, std::int64_t& at) const;
  int run_in_order(const engine::Program& program, const RowPoints& points, const Visitor& visit,
                   std::vector<std::int32_t>& stopped);

  const model::NX& n_;
  std::vector<std::unique_ptr<engine::Frame>> frames_;
};

} // namespace torvale::data
