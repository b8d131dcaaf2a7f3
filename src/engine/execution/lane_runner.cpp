#include "engine/execution/lane_runner.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

namespace torvale::engine {

namespace {

// How indices run along a strip decides how values are fetched: one value for all, a copy, or one by one.
Lanes::Run run_of(const std::int32_t* index, int n)
{
  const std::int32_t step = n > 1 ? index[1] - index[0] : 0;
  if (step < 0 || step > 1 || index[n - 1] - index[0] != step * (n - 1)) return Lanes::Run::mixed;
  std::int32_t difference = 0;
  for (int i = 1; i < n; ++i) difference |= index[i] - index[i - 1] - step;
  return difference != 0 ? Lanes::Run::mixed : step == 0 ? Lanes::Run::same : Lanes::Run::ascending;
}

// One value for each group of `repeat` lanes. A group may write beyond its end, never beyond the padding: the next one
// overwrites it.
void spread(double* out, const double* from, const std::int32_t* index, int repeat, const Lanes& lanes)
{
  constexpr int block = 4;
  int i = 0;
  for (; i + repeat + block <= lanes.padded && i < lanes.count; i += repeat) {
    const double value = from[index[i]];
    for (int k = 0; k < repeat; k += block)
      for (int j = 0; j < block; ++j) out[i + k + j] = value;
  }
  for (; i < lanes.count; ++i) out[i] = from[index[i]];
}

// Missing values have all of their upper 16 bits set and none of the lower 40; any other NaN becomes the ordinary
// missing value.
void make_canonical(double* values, int n)
{
  constexpr std::uint64_t looked_at = 0xFFFF00FFFFFFFFFF, upper = 0xFFFF000000000000, missing = 0xFFFFFE0000000000;
  for (int i = 0; i < n; ++i) {
    const bool strange = values[i] != values[i] && (std::bit_cast<std::uint64_t>(values[i]) & looked_at) != upper;
    values[i] = strange ? std::bit_cast<double>(missing) : values[i];
  }
}

// From the room of the outputs to their sums.
void pass_on(const Outputs& from, int outputs, int lanes)
{
  for (int k = 0; k < outputs; ++k) {
    const double* const value = from.at + k * from.stride;
    double* const sum = from.sums[k] + from.first_sum;
    for (int i = 0; i < lanes; ++i) sum[i] = from.adds ? sum[i] + value[i] : value[i];
  }
}

} // namespace

int ascending_run(const std::int32_t* index, int n)
{
  if (index[n - 1] - index[0] == n - 1) return n; // or else there is a break; a strip with one is found to be mixed
  int i = 1;
  while (i < n && index[i] == index[i - 1] + 1) ++i;
  return i;
}

void LaneArray::reserve(std::size_t n)
{
  if (n <= size_) return;
  constexpr std::size_t alignment = 64;
  memory_.reset(); // the old values go first
  DoublesGiver& giver = memory_.get_deleter();
  giver.size = n + alignment / sizeof(double);
  memory_.reset(giver.from.allocate(giver.size));
  void* start = memory_.get();
  std::size_t space = giver.size * sizeof(double);
  data_ = static_cast<double*>(std::align(alignment, n * sizeof(double), start, space));
  size_ = n;
}

void Lanes::finish()
{
  padded = (count + lane_padding - 1) / lane_padding * lane_padding;
  if (rows == Run::unknown) rows = run_of(row, count);
  if (points == Run::unknown) points = run_of(point, count);
}

void Lanes::list()
{
  if (listed) return;
  listed = true;
  const auto fill = [&](std::int32_t* index, Run run) {
    for (int k = 1; k < count; ++k) index[k] = index[0] + (run == Run::ascending ? k : 0);
  };
  if (row == own[0]) fill(own[0], rows);
  if (point == own[1]) fill(own[1], points);
}

void LaneRunner::prepare()
{
  table_ = &kernels();
  native_ = {};
  by_native_ = can_be_native_ && native_enabled();
  held_count_ = 0;
  fixed_.reserve(code_.fixed.size() * lane_padding);
  if (!by_native_) return prepare_steps(cached_strip());
  strip_ = strip_lanes;
  const auto strip = static_cast<std::size_t>(strip_), outputs = static_cast<std::size_t>(code_.outputs);
  fetched_.reserve(code_.inputs.size() * strip);
  kept_.reserve((code_.results.size() - outputs) * strip);
  input_addresses_.resize(code_.inputs.size());
  input_base_.resize(code_.inputs.size());
  known_version_ = 0;
  outputs_at_ = nullptr;
  along_.clear();
  for (const Input& input : code_.inputs)
    along_.push_back(input.from == Input::From::row_number || input.from == Input::From::state ? Along::fetched
                     : input.by_row()                                                          ? Along::rows
                     : input.by_point()                                                        ? Along::points
                                                                                               : Along::nothing);
  fetches_ = std::find(along_.begin(), along_.end(), Along::fetched) != along_.end();
  result_addresses_.resize(code_.results.size());
}

void LaneRunner::fill_fixed(const double* parameter_results)
{
  if (table_ != &kernels() || by_native_ != (can_be_native_ && native_enabled())) prepare();
  double* to = fixed_.data();
  for (const Fixed& f : code_.fixed) {
    const double value = f.constant ? f.value : parameter_results[f.index];
    std::fill_n(to, lane_padding, value);
    to += lane_padding;
    if (!by_native_) std::fill_n(reg(f.reg), strip_, value);
  }
}

int LaneRunner::run(Lanes& lanes, const Sources& sources, const CharacterColumns& texts, const Outputs& outputs,
                    Results& results)
{
  if (outputs.sums == nullptr || (by_native_ && lanes.padded == lanes.count))
    return run_strip(lanes, sources, texts, outputs, results);
  const int code = run_strip(lanes, sources, texts, {outputs.at, outputs.stride}, results);
  pass_on(outputs, code_.outputs, lanes.count);
  return code;
}

int LaneRunner::run_strip(Lanes& lanes, const Sources& sources, const CharacterColumns& texts, const Outputs& outputs,
                          Results& results)
{
  if (!by_native_ || fetches_) lanes.list();
  if (by_native_) {
    NativeShape shape{lanes.rows == Lanes::Run::same, lanes.points == Lanes::Run::same, in_pairs(lanes.padded),
                      outputs.adds};
    const NativeStage* stage = native(shape);
    if (stage == nullptr && shape.paired) {
      can_be_paired_ = shape.paired = false;
      stage = native(shape);
    }
    if (stage != nullptr) {
      run_native(*stage, lanes, sources, outputs, results);
      return 0;
    }
    // No memory for more code: from here on the steps are walked, in strips as long as this one may be.
    by_native_ = false;
    prepare_steps(strip_lanes);
    for (std::size_t k = 0; k < code_.fixed.size(); ++k)
      std::fill_n(reg(code_.fixed[k].reg), strip_, fixed_.data()[k * lane_padding]);
    lanes.list();
    return run(lanes, sources, texts, outputs, results);
  }
  return walk(lanes, sources, texts, outputs, results);
}

// --- inputs ---

LaneRunner::View LaneRunner::view(const Input& input, const Lanes& lanes, const Sources& sources)
{
  using From = Input::From;
  static constexpr double nothing = std::numeric_limits<double>::quiet_NaN();
  static constexpr std::int32_t zero = 0;
  const std::int64_t k = input.index;
  switch (input.from) {
  case From::parameter_value:
    return {sources.theta + k, &zero, Lanes::Run::same, 1, 1};
  case From::random_effect:
    return {sources.ran + k * sources.stride, lanes.point, lanes.points, sources.points, 1};
  case From::total:
    return {sources.totals + k * sources.totals_stride, lanes.point, lanes.points, sources.points, 1};
  case From::column:
    return {sources.columns[k], lanes.row, lanes.rows, sources.rows, lanes.repeat};
  case From::distinct:
  case From::observation: {
    const double* const results = input.from == From::distinct ? sources.distinct : sources.observation;
    return {results + k * sources.observation_stride - sources.first, lanes.row, lanes.rows,
            sources.first + sources.observation_stride, lanes.repeat};
  }
  case From::point:
    return {sources.point + k * sources.point_stride, lanes.point, lanes.points, sources.point_stride, 1};
  case From::state:
    return {sources.state + k * sources.state_stride, lanes.slot, Lanes::Run::mixed, sources.state_stride, 1};
  case From::row_number:
  case From::missing:
    break;
  }
  return {&nothing, &zero, Lanes::Run::same, 1, 1};
}

void LaneRunner::fetch(const Input& input, double* out, const Lanes& lanes, const Sources& sources) const
{
  const View v = view(input, lanes, sources);
  if (input.from == Input::From::row_number) {
    for (int i = 0; i < lanes.count; ++i) out[i] = static_cast<double>(sources.row(lanes.row[i]));
  } else if (v.run == Lanes::Run::same) {
    std::fill_n(out, lanes.count, v.from[v.index[0]]);
  } else if (v.run == Lanes::Run::ascending) {
    std::memcpy(out, v.from + v.index[0], static_cast<std::size_t>(lanes.count) * sizeof(double));
  } else if (v.repeat > 2) {
    spread(out, v.from, v.index, v.repeat, lanes);
  } else {
    for (int i = 0; i < lanes.count; ++i) out[i] = v.from[v.index[i]];
  }
  for (int i = lanes.count; i < lanes.padded; ++i) out[i] = out[lanes.count - 1];
}

bool LaneRunner::holds_points_of(const Lanes& lanes, const Sources& sources) const
{
  return lanes.count <= held_count_ && held_version_ == sources.points_version &&
         std::memcmp(held_, lanes.point, static_cast<std::size_t>(lanes.count) * sizeof(std::int32_t)) == 0;
}

void LaneRunner::hold_points_of(const Lanes& lanes, const Sources& sources)
{
  std::copy_n(lanes.point, lanes.count, held_);
  held_count_ = lanes.count;
  held_version_ = sources.points_version;
}

// --- machine code ---

// In a short stage an operation waits for the one before it: then two vectors of lanes go side by side, once there have
// been lanes enough to make up for writing that code. Where there are many operations some are always ready, and two
// vectors of so many values do not fit into the registers.
bool LaneRunner::in_pairs(int lanes)
{
  constexpr int most_operations = 200;
  if (!can_be_paired_ || code_.operations > most_operations) return false;
  lanes_run_ += lanes;
  return lanes_run_ >= native_pairs_after() && lanes % (2 * lane_padding) == 0;
}

const NativeStage* LaneRunner::native(NativeShape shape)
{
  const NativeStage*& stage = native_[static_cast<std::size_t>(shape.index())];
  if (stage == nullptr) {
    stage = code_.native->get(code_, shape, *table_);
    if (stage != nullptr) scratch_.reserve(stage->scratch());
  }
  return stage;
}

// Where the inputs of the strip stand: in place, or fetched to where they stand lane by lane.
void LaneRunner::find_inputs(const Lanes& lanes, const Sources& sources)
{
  const std::size_t inputs = code_.inputs.size();
  if (known_version_ != sources.version) {
    known_version_ = sources.version;
    for (std::size_t k = 0; k < inputs; ++k) input_base_[k] = view(code_.inputs[k], lanes, sources).from;
  }
  const auto row = static_cast<std::int64_t>(lanes.row[0]), point = static_cast<std::int64_t>(lanes.point[0]);
  // Lanes beyond the last one may stand for records or points that are not asked for, but exist.
  const auto in_place = [&](Lanes::Run run, std::int64_t first, std::int64_t length) {
    return run == Lanes::Run::same || (run == Lanes::Run::ascending && first + lanes.padded <= length);
  };
  const bool per_record = sources.observation != nullptr || sources.distinct != nullptr;
  const std::int64_t last_row =
      std::min(sources.rows, per_record ? sources.first + sources.observation_stride : sources.rows);
  const std::int64_t last_point =
      std::min(sources.points, sources.point == nullptr ? sources.points : sources.point_stride);
  const std::int64_t offset[] = {0, row, point, 0};
  for (std::size_t k = 0; k < inputs; ++k) input_addresses_[k] = input_base_[k] + offset[static_cast<int>(along_[k])];
  const bool rows_in_place = in_place(lanes.rows, row, last_row);
  const bool points_in_place = in_place(lanes.points, point, last_point);
  if (rows_in_place && points_in_place && !fetches_) return;
  const bool same_points = lanes.points == Lanes::Run::mixed && holds_points_of(lanes, sources);
  for (std::size_t k = 0; k < inputs; ++k) {
    const Along along = along_[k];
    if (along == Along::nothing || (along == Along::rows && rows_in_place) ||
        (along == Along::points && points_in_place))
      continue;
    double* const room = fetched_.data() + k * static_cast<std::size_t>(strip_);
    input_addresses_[k] = room;
    if (!(same_points && code_.inputs[k].held_with_points())) fetch(code_.inputs[k], room, lanes, sources);
  }
  if (points_in_place || same_points) return;
  held_count_ = 0;
  if (lanes.points == Lanes::Run::mixed) hold_points_of(lanes, sources);
}

void LaneRunner::place_outputs(const Outputs& outputs)
{
  const auto n = static_cast<std::size_t>(code_.outputs);
  if (outputs.sums != nullptr) {
    outputs_at_ = nullptr;
    for (std::size_t k = 0; k < n; ++k) result_addresses_[k] = outputs.sums[k] + outputs.first_sum;
  } else if (outputs_at_ != outputs.at) {
    outputs_at_ = outputs.at;
    for (std::size_t k = 0; k < n; ++k)
      result_addresses_[k] = outputs.at + static_cast<std::int64_t>(k) * outputs.stride;
  }
}

void LaneRunner::run_native(const NativeStage& stage, const Lanes& lanes, const Sources& sources,
                            const Outputs& outputs, Results& results)
{
  find_inputs(lanes, sources);
  const auto n = static_cast<std::size_t>(code_.outputs);
  place_outputs(outputs);
  bool kept = false;
  for (std::size_t k = n; k < code_.results.size(); ++k) {
    double* const room = results.room_for(static_cast<std::int32_t>(k));
    kept = kept || room == nullptr;
    result_addresses_[k] = room != nullptr ? room : kept_.data() + (k - n) * static_cast<std::size_t>(strip_);
  }
  NativeArguments arguments;
  arguments.inputs = input_addresses_.data();
  arguments.fixed = fixed_.data();
  arguments.results = result_addresses_.data();
  arguments.scratch = scratch_.data();
  arguments.lanes = lanes.padded;
  if (stage.run(arguments))
    for (std::size_t k = 0; k < n; ++k) make_canonical(result_addresses_[k], lanes.count);
  for (std::size_t k = n; kept && k < code_.results.size(); ++k)
    results.keep(static_cast<std::int32_t>(k), result_addresses_[k], lanes);
}

// --- steps ---

// Lanes for which all registers stay in the first-level cache.
int LaneRunner::cached_strip() const
{
  constexpr int cached_doubles = 5120; // 40 of the 48 kilobytes that such caches have today
  constexpr int narrowest = 32;
  return std::clamp(cached_doubles / std::max(code_.registers, 1) / narrowest * narrowest, narrowest, strip_lanes);
}

void LaneRunner::prepare_steps(int strip)
{
  held_count_ = 0;
  strip_ = strip;
  registers_.reserve(static_cast<std::size_t>(code_.registers) * static_cast<std::size_t>(strip));
  operations_.assign(code_.steps.size(), {});
  for (std::size_t k = 0; k < code_.steps.size(); ++k) {
    const Step& s = code_.steps[k];
    Operation& op = operations_[k];
    if (s.kind == Step::Kind::kernel) op.fn = (*table_)[s.kernel];
    if (s.out >= 0) op.out = reg(s.out);
    for (int j = 0; j < s.operands; ++j) op.in[j] = reg(s.in[static_cast<std::size_t>(j)]);
  }
}

void LaneRunner::answer(const Step& step, const Operation& op, const Lanes& lanes, const Sources& sources,
                        const CharacterColumns& texts) const
{
  struct Lane final : TextInputs {
    const TextTest* test = nullptr;
    const Operation* op = nullptr;
    const CharacterColumns* texts = nullptr;
    std::int64_t row = 0;
    int lane = 0;
    std::string_view column(std::int32_t symbol) const override { return texts->text(symbol, row); }
    double number(NodeId id) const override
    {
      for (std::size_t k = 0; k < test->inputs.size(); ++k)
        if (test->inputs[k] == id) return op->in[k][lane];
      return 0.0;
    }
  } lane;
  lane.test = &gcmp_.text.test(step.index);
  lane.op = &op;
  lane.texts = &texts;
  for (int i = 0; i < lanes.count; ++i) {
    lane.row = sources.row(lanes.row[i]);
    lane.lane = i;
    op.out[i] = gcmp_.text.answer(step.index, lane);
  }
  for (int i = lanes.count; i < lanes.padded; ++i) op.out[i] = op.out[lanes.count - 1];
}

// The element whose number a lane has.
void LaneRunner::look_up(const Step& step, const Operation& op, int lanes)
{
  const std::vector<std::int32_t>& operands = code_.elements[static_cast<std::size_t>(step.index)];
  const double* const number = reg(operands[0]);
  const auto count = static_cast<double>(operands.size() - 2);
  for (int i = 0; i < lanes; ++i) {
    std::size_t from = 1;
    if (number[i] >= 0.0 && number[i] < count) {
      const auto k = static_cast<std::size_t>(number[i]);
      if (static_cast<double>(k) == number[i]) from = 2 + k;
    }
    op.out[i] = reg(operands[from])[i];
  }
}

int LaneRunner::walk(const Lanes& lanes, const Sources& sources, const CharacterColumns& texts, const Outputs& outputs,
                     Results& results)
{
  const int n = lanes.padded;
  const std::size_t steps = operations_.size();
  int passes = 0;
  const bool same_points = holds_points_of(lanes, sources);
  if (!same_points) held_count_ = 0;
  for (std::size_t k = 0; k < steps; ++k) {
    const Operation& op = operations_[k];
    if (op.fn != nullptr) {
      op.fn(op.out, op.in, n);
      continue;
    }
    const Step& s = code_.steps[k];
    switch (s.kind) {
    case Step::Kind::load: {
      const Input& input = code_.inputs[static_cast<std::size_t>(s.index)];
      if (!(same_points && input.held_with_points())) fetch(input, op.out, lanes, sources);
      break;
    }
    case Step::Kind::element:
      look_up(s, op, n);
      break;
    case Step::Kind::text:
      answer(s, op, lanes, sources, texts);
      break;
    case Step::Kind::keep:
      results.keep(s.index, op.in[0], lanes);
      break;
    case Step::Kind::output:
      std::memcpy(outputs.at + s.index * outputs.stride, op.in[0],
                  static_cast<std::size_t>(lanes.count) * sizeof(double));
      if (code_.canonical) make_canonical(outputs.at + s.index * outputs.stride, lanes.count);
      break;
    case Step::Kind::loop_begin:
      if (!any_true(op.in[0], n)) k = static_cast<std::size_t>(s.index) - 1;
      break;
    case Step::Kind::loop_end:
      if (++passes > most_passes) return 1;
      k = static_cast<std::size_t>(s.index) - 1;
      break;
    case Step::Kind::kernel:
      break;
    }
  }
  if (!same_points) hold_points_of(lanes, sources);
  return 0;
}

} // namespace torvale::engine
