// What a frame makes ready before a program's lanes run: the stages whose inputs have changed since they were last run.

#include "engine/execution/frame_state.h"

#include "engine/stages/shared_forms.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>

namespace torvale::engine {

namespace {

constexpr std::int32_t zeros[strip_lanes] = {};

// Results of a stage that go to one array per result, at the place of the lane's record or point.
struct ArrayResults final : Results {
  double* to = nullptr;
  std::int64_t stride = 0;
  std::int64_t at = 0;   // place of the strip's first lane
  bool in_place = false; // there is room for its padding
  double* room_for(std::int32_t result) const override { return in_place ? to + result * stride + at : nullptr; }
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
    const auto along = lanes.count > 1 ? Lanes::Run::ascending : Lanes::Run::same;
    own[0] = static_cast<std::int32_t>(first + i);
    lanes.row = what == Over::records ? own : zeros;
    lanes.point = what == Over::points ? own : zeros;
    lanes.slot = zeros;
    lanes.rows = what == Over::records ? along : Lanes::Run::same;
    lanes.points = what == Over::points ? along : Lanes::Run::same;
    lanes.listed = false;
    lanes.finish();
    results.at = i;
    results.in_place = i + lanes.padded <= stride;
    if (runner.run(lanes, sources, data, {}, results) != 0) return run_code::endless_loop;
  }
  return 0;
}

std::int64_t padded(std::int64_t n)
{
  return (n + lane_padding - 1) / lane_padding * lane_padding;
}

// Between the results of a stage for so many records or points: rows a power of two apart would share the lines of the
// caches.
std::int64_t row_of_results(std::int64_t n)
{
  return padded(n) + 3 * lane_padding;
}

} // namespace

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
    Sources sources;
    sources.version = version;
    sources.theta = theta.data();
    const int fault = run_over(Over::records, 0, 1, runner, sources, *data, f.parameter_results.data(), 1);
    if (fault != 0) return fault;
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
  // Results two at a time: half of the reads are of the records' places.
  std::size_t r = 0;
  const auto look = [&](auto several) {
    constexpr std::size_t together = decltype(several)::value;
    const double* table[together];
    double* to[together];
    for (std::size_t k = 0; k < together; ++k) {
      table[k] = f.value_results.data() + (r + k) * stride;
      to[k] = f.distinct.data() + (r + k) * static_cast<std::size_t>(f.range_stride);
    }
    // Two records in one store.
    const auto put = [&](const auto& row_of) {
      std::int64_t i = 0;
      for (; i + 1 < count; i += 2) {
        const std::size_t here = value[row_of(i)], next = value[row_of(i + 1)];
        for (std::size_t k = 0; k < together; ++k) {
          const double two[] = {table[k][here], table[k][next]};
          std::memcpy(to[k] + i, two, sizeof two);
        }
      }
      for (std::size_t k = 0; k < together && i < count; ++k) to[k][i] = table[k][value[row_of(i)]];
    };
    if (records != nullptr)
      put([this](std::int64_t i) { return static_cast<std::int64_t>(records[i]); });
    else
      put([this](std::int64_t i) { return first + i; });
    r += together;
  };
  while (r + 2 <= results) look(std::integral_constant<std::size_t, 2>());
  if (r < results) look(std::integral_constant<std::size_t, 1>());
  return 0;
}

int Frame::State::prepare_range(FrameProgram& f)
{
  const StageCode& code = f.program.code(Stage::observation);
  if (f.range == range_version) return 0;
  if (f.program.records_of != nullptr) {
    FrameProgram& other = program(*f.program.records_of);
    if (const int fault = prepare(other); fault != 0) return fault;
    gather(other);
    if (const int fault = prepare_range(other); fault != 0) return fault;
    f.records_of = &other;
  }
  f.range = range_version;
  if (code.empty() && f.program.code(Stage::distinct).empty()) return 0;
  f.range_stride = row_of_results(count);
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
  f.point_stride = row_of_results(points);
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
  const FrameProgram& of_records = f.records_of != nullptr ? *f.records_of : f;
  s.observation = of_records.observation.data();
  s.observation_stride = std::max(f.range_stride, of_records.range_stride); // where both have results they are the same
  s.first = first;
  s.point = f.point.data();
  s.point_stride = f.point_stride;
  s.totals = totals;
  s.totals_stride = totals_stride;
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

} // namespace torvale::engine
