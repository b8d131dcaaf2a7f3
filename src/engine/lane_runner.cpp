#include "engine/lane_runner.h"

#include <algorithm>
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
  for (; i < lanes.padded; ++i) out[i] = from[index[i]];
  for (i = lanes.count; i < lanes.padded; ++i) out[i] = out[lanes.count - 1];
}

// repeat: the indices come in groups of this many equal ones.
void fetch(double* out, const double* from, const std::int32_t* index, Lanes::Run run, const Lanes& lanes,
           int repeat = 1)
{
  if (run == Lanes::Run::same) {
    std::fill_n(out, lanes.padded, from[index[0]]);
  } else if (run == Lanes::Run::ascending) {
    std::memcpy(out, from + index[0], static_cast<std::size_t>(lanes.count) * sizeof(double));
    for (int i = lanes.count; i < lanes.padded; ++i) out[i] = out[lanes.count - 1];
  } else if (repeat > 2) {
    spread(out, from, index, repeat, lanes);
  } else {
    for (int i = 0; i < lanes.padded; ++i) out[i] = from[index[i]];
  }
}

} // namespace

void LaneArray::reserve(std::size_t n)
{
  if (n <= size_) return;
  constexpr std::size_t alignment = 64;
  memory_ = std::make_unique<double[]>(n + alignment / sizeof(double));
  void* start = memory_.get();
  std::size_t space = (n + alignment / sizeof(double)) * sizeof(double);
  data_ = static_cast<double*>(std::align(alignment, n * sizeof(double), start, space));
  size_ = n;
}

void Lanes::finish()
{
  padded = (count + lane_padding - 1) / lane_padding * lane_padding;
  if (padded != count) {
    const std::int32_t** const all[] = {&row, &point, &slot};
    for (int k = 0; k < 3; ++k) {
      const std::int32_t* const from = *all[k];
      if (from != own[k]) std::copy_n(from, count, own[k]);
      std::fill(own[k] + count, own[k] + padded, own[k][count - 1]);
      *all[k] = own[k];
    }
  }
  rows = run_of(row, count);
  points = run_of(point, count);
}

void LaneRunner::prepare()
{
  table_ = &kernels();
  chain_ = chain_kernel(table_->isa);
  held_count_ = 0;
  constexpr int cached_doubles = 5120; // 40 of the 48 kilobytes that first-level caches have today
  constexpr int narrowest = 32;
  const int registers = std::max(code_.registers, 1);
  strip_ = std::clamp(cached_doubles / registers / narrowest * narrowest, narrowest, strip_lanes);
  registers_.reserve(static_cast<std::size_t>(registers * strip_));
  links_.assign(code_.links.size(), {});
  operations_.assign(code_.steps.size(), {});
  for (std::size_t k = 0; k < code_.steps.size(); ++k) {
    const Step& s = code_.steps[k];
    Operation& op = operations_[k];
    if (s.kind == Step::Kind::kernel) op.fn = (*table_)[s.kernel];
    if (s.out >= 0) op.out = reg(s.out);
    for (int j = 0; j < s.operands; ++j) op.in[j] = reg(s.in[static_cast<std::size_t>(j)]);
    if (s.kind != Step::Kind::chain) continue;
    for (int l = s.index; l < s.index + s.links; ++l) {
      const Link& link = code_.links[static_cast<std::size_t>(l)];
      links_[static_cast<std::size_t>(l)] = {link.op, link.x >= 0 ? reg(link.x) : op.in[0],
                                             link.y >= 0 ? reg(link.y) : op.in[0]};
    }
    op.links = links_.data() + s.index;
    op.count = s.links;
    op.output = s.output;
  }
}

void LaneRunner::fill_fixed(const double* parameter_results)
{
  if (!prepared()) prepare();
  for (const Fixed& f : code_.fixed) std::fill_n(reg(f.reg), strip_, f.constant ? f.value : parameter_results[f.index]);
}

bool LaneRunner::holds_points_of(const Lanes& lanes, const Sources& sources) const
{
  return lanes.padded <= held_count_ && held_version_ == sources.points_version &&
         std::memcmp(held_, lanes.point, static_cast<std::size_t>(lanes.padded) * sizeof(std::int32_t)) == 0;
}

void LaneRunner::load(const Input& input, double* out, const Lanes& lanes, const Sources& sources) const
{
  using From = Input::From;
  switch (input.from) {
  case From::parameter_value:
    std::fill_n(out, lanes.padded, sources.theta[input.index]);
    return;
  case From::random_effect:
    return fetch(out, sources.ran + input.index * sources.stride, lanes.point, lanes.points, lanes);
  case From::column:
    return fetch(out, sources.columns[input.index], lanes.row, lanes.rows, lanes, lanes.repeat);
  case From::observation:
    return fetch(out, sources.observation + input.index * sources.observation_stride - sources.first, lanes.row,
                 lanes.rows, lanes, lanes.repeat);
  case From::point:
    return fetch(out, sources.point + input.index * sources.point_stride, lanes.point, lanes.points, lanes);
  case From::state:
    return fetch(out, sources.state + input.index * sources.state_stride, lanes.slot, Lanes::Run::mixed, lanes);
  case From::row_number:
    for (int i = 0; i < lanes.padded; ++i) out[i] = lanes.row[i];
    return;
  case From::missing:
    std::fill_n(out, lanes.padded, std::numeric_limits<double>::quiet_NaN());
    return;
  }
}

void LaneRunner::answer(const Step& step, const Operation& op, const Lanes& lanes, const CharacterColumns& texts) const
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
  for (int i = 0; i < lanes.padded; ++i) {
    lane.row = lanes.row[i];
    lane.lane = i;
    op.out[i] = i < lanes.count ? gcmp_.text.answer(step.index, lane) : op.out[lanes.count - 1];
  }
}

int LaneRunner::run(const Lanes& lanes, const Sources& sources, const CharacterColumns& texts, Results& results)
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
    if (op.links != nullptr) {
      double* const out = op.output < 0 ? op.out : sources.output + op.output * sources.output_stride;
      chain_(out, op.in[0], op.links, op.count, n);
      continue;
    }
    const Step& s = code_.steps[k];
    switch (s.kind) {
    case Step::Kind::load: {
      const Input& input = code_.inputs[static_cast<std::size_t>(s.index)];
      if (!(same_points && input.by_point())) load(input, op.out, lanes, sources);
      break;
    }
    case Step::Kind::text:
      answer(s, op, lanes, texts);
      break;
    case Step::Kind::keep:
      results.keep(s.index, op.in[0], lanes);
      break;
    case Step::Kind::loop_begin:
      if (!any_true(op.in[0], n)) k = static_cast<std::size_t>(s.index) - 1;
      break;
    case Step::Kind::loop_end:
      if (++passes > most_passes) return 1;
      k = static_cast<std::size_t>(s.index) - 1;
      break;
    case Step::Kind::kernel:
    case Step::Kind::chain:
      break;
    }
  }
  if (!same_points) {
    std::copy_n(lanes.point, n, held_);
    held_count_ = n;
    held_version_ = sources.points_version;
  }
  return 0;
}

} // namespace torvale::engine
