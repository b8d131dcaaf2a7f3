#include "engine/lane_runner.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace torvale::engine {

namespace {

constexpr int most_passes = 100000; // of a loop: a program that makes more is taken to hang

// How indices run along a strip decides how values are fetched: one value for all, a copy, or one by one.
Lanes::Run run_of(const std::int32_t* index, int n)
{
  bool same = true, ascending = true;
  for (int i = 1; i < n; ++i) {
    same = same && index[i] == index[0];
    ascending = ascending && index[i] == index[0] + i;
  }
  return same ? Lanes::Run::same : ascending ? Lanes::Run::ascending : Lanes::Run::mixed;
}

void fetch(double* out, const double* from, const std::int32_t* index, Lanes::Run run, const Lanes& lanes)
{
  if (run == Lanes::Run::same) {
    std::fill_n(out, lanes.padded, from[index[0]]);
  } else if (run == Lanes::Run::ascending) {
    std::memcpy(out, from + index[0], static_cast<std::size_t>(lanes.count) * sizeof(double));
    for (int i = lanes.count; i < lanes.padded; ++i) out[i] = out[lanes.count - 1];
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
  for (int i = count; i < padded; ++i) {
    row[i] = row[count - 1];
    point[i] = point[count - 1];
    slot[i] = slot[count - 1];
  }
  rows = run_of(row, count);
  points = run_of(point, count);
}

void LaneRunner::prepare()
{
  table_ = &kernels();
  registers_.reserve(static_cast<std::size_t>(std::max(code_.registers, 1)) * strip_lanes);
  operations_.assign(code_.steps.size(), {});
  for (std::size_t k = 0; k < code_.steps.size(); ++k) {
    const Step& s = code_.steps[k];
    Operation& op = operations_[k];
    if (s.kind == Step::Kind::kernel) op.fn = (*table_)[s.kernel];
    if (s.out >= 0) op.out = reg(s.out);
    for (int j = 0; j < s.operands; ++j) op.in[j] = reg(s.in[static_cast<std::size_t>(j)]);
  }
}

void LaneRunner::fill_fixed(const double* parameter_results)
{
  if (!prepared()) prepare();
  for (const Fixed& f : code_.fixed) std::fill_n(reg(f.reg), strip_lanes, f.constant ? f.value : parameter_results[f.index]);
}

void LaneRunner::load(const Input& input, double* out, const Lanes& lanes, const Sources& sources) const
{
  using From = Input::From;
  switch (input.from) {
  case From::parameter_value: std::fill_n(out, lanes.padded, sources.theta[input.index]); return;
  case From::random_effect: return fetch(out, sources.ran + input.index * sources.stride, lanes.point, lanes.points, lanes);
  case From::column: return fetch(out, sources.columns[input.index], lanes.row, lanes.rows, lanes);
  case From::observation:
    return fetch(out, sources.observation + input.index * sources.observation_stride - sources.first, lanes.row, lanes.rows, lanes);
  case From::point: return fetch(out, sources.point + input.index * sources.point_stride, lanes.point, lanes.points, lanes);
  case From::state: return fetch(out, sources.state + input.index * sources.state_stride, lanes.slot, Lanes::Run::mixed, lanes);
  case From::row_number:
    for (int i = 0; i < lanes.padded; ++i) out[i] = lanes.row[i];
    return;
  case From::missing: std::fill_n(out, lanes.padded, std::numeric_limits<double>::quiet_NaN()); return;
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
  for (std::size_t k = 0; k < steps; ++k) {
    const Operation& op = operations_[k];
    if (op.fn != nullptr) {
      op.fn(op.out, op.in, n);
      continue;
    }
    const Step& s = code_.steps[k];
    switch (s.kind) {
    case Step::Kind::load: load(code_.inputs[static_cast<std::size_t>(s.index)], op.out, lanes, sources); break;
    case Step::Kind::text: answer(s, op, lanes, texts); break;
    case Step::Kind::keep: results.keep(s.index, op.in[0], lanes); break;
    case Step::Kind::loop_begin:
      if (!any_true(op.in[0], n)) k = static_cast<std::size_t>(s.index) - 1;
      break;
    case Step::Kind::loop_end:
      if (++passes > most_passes) return 1;
      k = static_cast<std::size_t>(s.index) - 1;
      break;
    case Step::Kind::kernel: break;
    }
  }
  return 0;
}

} // namespace torvale::engine
