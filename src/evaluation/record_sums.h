#pragma once
// Runs a program for (subject, point) pairs against all records of their subjects and adds its outputs up per pair.

#include "model/run_record.h"

#include <span>

namespace torvale::evaluation {

inline constexpr int most_pairs = 1024; // of one run of tvllogl
inline constexpr int long_run = 32;     // lanes that are worth a tile of their own
// Between the sums of terms: a multiple of a cache line, and no few of them a multiple of a page, in which the
// processor takes a read for one of what it has just written.
inline constexpr long term_stride = most_pairs + 152;

// Pairs: slots of the batch in hand with `points` points each. Side by side in the lanes are the slots, point after
// point (the pair of entry i and point q is q * count + i); or, when the points are many or the slots few, the points
// of one slot after those of the other (i * points + q).
struct Pairs {
  const int* slots = nullptr; // ascending
  int count = 0;
  int points = 1;
  int first = 0;          // point of the frame that the first pair is
  bool one_point = false; // the effects of all pairs are those of point 0: what depends on them is computed once
  bool slots_aside() const { return points < long_run && count >= long_run; }
  int slot_step() const { return slots_aside() ? 1 : points; }
  int point_step() const { return slots_aside() ? count : 1; }
};

// LaneValues: outputs that are kept lane by lane. Record k of the i-th slot at point q stands at level[k] + i * points
// + q, or, with the slots aside, at level[k] + q * (slots that have a record k) + i.
struct LaneValues {
  int outputs = 0;          // behind those that are added up
  double* values = nullptr; // output by output, `stride` doubles each
  long stride = 0;
  long* level = nullptr; // out: where each level begins, and the end
};

// RecordSums: what tvllogl adds up and where.
struct RecordSums {
  const engine::Program* program = nullptr;
  std::span<const int> places; // where the program's outputs belong, in order
  double* sums =
      nullptr; // out: the sum of an output at place k for pair j at sums[k * stride + j]; other rows are left alone
  long stride = 0;
  LaneValues lanes = {};           // not of sequential programs
  std::span<const int> twins = {}; // per output: the place whose sum is its own too, -1 none; may be empty
  bool each_once = false;          // no output has a twin
  const model::ModelProgram* by_totals = nullptr; // its terms and totals stand for the program

  RecordSums(const model::ModelProgram& p, double* to, long row_stride)
      : program(p.code), places(p.outputs), sums(to), stride(row_stride), twins(p.twins),
        by_totals(p.terms != nullptr ? &p : nullptr)
  {
  }
  RecordSums(const engine::Program* p, std::span<const int> of_outputs, double* to, long row_stride)
      : program(p), places(of_outputs), sums(to), stride(row_stride)
  {
  }
  bool has_twin(std::size_t k) const { return !twins.empty() && twins[k] >= 0; }
};

// tvlexec: runs one tile of the program on the context's frame and counts its lanes. Returns the engine's code: above 2
// the program has ended the run (STOP, ABORT).
int tvlexec(model::TVLThreadCtx& ctx, const engine::Program& program, const engine::Tile& tile);

// tvllogl: reads the log likelihood and its derivatives out of the program, summed over each pair's records in record
// order: one chain per pair, whatever shares the tile.
//
//   pairs  at most most_pairs, max_lanes points; pair j is point j of the frame (Frame::set_points), whose records are
//          those of the batch
//   slots of kept values are pairs; of a program that keeps values every record is run, and the unused ones are left
//   out
//
// Returns 0 or the engine's code above 2. Allocates nothing.
int tvllogl(const model::NX& n, model::TVLThreadCtx& ctx, const Pairs& pairs, const RecordSums& what);

} // namespace torvale::evaluation
