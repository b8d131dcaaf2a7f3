// Adaptive quadrature over nests, level by level in the log domain: for each joint point of its ancestors a subject's
// own integral is a sum over its own points, in each of which the integrals of its children stand as factors.
//
// The points of a nest are z = mode + s C x with C the lower Cholesky factor of the inverse joint Hessian, parents
// first. A subject's rows of C hold itself and its ancestors only, so its deviation from its mode is, given theirs,
//     d = B d_above + s C x        (B regression, C spread: what the elimination of the arrow leaves)
// and the grid over the whole nest is summed at the cost of one chain of levels per leaf. Without scaling B = 0, C = I.

#include "integration/subjects/evaluation_parts.h"

#include "evaluation/record_sums.h"
#include "integration/nests/nest_batch.h"
#include "integration/nests/nest_gradient.h"
#include "integration/nests/nest_moves.h"
#include "integration/nests/nest_points.h"
#include "matrix/cholesky.h"
#include "matrix/packed.h"
#include "modes/joint_density.h"
#include "modes/nest_elimination.h"
#include "modes/nest_search.h"
#include "modes/nest_steps.h"

#include <algorithm>
#include <cmath>

namespace torvale::integration {

using model::BatchWork;
using model::ModelLists;
using model::NestLevel;
using model::NestWork;
using model::NX;
using model::RunOptions;
using model::TVLThreadCtx;
using modes::packed;

namespace {

class NestQuadrature final : public Integrator {
public:
  void size_batch(const NX& n, TVLThreadCtx& ctx) const override;
  int evaluate(const NX& n, TVLThreadCtx& ctx, bool gradient) const override;
  int close_value(const NX& n, const TVLThreadCtx& ctx, int nest, double& value) const override;
  void close_gradient(const NX& n, const TVLThreadCtx& ctx, int nest, double* gradient) const override
  {
    std::copy_n(ctx.nests.gradient.begin() + static_cast<long>(nest) * n.nparm, n.nparm, gradient);
  }
  void close_modes(NX& n, const TVLThreadCtx& ctx, std::span<const int> nests) const override
  {
    for (const int nest : nests) {
      keep_modes(n, ctx, nest);
      if (keeps_mode_derivatives(n) && !n.ebtrial_bend.empty()) keep_bends(n, ctx, nest);
    }
  }

private:
  static void keep_modes(NX& n, const TVLThreadCtx& ctx, int nest);
  static void keep_bends(NX& n, const TVLThreadCtx& ctx, int nest);
};

// --- points ---

// Scale of a node's points given those of its ancestors.
void set_spread(const RunOptions& n, NestLevel& l, int v)
{
  double* const c = l.spread.data() + static_cast<long>(v) * l.triangle();
  double* const tilt = l.tilt.data() + static_cast<long>(v) * (l.own * l.above);
  if (!n.adscale) {
    std::fill_n(c, l.triangle(), 0.0);
    for (int i = 0; i < l.own; ++i) c[matrix::packed_diagonal(i)] = 1.0;
    std::fill_n(tilt, l.own * l.above, 0.0);
    return;
  }
  std::copy_n(l.regression.begin() + static_cast<long>(v) * (l.own * l.above), l.own * l.above, tilt);
  const double* const from = l.inverse.data() + static_cast<long>(v) * l.triangle();
  std::copy_n(from, l.triangle(), c);
  for (int i = 0; i < l.own; ++i) {
    const double own = std::abs(from[matrix::packed_diagonal(i)]);
    matrix::zchol(i, c, own == 0.0 ? n.singchol : n.singchol * own);
  }
}

// Deviations, effects and log weights of a node above the leaves at all joint points of its chain.
void place_points(const NX& n, NestWork& w, std::size_t level, int v)
{
  NestLevel& l = w.level[level];
  const model::REFFECT& reff = n.reff[level];
  const double scale = n.qscale * root_two;
  const double* const c = l.spread.data() + static_cast<long>(v) * l.triangle();
  const double* const b = l.tilt.data() + static_cast<long>(v) * (l.own * l.above);
  const double* const factor = modes::factor_of(l, v);
  const double* const m = l.mean.data() + static_cast<long>(l.prior_of(v)) * l.own;
  double* const deviation = l.deviation.data() + static_cast<long>(v) * l.own * l.joint();
  double* const effects = l.effects.data() + static_cast<long>(v) * l.own * l.joint();
  double* const weight = l.weight.data() + static_cast<long>(v) * l.joint();
  for (long p = 0; p < l.outer; ++p) {
    double centre[modes::most_effects] = {};
    int node = v;
    for (std::size_t up = level + 1; up < w.level.size(); ++up) {
      node = w.level[up - 1].nodes->parent[static_cast<std::size_t>(node)];
      const NestLevel& a = w.level[up];
      const double* const from = a.deviation.data() + static_cast<long>(node) * a.own * a.joint() + p % a.joint();
      for (int i = 0; i < l.own; ++i)
        for (int j = 0; j < a.own; ++j) centre[i] += b[i * l.above + a.place + j] * from[j * a.joint()];
    }
    for (long q = 0; q < l.points; ++q) {
      const long at = q * l.outer + p;
      weight[at] = reff.logw[static_cast<std::size_t>(q)];
      double z[modes::most_effects];
      for (int i = 0; i < l.own; ++i) {
        double d = centre[i];
        for (int j = 0; j <= i; ++j)
          d += scale * c[packed(i, j)] * reff.points[static_cast<std::size_t>(j * reff.nqpr + q)];
        z[i] = l.z[static_cast<std::size_t>(v * l.own + i)] + d;
        double u = m[i];
        for (int j = 0; j <= i; ++j) u += factor[packed(i, j)] * z[j];
        deviation[i * l.joint() + at] = d;
        effects[i * l.joint() + at] = u;
        weight[at] -= 0.5 * z[i] * z[i];
      }
    }
  }
}

void place_nest(const NX& n, NestWork& w, int nest)
{
  for (std::size_t level = w.level.size(); level-- > 0;) {
    NestLevel& l = w.level[level];
    for (int v = l.nodes->first[static_cast<std::size_t>(nest)]; v < l.nodes->first[static_cast<std::size_t>(nest) + 1];
         ++v) {
      if (!n.adaptive) std::fill_n(l.z.begin() + static_cast<long>(v) * l.own, l.own, 0.0);
      set_spread(n, l, v);
      if (level > 0) place_points(n, w, level, v);
    }
  }
}

// --- closing the levels ---

// The integrals of the leaves into the points of their parents.
void add_leaves(const BatchWork& b, NestWork& w, int nest)
{
  const NestLevel& leaf = w.level[0];
  NestLevel& parents = w.level[1];
  for (int v = leaf.nodes->first[static_cast<std::size_t>(nest)];
       v < leaf.nodes->first[static_cast<std::size_t>(nest) + 1]; ++v) {
    const long slot = leaf.nodes->slot[static_cast<std::size_t>(v)];
    double* const weight = parents.weight.data() + leaf.nodes->parent[static_cast<std::size_t>(v)] * parents.joint();
    for (long p = 0; p < leaf.outer; ++p) {
      const auto at = static_cast<std::size_t>(p * b.mode_stride + slot);
      add_log(weight[p], w.peak[at]);
    }
  }
}

// Closes a node given each joint point of its ancestors: log integral; weights of the own points given p.
void close_node(NestWork& w, std::size_t level, int v)
{
  NestLevel& l = w.level[level];
  double* const weight = l.weight.data() + static_cast<long>(v) * l.joint();
  double* const integral = l.integral.data() + static_cast<long>(v) * l.outer;
  double* const above =
      level + 1 < w.level.size()
          ? w.level[level + 1].weight.data() + l.nodes->parent[static_cast<std::size_t>(v)] * w.level[level + 1].joint()
          : nullptr;
  for (long p = 0; p < l.outer; ++p) {
    double peak = model::failed_point, total = 0.0;
    for (long q = 0; q < l.points; ++q) peak = std::max(peak, weight[q * l.outer + p]);
    for (long q = 0; q < l.points; ++q) {
      double& e = weight[q * l.outer + p];
      e = e > model::failed_point && e - peak >= -708.3964185 ? std::exp(e - peak) : 0.0;
      total += e;
    }
    for (long q = 0; q < l.points && total > 0.0; ++q) weight[q * l.outer + p] /= total;
    integral[p] = total > 0.0 ? std::log(total) + peak : model::failed_point;
    if (above != nullptr) add_log(above[p], integral[p]);
  }
}

void close_nodes(NestWork& w, int nest)
{
  for (std::size_t level = 1; level < w.level.size(); ++level) {
    const auto& first = w.level[level].nodes->first;
    for (int v = first[static_cast<std::size_t>(nest)]; v < first[static_cast<std::size_t>(nest) + 1]; ++v)
      close_node(w, level, v);
  }
}

// With the constants 1/2 log 2 pi - log s of every effect, and half the log determinant of the arrow.
double value_of(const RunOptions& n, const NestWork& w, int nest, double constant)
{
  const auto k = static_cast<std::size_t>(nest);
  const NestLevel& root = w.level.back();
  double value = -root.integral[static_cast<std::size_t>(root.nodes->first[k])];
  if (!(value < -model::failed_point)) return model::failure_objective;
  for (const NestLevel& l : w.level) value += (l.nodes->first[k + 1] - l.nodes->first[k]) * l.own * constant;
  if (n.adscale) value += 0.5 * w.search[k].logdet;
  return value;
}

// --- work arrays ---

void size_level(const ModelLists& n, NestLevel& l, const model::REFFECT& reff, long nodes, bool leaf)
{
  l.own = reff.nr;
  l.above = l.place = reff.first_effect;
  l.varies = reff.setup_varies;
  l.points = reff.nqpr;
  const long own = l.own, triangle = l.triangle(), chain = l.chain(), joint = leaf ? 0 : nodes * l.joint();
  const long priors = l.varies ? nodes : 1;
  size(l.mean, priors * own);
  size(l.factor, priors * triangle);
  size(l.arguments, priors * reff.setup.places);
  size(l.outputs, reff.setup.places);
  size(l.failure, nodes);
  l.prior_loaded = false;
  for (auto* v : {&l.z, &l.zold, &l.step, &l.bent, &l.u, &l.round_start, &l.mode_bar, &l.mean_bar})
    size(*v, nodes * own);
  for (auto* v : {&l.part, &l.square}) size(*v, nodes);
  l.listed.reserve(static_cast<std::size_t>(nodes));
  for (auto* v : {&l.inverse, &l.spread, &l.factor_bar}) size(*v, nodes * triangle);
  for (auto* v : {&l.front, &l.front_bar}) size(*v, nodes * (chain * (chain + 1) / 2));
  size(l.right, nodes * chain);
  for (auto* v : {&l.regression, &l.regression_bar, &l.tilt}) size(*v, nodes * own * l.above);
  size(l.spread_bar, nodes * own * own);
  size(l.logdet, nodes);
  for (auto* v : {&l.deviation, &l.effects}) size(*v, own * joint);
  size(l.weight, joint);
  size(l.integral, leaf ? 0 : nodes * l.outer);
  if (n.programs.gradient)
    for (auto* v : {&l.slopes, &l.pulls}) size(*v, own * joint);
  if (!n.programs.closing && !n.programs.cross) return;
  size(l.slope, nodes * own);
  size(l.lead, nodes * own);
  size(l.move, nodes * own * n.nparm);
}

} // namespace

void NestQuadrature::size_batch(const NX& n, TVLThreadCtx& ctx) const
{
  BatchWork& b = ctx.batch;
  NestWork& w = ctx.nests;
  const long slots = static_cast<long>(b.subject.size()), nests = static_cast<long>(b.nest.size());
  constexpr long spare = 16; // for modes that a batch's evaluation of everything at the modes has just missed
  b.mode_stride = (slots + 7) / 8 * 8 + spare;
  b.pair_stride = evaluation::most_pairs + 8;
  w.level.resize(n.reff.size());
  long outer = 1;
  for (std::size_t k = n.reff.size(); k-- > 0;) {
    std::size_t nodes = 1;
    for (const auto& batch : n.batch_nodes) nodes = std::max(nodes, batch[k].subject.size());
    w.level[k].outer = outer;
    size_level(n, w.level[k], n.reff[k], static_cast<long>(nodes), k == 0);
    outer *= n.reff[k].nqpr;
  }
  size_block(n, ctx.block);
  size(b.ran, n.programs.ne * b.pair_stride);
  size(b.null_scale, n.programs.ne);
  size(b.mode_sums, n.programs.mode.places * b.mode_stride);
  size(b.curvature_sums, n.programs.closing.places * b.mode_stride);
  size(b.parameter_step, n.nparm);
  size(w.failure, nests);
  size(w.search, nests);
  for (auto* v : {&w.active, &w.turn, &w.closed}) size(*v, nests);
  for (auto* v : {&w.length, &w.square, &w.bent}) size(*v, nests);
  for (auto* v : {&w.leaf_of_slot, &w.nest_of_leaf, &w.columns}) size(*v, slots);
  size(w.leaf, b.mode_stride * n.programs.mode.places);
  size(w.gradient, nests * n.nparm);
  size(w.value, nests);
  size_leaf_points(n, ctx);
}

int NestQuadrature::evaluate(const NX& n, TVLThreadCtx& ctx, bool gradient) const
{
  NestWork& w = ctx.nests;
  take_nests(n, ctx);
  if (const int rc = load_nest_priors(n, ctx); rc > 2) return rc;
  if (n.adaptive)
    if (const int rc = modes::nest_search(n, ctx, gradient); rc > 2) return rc;
  const auto for_good = [&](auto&& f) {
    for (int nest = 0; nest < w.nests; ++nest)
      if (w.failure[static_cast<std::size_t>(nest)] == 0) f(nest);
  };
  const bool singles = modes::single_effects(w);
  if (singles)
    place_single_points(n, ctx);
  else
    for_good([&](int nest) { place_nest(n, w, nest); });
  if (const int rc = sum_leaf_points(n, ctx, gradient); rc > 2) return rc;
  for_good([&](int nest) {
    add_leaves(ctx.batch, w, nest);
    if (!singles) close_nodes(w, nest);
  });
  if (singles) close_single_levels(n, ctx);
  const double constant = 0.5 * log2pi - std::log(n.qscale * root_two);
  for_good([&](int nest) {
    const double value = value_of(n, w, nest, constant);
    w.value[static_cast<std::size_t>(nest)] = value;
    if (!(value < model::failure_objective)) w.failure[static_cast<std::size_t>(nest)] = zero_integral(n);
  });
  if (!gradient) return 0;
  nest_gradients(n, ctx);
  if (keeps_mode_derivatives(n)) find_nest_moves(n, ctx, ctx.batch.curvature_sums.data());
  return 0;
}

int NestQuadrature::close_value(const NX&, const TVLThreadCtx& ctx, int nest, double& value) const
{
  value = ctx.nests.value[static_cast<std::size_t>(nest)];
  return ctx.nests.failure[static_cast<std::size_t>(nest)];
}

// The trial modes of all nodes, and how they move.
void NestQuadrature::keep_modes(NX& n, const TVLThreadCtx& ctx, int nest)
{
  const NestWork& w = ctx.nests;
  const bool with_derivatives = keeps_mode_derivatives(n);
  for (std::size_t k = 0; k < w.level.size(); ++k) {
    const NestLevel& l = w.level[k];
    for (int v = l.nodes->first[static_cast<std::size_t>(nest)]; v < l.nodes->first[static_cast<std::size_t>(nest) + 1];
         ++v) {
      const long subject = l.nodes->subject[static_cast<std::size_t>(v)];
      const long to = n.reff[k].mode_first + subject * l.own;
      for (int i = 0; i < l.own; ++i)
        n.ebtrial[static_cast<std::size_t>(to + i)] = l.u[static_cast<std::size_t>(v * l.own + i)];
      float* by = n.ebtrial_by.data() + to * n.nparm;
      for (int i = 0; with_derivatives && i < l.own; ++i)
        for (int j = 0; j < n.nparm; ++j)
          *by++ = static_cast<float>(l.move[static_cast<std::size_t>(move_place(l, v, i, j, n.nparm))]);
    }
  }
  n.ebtrial_known[static_cast<std::size_t>(ctx.batch.nest[static_cast<std::size_t>(nest)])] = 1;
}

// Third derivatives by the effects of their chain at the leaves' modes.
void NestQuadrature::keep_bends(NX& n, const TVLThreadCtx& ctx, int nest)
{
  const BatchWork& b = ctx.batch;
  const model::NestNodes& leaves = *ctx.nests.level.front().nodes;
  const int chain = n.programs.ne;
  for (int v = leaves.first[static_cast<std::size_t>(nest)]; v < leaves.first[static_cast<std::size_t>(nest) + 1];
       ++v) {
    const long subject = leaves.subject[static_cast<std::size_t>(v)];
    const auto slot = static_cast<std::size_t>(leaves.slot[static_cast<std::size_t>(v)]);
    const double* const sums = b.curvature_sums.data() + b.column[slot];
    float* to = n.ebtrial_bend.data() + subject * modes::tetrahedron(chain);
    for (int i = 0; i < chain; ++i)
      for (int j = 0; j <= i; ++j)
        for (int k = 0; k <= j; ++k)
          *to++ = static_cast<float>(sums[n.programs.third_place(n.nparm + k, packed(i, j)) * b.mode_stride]);
  }
}

const Integrator& nest_quadrature()
{
  static const NestQuadrature integrator;
  return integrator;
}

} // namespace torvale::integration
