#pragma once
// Runs a program for (subject, point) pairs against all records of their subjects and adds its outputs up per pair.

#include "model/run_record.h"

#include <span>

namespace torvale::evaluation {

inline constexpr int tile_pairs = engine::max_lanes; // most pairs of one run of tvllogl

// RecordSums: what tvllogl adds up and where.
struct RecordSums {
  const engine::Program* program = nullptr;
  std::span<const int> places;   // where the program's outputs belong, in order
  double* sums = nullptr;        // out: the sum of an output at place k for pair j at sums[k * stride + j]; other rows are left alone
  long stride = 0;
};

// tvlexec: runs one tile of the program on the context's frame and counts its lanes. Returns the engine's code: above 2
// the program has ended the run (STOP, ABORT).
int tvlexec(model::TVLThreadCtx& ctx, const engine::Program& program, const engine::Tile& tile);

// tvllogl: reads the log likelihood and its derivatives out of the program, summed over each pair's records in record order:
// one chain per pair, whatever shares the tile.
//
//   runs  runs of pairs by falling record count, at most tile_pairs pairs together; pair j is point j of the frame
//         (Frame::set_points), and the frame's range covers all rows
//   slots of kept values are pairs; of a program that keeps values every record is run, and the unused ones are left out
//
// Returns 0 or the engine's code above 2. Allocates nothing.
int tvllogl(const model::NX& n, model::TVLThreadCtx& ctx, std::span<const model::PairRun> runs, const RecordSums& what);

} // namespace torvale::evaluation
