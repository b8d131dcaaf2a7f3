// The likelihood without random effects: observations in fixed blocks, one slot each, so that the sum has one order
// whatever the number of workers.

#include "host/messages/names/statements.h"
#include "integration/subjects/evaluation_parts.h"

#include "evaluation/lane_loops.h"
#include "evaluation/record_sums.h"

#include <algorithm>
#include <cmath>

namespace torvale::integration {

using model::BadCause;
using model::GroupState;
using model::NX;
using model::TVLThreadCtx;

namespace {

constexpr int unusable = message::likelihood_not_usable::message_number;

// Eight interleaved sums by place in the block, closed in a fixed order.
struct InterleavedSum {
  double part[8] = {};
  // The values from place `first` on: a multiple of 8, or one value.
  void add(long first, const double* values, const double* weights, int count)
  {
    if (count == 1)
      part[first % 8] += weights[0] * values[0];
    else
      evaluation::add_interleaved_products(part, weights, values, count);
  }
  double close() const
  {
    return ((part[0] + part[4]) + (part[2] + part[6])) + ((part[1] + part[5]) + (part[3] + part[7]));
  }
};

// The lanes of one tile: their rows, ascending, and what each counts for.
struct Lanes {
  const std::int32_t* rows = nullptr;
  int count = 0;
  double weight[engine::max_lanes];
  bool follow_each_other() const { return rows[count - 1] - rows[0] == count - 1; }
  engine::Tile tile(const std::int32_t* state) const
  {
    engine::Tile t;
    t.lanes = count;
    t.first = rows[0];
    t.observation = follow_each_other() ? nullptr : rows;
    t.state = state;
    return t;
  }
  void weigh(const NX& n)
  {
    const auto& store = *n.store;
    if (store.replicate.empty() && follow_each_other()) {
      static_assert(static_cast<int>(BadCause::none) == 0);
      unsigned causes = 0; // of all of them, without a branch for each
      for (int j = 0; j < count; ++j)
        causes |= static_cast<unsigned>(store.badobs[static_cast<std::size_t>(rows[0] + j)]);
      if (causes == 0) {
        std::fill_n(weight, count, 1.0);
        return;
      }
    }
    for (int j = 0; j < count; ++j) {
      const auto row = static_cast<std::size_t>(rows[j]);
      weight[j] = store.badobs[row] != BadCause::none ? 0.0 : store.replicate.empty() ? 1.0 : store.replicate[row];
    }
  }
};

} // namespace

long observation_blocks(const GroupState& n)
{
  return (static_cast<long>(n.record_rows.size()) + block_records - 1) / block_records;
}

int sum_observations(NX& n, TVLThreadCtx& ctx, long block)
{
  const bool gradient = n.dograd;
  const engine::Program& program = gradient ? *n.programs.gradient.code : *n.programs.value.code;
  const bool keeps = engine::sequential(program);
  const int step = keeps ? 1 : engine::max_lanes;
  const long first = block * block_records;
  const long last = std::min<long>(first + block_records, static_cast<long>(n.record_rows.size()));
  const double no_effects = 0.0;
  const auto slot = static_cast<std::size_t>(block);
  double* const grad = n.slot_grad.data() + block * n.grad_stride;
  n.slot_status[slot] = 0;
  n.slot_value[slot] = 0.0;
  if (gradient) std::fill_n(grad, n.nparm, 0.0);

  const std::int64_t first_row = n.record_rows[static_cast<std::size_t>(first)];
  ctx.frame->set_range(first_row, n.record_rows[static_cast<std::size_t>(last - 1)] - first_row + 1);
  ctx.frame->set_points(&no_effects, 1, 1);
  if (keeps && block == 0) ctx.frame->reset_state(program, 1);
  InterleavedSum value;
  Lanes lanes;
  for (long at = first; at < last; at += lanes.count) {
    lanes.rows = n.record_rows.data() + at;
    lanes.count = static_cast<int>(std::min<long>(step, last - at));
    lanes.weigh(n);
    const std::int32_t* const zeros = ctx.tile.point.data();
    const int rc = evaluation::tvlexec(ctx, program, lanes.tile(keeps ? zeros : nullptr));
    if (rc > 2) return rc;
    const double* const ll = ctx.frame->output(0);
    const bool usable = evaluation::all_finite_above(model::impossible_loglik, ll, lanes.count);
    for (int j = 0; !usable && j < lanes.count; ++j) {
      const auto row = static_cast<std::size_t>(lanes.rows[j]);
      if ((ll[j] > model::impossible_loglik && std::isfinite(ll[j])) || n.store->badobs[row] != BadCause::none)
        continue;
      n.slot_status[slot] = unusable;
      n.slot_row[slot] = lanes.rows[j];
      return 0;
    }
    if (keeps && lanes.weight[0] == 0.0 && n.store->badobs[static_cast<std::size_t>(lanes.rows[0])] != BadCause::none)
      continue;
    value.add(at - first, ll, lanes.weight, lanes.count);
    if (!gradient) continue;
    for (std::size_t k = 1; k < n.programs.gradient.outputs.size(); ++k) {
      InterleavedSum sum;
      sum.add(at - first, ctx.frame->output(static_cast<int>(k)), lanes.weight, lanes.count);
      grad[n.programs.gradient.outputs[k] - n.programs.by_parameter(0)] -= sum.close();
    }
  }
  n.slot_value[slot] = -value.close();
  return 0;
}

int add_record_products(const NX& n, TVLThreadCtx& ctx, double* sum)
{
  const engine::Program& program = *n.programs.gradient.code;
  const bool keeps = engine::sequential(program);
  const long last = static_cast<long>(n.record_rows.size());
  const double no_effects = 0.0;
  ctx.frame->set_range(0, static_cast<std::int64_t>(n.store->badobs.size()));
  ctx.frame->set_points(&no_effects, 1, 1);
  if (keeps) ctx.frame->reset_state(program, 1);
  const std::size_t outputs = n.programs.gradient.outputs.size();
  std::vector<double> gradient(static_cast<std::size_t>(n.nparm), 0.0); // what no output is stays 0
  std::vector<const double*> by(outputs);
  Lanes lanes;
  for (long at = 0; at < last; at += lanes.count) {
    lanes.rows = n.record_rows.data() + at;
    lanes.count = static_cast<int>(std::min<long>(keeps ? 1 : engine::max_lanes, last - at));
    lanes.weigh(n);
    const std::int32_t* const zeros = ctx.tile.point.data();
    if (evaluation::tvlexec(ctx, program, lanes.tile(keeps ? zeros : nullptr)) > 2) return 1;
    for (std::size_t k = 1; k < outputs; ++k) by[k] = ctx.frame->output(static_cast<int>(k));
    for (int j = 0; j < lanes.count; ++j) {
      if (lanes.weight[j] == 0.0) continue;
      for (std::size_t k = 1; k < outputs; ++k) {
        const double g = by[k][j];
        if (!std::isfinite(g)) return 1;
        gradient[static_cast<std::size_t>(n.programs.gradient.outputs[k] - n.programs.by_parameter(0))] = g;
      }
      add_outer_product(gradient.data(), n.nparm, lanes.weight[j], sum);
    }
  }
  return 0;
}

} // namespace torvale::integration
