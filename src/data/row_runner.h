#pragma once
// Runs a program once for every row of the store, in lanes, each row at a point of its own.

#include "model/run_record.h"

#include <functional>
#include <vector>

namespace torvale::data {

// Visitor: called after each tile with the tile and the frame; output k of lane j belongs to row tile.observation[j].
// A result other than 0 ends the walk.
using TileVisitor = std::function<int(const engine::Tile&, const engine::Frame&)>;

// run_rows: point_of_row gives each row's index into the random-effect values that the caller has set on the frame;
// empty: point 0 for all. Programs that keep values from record to record get the records of a subject in order.
// Returns 0, the visitor's result, or the engine's code above 2 (STOP, ABORT; `stopped` is then the rows of the tile).
int run_rows(const model::NX& n, engine::Frame& frame, const engine::Program& program,
             const std::vector<std::int32_t>& point_of_row, const TileVisitor& visit,
             std::vector<std::int32_t>& stopped);

} // namespace torvale::data
