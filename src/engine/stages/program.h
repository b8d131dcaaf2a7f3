#pragma once
// Program: a part of the graph made ready to run: six stages, each a straight list of steps over registers.
//
// A stage is run over its own set of lanes: `parameter` once per parameter vector (one lane), `data` over the records
// of a BY group, `distinct` over the values that one column has, `observation` over the records of a range, `point`
// over the points, `lane` over the lanes of a tile. What a later stage needs of an earlier one is an array of that
// stage's results, read by the lane's record or point.

#include "engine/graph/compiler.h"
#include "engine/stages/native_stage.h"

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace torvale::engine {

struct Step {
  enum class Kind : std::uint8_t {
    kernel,     // out = kernel(in...)
    load,       // out = input `index` of the stage, for the lanes of the strip
    element,    // out = in lanes where operand 0 is the number k operand 2 + k, else operand 1
    text,       // out = answer of text test `index`, one lane at a time; in: its numbers
    keep,       // result `index` of the stage = in[0]
    output,     // the same for an output of the program: the missing value in place of any other NaN
    loop_begin, // a loop: when no lane has the mask in[0], go to step `index`
    loop_end,   // go back to step `index`; the loop `out` has made one more pass
  } kind = Kind::kernel;
  Kernel kernel = Kernel::copy;
  std::int32_t operands = 0;
  std::int32_t out = -1; // register
  std::array<std::int32_t, kernel_operands_max> in{};
  std::int32_t index = 0;
  NodeId node = no_node; // for listings and messages
};

// Where a load takes its values.
struct Input {
  enum class From : std::uint8_t {
    parameter_value, // theta[index]
    random_effect,   // effect `index` at the lane's point
    total,           // sum `index` over the records of the lane's point
    column,          // Program::columns[index] at the lane's record
    distinct,        // result `index` of the stage of a column's values, at the lane's record
    observation,     // result `index` of the observation stage at the lane's record
    point,           // result `index` of the point stage at the lane's point
    state,           // kept value `index` of the lane's slot
    row_number,      // number of the record
    missing,         // an input that has no value
  } from = From::column;
  std::int32_t index = 0;
  bool by_point() const { return from == From::point || from == From::random_effect || from == From::total; }
  // Once fetched it stands for the same points: sums change beneath theirs.
  bool held_with_points() const { return by_point() && from != From::total; }
  bool by_row() const
  {
    return from == From::column || from == From::distinct || from == From::observation || from == From::row_number;
  }
  bool same_in_all_lanes() const { return from == From::parameter_value || from == From::missing; }
};

// A register that holds one number in all lanes and is filled only when that number changes.
struct Fixed {
  std::int32_t reg = 0;
  bool constant = true; // else result `index` of the parameter stage
  double value = 0.0;
  std::int32_t index = 0;
};

struct StageCode {
  std::vector<Step> steps;
  std::vector<Input> inputs;
  std::vector<Fixed> fixed;
  std::vector<std::vector<std::int32_t>> elements; // operands of element steps, by their index
  std::vector<NodeId> results; // nodes that later stages (or the caller) read, by index of `keep` and `output`
  int outputs = 0;             // results that are outputs of the program: the first ones
  bool canonical = true;       // NaNs among them become the missing value
  int registers = 0;           // fixed ones first
  int operations = 0;          // kernels and text tests
  std::unique_ptr<NativeStages> native = std::make_unique<NativeStages>(); // its machine code
  bool empty() const { return results.empty(); }
  std::span<std::int32_t> operands(Step& s)
  {
    if (s.kind == Step::Kind::element) return elements[static_cast<std::size_t>(s.index)];
    return {s.in.data(), static_cast<std::size_t>(s.operands)};
  }
};

// Column: a value per record of the data, raw or computed by the data stage.
struct Column {
  NodeId node = no_node;
  std::int32_t result = -1; // index among the data stage's results; -1: the variable's own column
};

class Program {
public:
  std::array<StageCode, stages> stage;
  const StageCode& code(Stage s) const { return stage[static_cast<std::size_t>(s)]; }
  StageCode& code(Stage s) { return stage[static_cast<std::size_t>(s)]; }

  int number = 0;                         // place among the programs of the compiler
  int outputs = 0;                        // distinct outputs: results 0..outputs-1 of the lane stage
  std::vector<std::int32_t> output_place; // per output asked for: which of the distinct ones it is
  std::vector<bool> point_dependent;      // per output asked for
  std::vector<std::int32_t> traps; // effects that end a run: results outputs.. of the lane stage are their guards
  std::vector<std::int32_t> kept;  // carries of records, by index of Input::state; results after the traps: next values
  std::vector<std::int32_t> data_kept; // the same in the data stage: next values are its last results
  std::vector<Column> columns;         // what stages read of the data
  int computed_columns = 0;            // data results before the next values
  const Program* records_of = nullptr; // whose results of the observation stage it reads; null: its own
  std::int32_t counted = -1;           // symbol of the data variable whose values the stage `distinct` is run over
  int nodes = 0;                       // distinct nodes behind the outputs
  std::int64_t nodes_before = 0;       // the same without sharing
  bool sequential() const { return !kept.empty(); }
};

} // namespace torvale::engine
