// The points of nests whose levels have any number of effects (nest_quadrature.cpp has the formulas): they are placed,
// and the levels above the leaves are closed, node by node.

#include "integration/nests/nest_points.h"
#include "integration/subjects/evaluation_parts.h"
#include "matrix/cholesky.h"
#include "matrix/packed.h"
#include "modes/joint_density.h"
#include "modes/nest_elimination.h"

#include <algorithm>
#include <cmath>

namespace torvale::integration {

using model::NestLevel;
using model::NestWork;
using model::NX;
using model::RunOptions;
using model::TVLThreadCtx;
using modes::packed;

namespace {

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

// Calls f(node) for the nodes of a nest on one level.
template <class F> void for_nodes(const NestWork& w, std::size_t level, int nest, F&& f)
{
  const auto& first = w.level[level].nodes->first;
  for (int v = first[static_cast<std::size_t>(nest)]; v < first[static_cast<std::size_t>(nest) + 1]; ++v) f(v);
}

template <class F> void for_good(const NestWork& w, F&& f)
{
  for (int nest = 0; nest < w.nests; ++nest)
    if (w.failure[static_cast<std::size_t>(nest)] == 0) f(nest);
}

} // namespace

void place_block_points(const NX& n, TVLThreadCtx& ctx)
{
  NestWork& w = ctx.nests;
  for_good(w, [&](int nest) {
    for (std::size_t level = w.level.size(); level-- > 0;)
      for_nodes(w, level, nest, [&](int v) {
        NestLevel& l = w.level[level];
        if (!n.adaptive) std::fill_n(l.z.begin() + static_cast<long>(v) * l.own, l.own, 0.0);
        set_spread(n, l, v);
        if (level > 0) place_points(n, w, level, v);
      });
  });
}

void close_block_levels(TVLThreadCtx& ctx)
{
  NestWork& w = ctx.nests;
  for_good(w, [&](int nest) {
    for (std::size_t level = 1; level < w.level.size(); ++level)
      for_nodes(w, level, nest, [&](int v) { close_node(w, level, v); });
  });
}

} // namespace torvale::integration
