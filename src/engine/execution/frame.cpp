// Frame: execution of programs for one worker. Holds per program the registers, the results of the earlier stages and
// what they belong to: a stage is run again only when its inputs have changed.

#include "engine/execution/frame_state.h"

#include "engine/stages/shared_forms.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>

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

// Results of a stage that go to one array per result, at the place of the lane's record or point.
struct ArrayResults final : Results {
  double* to = nullptr;
  std::int64_t stride = 0;
  std::int64_t at = 0; // place of the strip's first lane
  void keep(std::int32_t result, const double* values, const Lanes& lanes) override
  {
    std::memcpy(to + result * stride + at, values, static_cast<std::size_t>(lanes.count) * sizeof(double));
  }
};

// Runs a stage for `count` records or points from `first` on; result r of number k goes to to[r * stride + k - first].
enum class Over : std::uint8_t { records, points };
int run_over(Over what, std::int64_t first, std::int64_t count, LaneRunner& runner, const Sources& sources,
             const BoundData& data, double* to, std::int64_t stride)
{
  ArrayResults results;
  results.to = to;
  results.stride = stride;
  Lanes lanes;
  std::int32_t* const own = lanes.own[what == Over::records ? 0 : 1];
  for (std::int64_t i = 0; i < count; i += lanes.count) {
    lanes.count = static_cast<int>(std::min<std::int64_t>(runner.strip(), count - i));
    std::iota(own, own + lanes.count, static_cast<std::int32_t>(first + i));
    lanes.row = what == Over::records ? own : zeros;
    lanes.point = what == Over::points ? own : zeros;
    lanes.slot = zeros;
    lanes.rows = lanes.points = Lanes::Run::unknown;
    lanes.finish();
    results.at = i;
    if (runner.run(lanes, sources, data, {}, results) != 0) return run_code::endless_loop;
  }
  return 0;
}

std::int64_t padded(std::int64_t n)
{
  return (n + lane_padding - 1) / lane_padding * lane_padding;
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

FrameProgram::FrameProgram(const CMPGLOBAL& gcmp, const Program& p)
    : program(p), runners{LaneRunner(gcmp, p.stage[0]), LaneRunner(gcmp, p.stage[1]), LaneRunner(gcmp, p.stage[2]),
                          LaneRunner(gcmp, p.stage[3]), LaneRunner(gcmp, p.stage[4]), LaneRunner(gcmp, p.stage[5])}
{
  parameter_results.reserve(p.code(Stage::parameter).results.size() + lane_padding);
  outputs.reserve(static_cast<std::size_t>(std::max(p.outputs, 1)) * output_stride);
}

int Frame::State::prepare(FrameProgram& f)
{
  const KernelTable* const table = &kernels();
  if (f.columns_ready && f.table == table && f.parameters == parameters_version) return 0;
  if (!f.columns_ready) {
    if (data->prepare(f.program, f.columns) != 0) return run_code::endless_loop;
    f.columns_ready = true;
    if (f.program.counted >= 0) find_values(f);
    f.records.resize(f.columns.size());
    for (const double* const from : f.columns) {
      const auto at = std::find_if(gathered.begin(), gathered.end(), [&](const Gathered& g) { return g.from == from; });
      f.gathered.push_back(static_cast<int>(at - gathered.begin()));
      if (at == gathered.end()) gathered.emplace_back().from = from;
    }
  }
  const bool rebuilt = f.table != table;
  f.table = table;
  f.parameters = parameters_version;
  f.range = f.points = f.tabulated = 0;
  // Parameter stage: one lane.
  const StageCode& code = f.program.code(Stage::parameter);
  if (!code.empty()) {
    LaneRunner& runner = f.runner(Stage::parameter);
    if (rebuilt) runner.fill_fixed(nullptr);
    Lanes lanes;
    lanes.count = 1;
    lanes.row = lanes.point = lanes.slot = zeros;
    lanes.finish();
    Sources sources;
    sources.version = version;
    sources.theta = theta.data();
    ArrayResults results;
    results.to = f.parameter_results.data();
    results.stride = 1;
    if (runner.run(lanes, sources, *data, {}, results) != 0) return run_code::endless_loop;
  }
  for (const Stage s : {Stage::distinct, Stage::observation, Stage::point, Stage::lane})
    f.runner(s).fill_fixed(f.parameter_results.data());
  return 0;
}

// Programs share what they read: a column is gathered once for all of them.
void Frame::State::gather(FrameProgram& f)
{
  if (records == nullptr) return;
  if (records_in_place) {
    for (std::size_t k = 0; k < f.columns.size(); ++k) f.records[k] = f.columns[k] + records[0];
    return;
  }
  if (records_in_order) {
    if (f.order != data->order_version()) {
      f.order = data->order_version();
      f.ordered.clear();
      for (const double* const column : f.columns) f.ordered.push_back(data->ordered(column));
    }
    for (std::size_t k = 0; k < f.ordered.size(); ++k) f.records[k] = f.ordered[k] + (records - data->order());
    return;
  }
  const std::int64_t room = padded(count);
  for (std::size_t k = 0; k < f.gathered.size(); ++k) {
    Gathered& g = gathered[static_cast<std::size_t>(f.gathered[k])];
    if (g.range != range_version) {
      g.range = range_version;
      g.values.reserve(static_cast<std::size_t>(room));
      double* const to = g.values.data();
      for (std::int64_t i = 0; i < count; ++i) to[i] = g.from[records[i]];
      for (std::int64_t i = count; i < room; ++i) to[i] = to[count - 1];
    }
    f.records[k] = g.values.data();
  }
}

int Frame::State::run_records(FrameProgram& f, Stage stage, double* to)
{
  return run_over(Over::records, first, count, f.runner(stage), common_sources(f), *data, to, f.range_stride);
}

void Frame::State::find_values(FrameProgram& f)
{
  f.values = data->distinct(f.program.counted);
  if (f.values == nullptr) return;
  const std::vector<std::int32_t>& row = f.values->row;
  const auto stride = static_cast<std::size_t>(padded(static_cast<std::int64_t>(row.size())));
  f.value_inputs.reserve(stride * f.columns.size());
  double* to = f.value_inputs.data();
  for (const double* const column : f.columns) {
    f.value_columns.push_back(to);
    for (std::size_t k = 0; k < stride; ++k) to[k] = column[row[std::min(k, row.size() - 1)]];
    to += stride;
  }
}

// Results of the stage `distinct` for every value of its variable.
int Frame::State::tabulate(FrameProgram& f)
{
  if (f.tabulated == f.parameters) return 0;
  f.tabulated = f.parameters;
  const auto count_of_values = static_cast<std::int64_t>(f.values->row.size()), stride = padded(count_of_values);
  f.value_results.reserve(static_cast<std::size_t>(stride) * f.program.code(Stage::distinct).results.size());
  Sources sources;
  sources.version = version;
  sources.theta = theta.data();
  sources.columns = f.value_columns.data();
  sources.rows = stride;
  return run_over(Over::records, 0, count_of_values, f.runner(Stage::distinct), sources, *data, f.value_results.data(),
                  stride);
}

int Frame::State::look_up(FrameProgram& f)
{
  const std::size_t results = f.program.code(Stage::distinct).results.size();
  if (results == 0) return 0;
  f.distinct.reserve(static_cast<std::size_t>(f.range_stride) * results);
  if (f.values == nullptr) return run_records(f, Stage::distinct, f.distinct.data());
  if (const int code = tabulate(f); code != 0) return code;
  const std::uint16_t* const value = f.values->of_row.data();
  const auto stride = static_cast<std::size_t>(padded(static_cast<std::int64_t>(f.values->row.size())));
  for (std::size_t r = 0; r < results; ++r) {
    const double* const table = f.value_results.data() + r * stride;
    double* const to = f.distinct.data() + r * static_cast<std::size_t>(f.range_stride);
    if (records != nullptr)
      for (std::int64_t i = 0; i < count; ++i) to[i] = table[value[records[i]]];
    else
      for (std::int64_t i = 0; i < count; ++i) to[i] = table[value[first + i]];
  }
  return 0;
}

int Frame::State::prepare_range(FrameProgram& f)
{
  const StageCode& code = f.program.code(Stage::observation);
  if ((code.empty() && f.program.code(Stage::distinct).empty()) || f.range == range_version) return 0;
  f.range = range_version;
  f.range_stride = padded(count);
  f.observation.reserve(static_cast<std::size_t>(f.range_stride) * code.results.size());
  if (const int fault = look_up(f); fault != 0) return fault;
  if (code.empty()) return 0;
  if (const int fault = run_records(f, Stage::observation, f.observation.data()); fault != 0) return fault;
  if (shift != nullptr) shift_predictor(f);
  return 0;
}

void Frame::State::shift_predictor(FrameProgram& f)
{
  const auto& results = f.program.code(Stage::observation).results;
  for (std::size_t k = 0; k < results.size(); ++k) {
    NodeId of = no_node;
    bool negative = false;
    const bool factor = is_exp_factor(gcmp.graph, results[k], of, negative);
    if ((factor ? of : results[k]) != shifted) continue;
    double* const value = f.observation.data() + static_cast<std::int64_t>(k) * f.range_stride;
    for (std::int64_t i = 0; i < count; ++i) {
      const double by = shift[records != nullptr ? records[i] : first + i];
      value[i] = factor ? value[i] * std::exp(negative ? -by : by) : value[i] + by;
    }
  }
}

int Frame::State::prepare_points(FrameProgram& f)
{
  const StageCode& code = f.program.code(Stage::point);
  if (code.empty() || f.points == points_version) return 0;
  f.points = points_version;
  f.point_stride = padded(points);
  f.point.reserve(static_cast<std::size_t>(f.point_stride) * code.results.size());
  return run_over(Over::points, 0, points, f.runner(Stage::point), common_sources(f), *data, f.point.data(),
                  f.point_stride);
}

Sources Frame::State::common_sources(const FrameProgram& f) const
{
  Sources s;
  s.version = version;
  s.theta = theta.data();
  s.ran = ran;
  s.stride = ran_stride;
  s.points_version = points_version + parameters_version;
  s.columns = records != nullptr ? f.records.data() : f.columns.data();
  s.rows = data != nullptr ? data->rows() : 0;
  s.points = std::max<std::int64_t>(points, std::min<std::int64_t>(padded(points), ran_stride)); // room for padding
  if (records != nullptr) // room for padding, or rows that follow
    s.rows = records_in_place   ? s.rows - records[0]
             : records_in_order ? padded(data->ordered_rows()) - (records - data->order())
                                : padded(count);
  s.records = records;
  s.distinct = f.distinct.data();
  s.observation = f.observation.data();
  s.observation_stride = f.range_stride;
  s.first = first;
  s.point = f.point.data();
  s.point_stride = f.point_stride;
  s.state = f.state.data();
  s.state_stride = f.state_slots;
  return s;
}

FrameProgram& Frame::State::program(const Program& p)
{
  const auto at = static_cast<std::size_t>(p.number);
  if (programs.size() <= at) programs.resize(at + 1);
  if (programs[at] == nullptr) {
    programs[at] = std::make_unique<FrameProgram>(gcmp, p);
    if (data != nullptr) {
      programs[at]->observation.keep_in(data->memory());
      programs[at]->distinct.keep_in(data->memory());
    }
  }
  return *programs[at];
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

int Frame::State::prepare_all(FrameProgram& f)
{
  if (const int code = prepare(f); code != 0) return code;
  gather(f);
  if (const int code = prepare_range(f); code != 0) return code;
  if (const int code = prepare_points(f); code != 0) return code;
  f.sources = common_sources(f);
  f.inputs = version;
  return 0;
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
    if (runner.run(lanes, f.sources, *state.data, {f.outputs.data() + i, output_stride}, results) != 0)
      return run_code::endless_loop;
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
