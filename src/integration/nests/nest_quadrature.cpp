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
#include "modes/nest_search.h"
#include "modes/nest_steps.h"
#include "modes/packed.h"

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

class NestQuadrature final : public ClosesEach<NestQuadrature> {
public:
  void size_batch(const NX& n, TVLThreadCtx& ctx) const override;
  int evaluate(const NX& n, TVLThreadCtx& ctx, bool gradient) const override;
  int close_value(const NX& n, const TVLThreadCtx& ctx, int nest, double& value) const;
  void close_gradient(const NX& n, const TVLThreadCtx& ctx, int nest, double* gradient) const
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
    place_block_points(n, ctx);
  if (const int rc = sum_leaf_points(n, ctx, gradient); rc > 2) return rc;
  for_good([&](int nest) { add_leaves(ctx.batch, w, nest); });
  if (singles)
    close_single_levels(n, ctx);
  else
    close_block_levels(ctx);
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
