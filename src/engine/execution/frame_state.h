#pragma once
// What a Frame holds: inputs of the current run, and per program registers and stage results.

#include "engine/execution/bound_data.h"

#include <array>
#include <memory>
#include <vector>

namespace torvale::engine {

// One program in one frame.
struct FrameProgram {
  FrameProgram(const CMPGLOBAL& gcmp, const Program& p);
  LaneRunner& runner(Stage s) { return runners[static_cast<std::size_t>(s)]; }

  const Program& program;
  std::array<LaneRunner, stages> runners;
  const KernelTable* table = nullptr; // build that the registers were prepared for
  std::vector<const double*> columns; // by Program::columns
  bool columns_ready = false;
  std::vector<const double*> ordered; // by Program::columns: the column in the order of cmporder
  std::uint64_t order = 0;            // version of that order; 0: none
  std::vector<int> gathered;          // by Program::columns: its place in Frame::State::gathered
  std::vector<const double*> records; // by Program::columns: its values at the records of set_records
  // Versions of the inputs that the stage results belong to, and of them all; 0: none.
  std::uint64_t parameters = 0, range = 0, points = 0, inputs = 0;
  Sources sources; // of the lane stage
  LaneArray parameter_results;
  // The values of the program's counted variable, what its stage reads for them (by Program::columns) and its results
  // for them, result by result. Null: the stage is run for each record.
  const DistinctValues* values = nullptr;
  LaneArray value_inputs;
  std::vector<const double*> value_columns;
  LaneArray value_results;
  std::uint64_t tabulated = 0; // version of the parameters that it belongs to
  LaneArray distinct;          // the same at the records of the range, range_stride doubles each
  LaneArray observation;       // result by result, range_stride doubles each
  std::int64_t range_stride = 0;
  const FrameProgram* records_of = nullptr; // whose `observation` it reads; null: its own
  LaneArray point;                          // result by result, point_stride doubles each
  std::int64_t point_stride = 0;
  LaneArray outputs; // output by output, output_stride doubles each
  LaneArray state;   // kept value by kept value, state_slots doubles each
  std::int32_t state_slots = 0;
};

inline constexpr int output_stride = max_lanes + lane_padding; // a strip's padding may reach beyond the tile

// The code of Frame::run for an effect that ends the run.
int trap_code(Effect::Kind kind);

struct Frame::State {
  State(const CMPGLOBAL& g, std::shared_ptr<const BoundData> d) : gcmp(g), data(std::move(d)) {}
  FrameProgram& program(const Program& p);
  int prepare_all(FrameProgram& f); // whatever has changed, and `sources`
  int prepare(FrameProgram& f);     // columns, parameter stage, fixed registers
  int prepare_range(FrameProgram& f);
  int run_records(FrameProgram& f, Stage stage, double* to); // a stage at the records of the range
  void find_values(FrameProgram& f);
  int tabulate(FrameProgram& f);
  int look_up(FrameProgram& f); // results of the stage `distinct` at the records of the range
  int prepare_points(FrameProgram& f);
  void shift_predictor(FrameProgram& f);
  Sources common_sources(const FrameProgram& f) const;
  void gather(FrameProgram& f); // the columns of the program at the records of the range

  const CMPGLOBAL& gcmp;
  std::shared_ptr<const BoundData> data;
  std::vector<double> theta;
  const double* ran = nullptr; // borrowed
  int points = 0;
  int ran_stride = 0;
  const double* totals = nullptr; // borrowed
  long totals_stride = 0;
  std::int64_t first = 0, count = 0;     // the range
  const std::int32_t* records = nullptr; // borrowed; rows of the records 0..count-1, null: records are rows
  bool records_in_place = false;         // they are rows that follow each other: nothing need be brought together
  bool records_in_order = false;         // they are a part of the data's order: it has been
  NodeId shifted = no_node;              // predictor that is shifted
  const double* shift = nullptr;         // by row; borrowed
  struct Gathered {                      // one column at these records
    const double* from = nullptr;
    LaneArray values;
    std::uint64_t range = 0; // version of the range that the values belong to
  };
  std::vector<Gathered> gathered; // columns that some program reads
  std::uint64_t parameters_version = 1, range_version = 1, points_version = 1;
  std::uint64_t version = 1; // of all inputs: changes with each of these, and when kept values are given room
  std::vector<std::unique_ptr<FrameProgram>> programs; // by Program::number
  FrameProgram* last = nullptr;                        // whose outputs `output` gives
};

} // namespace torvale::engine
