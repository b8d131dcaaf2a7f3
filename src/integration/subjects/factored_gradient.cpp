// Gradients whose derivatives by parameters are sums of products, coefficient times factor. Over the points only the
// coefficients are added up, so their cost does not grow with the number of parameters. With subject_gradient.cpp's
// names the derivatives of a record come in as
//     sum e ll_theta + lu'll_u,theta + <Zu, ll_uu,theta>:
// per subject three kinds of weights, and per record one number (a multiplier) for all factors with the same
// coefficients.

#include "integration/subjects/evaluation_parts.h"

#include "evaluation/lane_loops.h"

#include <algorithm>

namespace torvale::integration {

using model::BatchWork;
using model::FactoredPrograms;
using model::ModelLists;
using model::NX;
using model::TVLThreadCtx;

namespace {

constexpr long most_lanes = 1L << 20; // of one subject: beyond, the lanes of a coefficient would take too much room
constexpr int most_points = 256;      // a subject's points are one chunk

int sources(const NX& n)
{
  return 1 + n.leaf().nr + n.leaf().nrs;
}

int slots_with(const BatchWork& b, int level)
{
  return b.level[level + 1] - b.level[level];
}

void clear_rows(std::vector<double>& v)
{
  std::fill(v.begin(), v.end(), 0.0);
}

// Per record and multiplier: its coefficients, weighed by their subject.
void form_multipliers(const ModelLists& n, BatchWork& b)
{
  auto& f = b.factored;
  const auto& multipliers = n.programs.factored.multipliers;
  clear_rows(f.multipliers);
  for (std::size_t m = 0; m < multipliers.size(); ++m)
    for (const FactoredPrograms::Part& part : multipliers[m]) {
      const double* const weight = f.weights.data() + part.source * f.slot_stride;
      const double* const coefficient = f.coefficients.data() + part.coefficient * f.record_stride;
      double* const to = f.multipliers.data() + static_cast<long>(m) * f.record_stride;
      for (int level = 0; level < b.levels; ++level) {
        const long at = b.level[level];
        evaluation::add_products(to + at, weight, coefficient + at, slots_with(b, level));
      }
    }
}

// Multipliers times factors, added up per slot in the order of its records.
int add_products_of_records(const ModelLists& n, TVLThreadCtx& ctx)
{
  BatchWork& b = ctx.batch;
  auto& f = b.factored;
  const FactoredPrograms& programs = n.programs.factored;
  clear_rows(f.products);
  const long records = b.level[b.levels];
  int level = 0;
  engine::Tile tile;
  for (long first = 0; first < records; first += tile.lanes) {
    tile.lanes = static_cast<int>(std::min<long>(engine::max_lanes, records - first));
    tile.first = static_cast<std::int32_t>(first);
    if (const int rc = evaluation::tvlexec(ctx, *programs.factors, tile); rc > 2) return rc;
    while (b.level[level + 1] <= first) ++level;
    for (const FactoredPrograms::Product& p : programs.products) {
      double* const sum = f.products.data() + p.parameter * f.slot_stride;
      const double* const multiplier = f.multipliers.data() + p.multiplier * f.record_stride;
      const double* const factor = p.factor < 0 ? nullptr : ctx.frame->output(p.factor);
      for (int l = level; l < b.levels && b.level[l] < first + tile.lanes; ++l) {
        const long from = std::max<long>(b.level[l], first), to = std::min<long>(b.level[l + 1], first + tile.lanes);
        double* const slot = sum + (from - b.level[l]);
        const int count = static_cast<int>(to - from);
        if (factor == nullptr)
          evaluation::add_lanes(slot, multiplier + from, count);
        else
          evaluation::add_present_products(slot, multiplier + from, factor + (from - first), count);
      }
    }
  }
  return 0;
}

} // namespace

void size_factored(const NX& n, TVLThreadCtx& ctx)
{
  auto& f = ctx.batch.factored;
  const FactoredPrograms& programs = n.programs.factored;
  long levels = 1, records = 1, lanes = 1; // lanes: of the subjects of a batch, at one point each
  for (const auto& batch : n.batches) {
    levels = std::max<long>(levels, batch.levels);
    records = std::max<long>(records, batch.records);
    lanes = std::max<long>(lanes, static_cast<long>(batch.last - batch.first) * batch.levels);
  }
  const long points = n.leaf().nqpr;
  f.in_use = static_cast<bool>(programs) && points <= most_points && points * levels <= most_lanes;
  if (!f.in_use) return;
  const long coefficients = programs.point_coefficients + programs.mode_coefficients;
  f.lane_stride = std::max({std::min(block_lanes, points * lanes), points * levels, records}) + 8;
  f.record_stride = records + 8;
  f.slot_stride = static_cast<long>(ctx.batch.subject.size()) + 8;
  size(f.lanes, std::max(programs.point_coefficients, programs.mode_coefficients) * f.lane_stride);
  f.level.assign(static_cast<std::size_t>(levels) + 1, 0);
  size(f.coefficients, coefficients * f.record_stride);
  size(f.multipliers, static_cast<long>(programs.multipliers.size()) * f.record_stride);
  size(f.weights, sources(n) * f.slot_stride);
  size(f.products, n.nparm * f.slot_stride);
}

evaluation::LaneValues kept_lanes(BatchWork& b, int coefficients)
{
  auto& f = b.factored;
  return {coefficients, f.lanes.data(), f.lane_stride, f.level.data()};
}

void take_mode_coefficients(const ModelLists& n, BatchWork& b)
{
  auto& f = b.factored;
  const FactoredPrograms& programs = n.programs.factored;
  for (int k = 0; k < programs.mode_coefficients; ++k)
    for (int level = 0; level < b.levels; ++level) {
      const auto l = static_cast<std::size_t>(level);
      const long live = f.level[l + 1] - f.level[l];
      const double* const from = f.lanes.data() + k * f.lane_stride + f.level[l];
      double* const to = f.coefficients.data() + (programs.point_coefficients + k) * f.record_stride + b.level[level];
      for (long i = 0; i < live; ++i) to[b.active[static_cast<std::size_t>(i)]] = from[i];
    }
}

int factored_gradients(const NX& n, TVLThreadCtx& ctx)
{
  BatchWork& b = ctx.batch;
  clear_rows(b.factored.weights); // those of slots that have failed are 0
  subject_gradients(n, b);
  form_multipliers(n, b);
  return add_products_of_records(n, ctx);
}

void close_factored(const ModelLists& n, const TVLThreadCtx& ctx, int slot, double* gradient)
{
  const auto& f = ctx.batch.factored;
  const double* const own = ctx.batch.gradients.data() + static_cast<long>(slot) * n.nparm;
  for (int j = 0; j < n.nparm; ++j)
    gradient[j] = own[j] - f.products[static_cast<std::size_t>(j * f.slot_stride + slot)];
}

} // namespace torvale::integration
