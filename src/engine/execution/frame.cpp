// Frame: execution of programs for one worker. A tile is cut into strips of lanes that read what stands side by side.

#include "engine/execution/frame_state.h"

#include <algorithm>
#include <cstring>

namespace torvale::engine {

namespace {

constexpr std::int32_t zeros[strip_lanes] = {};
// The strip of a tile that begins with lane i. Where it can it ends with a group of lanes of one record, or where the
// points begin anew: then what its lanes read stands side by side in memory, and nothing need be fetched lane by lane.
void cut_strip(Lanes& lanes, const Tile& tile, int i, int longest)
{
  constexpr int worthwhile = 32; // shorter strips lose more to padding than they save
  const int left = tile.lanes - i, group = tile.repeat;
  lanes.count = std::min(left, longest);
  lanes.repeat = group;
  if (group >= worthwhile) {
    const int rest = group - i % group; // of this group, in equal parts
    const int parts = (rest + longest - 1) / longest;
    lanes.count = lanes.repeat = std::min(left, (rest + parts - 1) / parts);
  } else if (group > 1 && lanes.count < left) {
    lanes.count = lanes.count / group * group;
  } else if (tile.observation == nullptr) {
    const int strips = (left + longest - 1) / longest; // equal ones
    lanes.count = (left + strips - 1) / strips;
  }
  // Only whole vectors go straight to their sums: the rest is a strip of its own.
  if (tile.sums != nullptr && lanes.count > lane_padding) {
    lanes.count = lanes.count / lane_padding * lane_padding;
    lanes.repeat = std::min(lanes.repeat, lanes.count);
  }
  if (tile.point != nullptr) {
    lanes.point = tile.point + i;
    lanes.points = Lanes::Run::unknown;
    const int run = ascending_run(lanes.point, lanes.count);
    if (run >= worthwhile && run % lanes.repeat == 0) lanes.count = run;
  } else if (tile.first_point < 0) {
    lanes.point = zeros;
    lanes.points = Lanes::Run::same;
  } else {
    lanes.own[1][0] = tile.first_point + i;
    lanes.point = lanes.own[1];
    lanes.points = lanes.count > 1 ? Lanes::Run::ascending : Lanes::Run::same;
  }
  if (tile.observation != nullptr) {
    lanes.row = tile.observation + i;
    lanes.rows = lanes.count == lanes.repeat ? Lanes::Run::same : Lanes::Run::unknown;
  } else {
    const bool same = group > 1 && group == tile.lanes;
    lanes.own[0][0] = same ? tile.first : tile.first + i;
    lanes.row = lanes.own[0];
    lanes.rows = same ? Lanes::Run::same : lanes.count > 1 ? Lanes::Run::ascending : Lanes::Run::same;
  }
  lanes.slot = tile.state != nullptr ? tile.state + i : zeros;
  lanes.listed = lanes.row != lanes.own[0] && lanes.point != lanes.own[1];
  lanes.finish();
}

// Results of the lane stage beside the outputs: guards of what ends the run, values for the next record.
struct TileResults final : Results {
  const CMPGLOBAL* gcmp = nullptr;
  const Program* program = nullptr;
  double* state = nullptr;
  std::int64_t state_stride = 0;
  int code = 0;
  void keep(std::int32_t result, const double* values, const Lanes& lanes) override
  {
    const std::size_t trap = static_cast<std::size_t>(result - program->outputs);
    if (trap < program->traps.size()) {
      if (code == 0 && any_true(values, lanes.count))
        code = trap_code(gcmp->effects[static_cast<std::size_t>(program->traps[trap])].kind);
      return;
    }
    double* const kept = state + static_cast<std::int64_t>(trap - program->traps.size()) * state_stride;
    for (int i = 0; i < lanes.count; ++i) kept[lanes.slot[i]] = values[i];
  }
};

} // namespace

int trap_code(Effect::Kind kind)
{
  switch (kind) {
  case Effect::Kind::stop:
    return run_code::stopped;
  case Effect::Kind::abort:
    return run_code::aborted;
  default:
    return run_code::subscript;
  }
}

Frame::Frame(const CMPGLOBAL& gcmp, std::shared_ptr<const BoundData> data)
    : state_(std::make_unique<State>(gcmp, std::move(data)))
{
  int parameters = 0;
  for (const CMPSYM& s : gcmp.symbols) parameters = std::max(parameters, s.parameter + 1);
  state_->theta.assign(static_cast<std::size_t>(parameters), 0.0);
  state_->count = state_->data != nullptr ? state_->data->rows() : 0;
}

Frame::~Frame() = default;
Frame::Frame(Frame&&) noexcept = default;
Frame& Frame::operator=(Frame&&) noexcept = default;

void Frame::set_parameters(const double* theta)
{
  std::copy_n(theta, state_->theta.size(), state_->theta.begin());
  ++state_->parameters_version;
  ++state_->version;
}

void Frame::set_range(std::int64_t first, std::int64_t count)
{
  if (state_->records == nullptr && first == state_->first && count == state_->count) return;
  state_->records = nullptr;
  state_->first = first;
  state_->count = count;
  ++state_->range_version;
  ++state_->version;
}

void Frame::set_records(const std::int32_t* rows, std::int64_t count)
{
  state_->records = rows;
  state_->records_in_place =
      std::adjacent_find(rows, rows + count, [](std::int32_t a, std::int32_t b) { return b != a + 1; }) == rows + count;
  state_->records_in_order =
      !state_->records_in_place && state_->data != nullptr && state_->data->in_order(rows, count);
  state_->first = 0;
  state_->count = count;
  ++state_->range_version;
  ++state_->version;
}

void Frame::shift_records(const CMPSYM* predictor, const double* by_row)
{
  state_->shift = by_row;
  state_->shifted = by_row == nullptr ? no_node : state_->gcmp.value[static_cast<std::size_t>(predictor->index)];
  ++state_->range_version;
  ++state_->version;
}

void Frame::set_points(const double* ran, int points, int stride)
{
  state_->ran = ran;
  state_->points = points;
  state_->ran_stride = stride;
  ++state_->points_version;
  ++state_->version;
}

void Frame::set_totals(const double* totals, long stride)
{
  if (state_->totals == totals && state_->totals_stride == stride) return;
  state_->totals = totals;
  state_->totals_stride = stride;
  ++state_->version;
}

bool Frame::shifts_records() const
{
  return state_->shift != nullptr;
}

void Frame::reset_state(const Program& program, int slots)
{
  FrameProgram& f = state_->program(program);
  f.state_slots = std::max(f.state_slots, slots);
  ++state_->version;
  f.state.reserve(static_cast<std::size_t>(f.state_slots) * program.kept.size() + 1);
  const GraphBuilder& graph = state_->gcmp.graph;
  for (std::size_t k = 0; k < program.kept.size(); ++k)
    std::fill_n(f.state.data() + static_cast<std::int64_t>(k) * f.state_slots, f.state_slots,
                graph.value(graph.carry_at(program.kept[k]).initial));
}

int Frame::run(const Program& program, const Tile& tile)
{
  State& state = *state_;
  FrameProgram& f = state.program(program);
  state.last = &f;
  if (program.sequential() && f.state_slots == 0) reset_state(program, max_lanes);
  if (f.inputs != state.version)
    if (const int code = state.prepare_all(f); code != 0) return code;
  TileResults results;
  results.gcmp = &state.gcmp;
  results.program = &program;
  results.state = f.state.data();
  results.state_stride = f.state_slots;
  Lanes lanes;
  LaneRunner& runner = f.runner(Stage::lane);
  for (int i = 0; i < tile.lanes; i += lanes.count) {
    cut_strip(lanes, tile, i, runner.strip());
    const Outputs outputs{f.outputs.data() + i, output_stride, tile.sums, tile.first_sum + i, tile.adds};
    if (runner.run(lanes, f.sources, *state.data, outputs, results) != 0) return run_code::endless_loop;
  }
  return results.code;
}

const double* Frame::output(int k) const
{
  const FrameProgram& f = *state_->last;
  return f.outputs.data() +
         static_cast<std::ptrdiff_t>(f.program.output_place[static_cast<std::size_t>(k)]) * output_stride;
}

const char* isa_name()
{
  return kernels().isa;
}

bool set_isa(std::string_view name)
{
  return set_kernels(name);
}

} // namespace torvale::engine
