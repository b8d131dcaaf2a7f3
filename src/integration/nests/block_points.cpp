// What the points of nests come to, where levels have any number of effects: direct derivatives, and what they pull at
// the modes, scales and regressions of their nest (nest_gradient.cpp has the formulas).

#include "integration/nests/nest_gradient.h"
#include "integration/nests/nest_points.h"
#include "integration/nests/nest_walk.h"
#include "integration/subjects/evaluation_parts.h"
#include "modes/joint_density.h"
#include "modes/nest_elimination.h"

namespace torvale::integration {

using model::NestLevel;
using model::NX;
using model::TVLThreadCtx;
using modes::packed;

namespace {

class BlockPoints : NestWalk {
public:
  BlockPoints(const NX& n, TVLThreadCtx& ctx) : NestWalk(n, ctx), rows_(n), s_(n.qscale * root_two) {}

  void sum()
  {
    for_good([&] {
      const NestLevel& leaf = w_.level.front();
      for (int v = first(leaf); v < last(leaf); ++v) leaf_sums(v);
      for (std::size_t k = 1; k < w_.level.size(); ++k)
        for (int v = first(w_.level[k]); v < last(w_.level[k]); ++v) node_sums(k, v);
    });
  }

private:
  // A leaf: direct derivatives; r, E, and what its points pull at its own and its ancestors' modes, scale and
  // regression.
  void leaf_sums(int v)
  {
    NestLevel& l = w_.level.front();
    const long slot = l.nodes->slot[static_cast<std::size_t>(v)];
    const double* const above = w_.level[1].weight.data() + static_cast<long>(parent(l, v)) * l.outer;
    for (long p = 0; p < l.outer; ++p) {
      const double total = w_.total[static_cast<std::size_t>(p * b_.mode_stride + slot)];
      if (!(above[p] > 0.0) || !(total > 0.0)) continue;
      const double weight = above[p] / total;
      const double* const sums = w_.moments.data() + p * b_.mode_stride + slot;
      int row = rows_.direct;
      for (const int place : n_.programs.gradient.outputs)
        if (n_.programs.parameter_place(place))
          gradient_[place - n_.programs.by_parameter(0)] -= weight * at(sums, row++);
      leaf_point(v, p, weight, sums);
    }
  }

  double at(const double* sums, int row) const { return sums[row * w_.level.front().outer * b_.mode_stride]; }

  // At one joint point p of the ancestors; sums are to be multiplied by `weight`.
  void leaf_point(int v, long p, double weight, const double* sums)
  {
    NestLevel& l = w_.level.front();
    const int own = l.own;
    const double* const factor = modes::factor_of(l, v);
    const double* const spread = l.spread.data() + static_cast<long>(v) * l.triangle();
    const double* const b = l.tilt.data() + static_cast<long>(v) * (own * l.above);
    double deviation[modes::most_effects];
    for_ancestors(0, v, [&](NestLevel& a, int node) {
      const long joint = a.joint(), from = static_cast<long>(node) * a.own * joint + p % joint;
      for (int i = 0; i < a.own; ++i) {
        deviation[a.place + i] = a.deviation[static_cast<std::size_t>(from + i * joint)];
        a.slopes[static_cast<std::size_t>(from + i * joint)] += weight * at(sums, rows_.slope + a.place + i);
      }
    });
    double centre[modes::most_effects], r[modes::most_effects], pull[modes::most_effects];
    const double mass =
        weight * w_.total[static_cast<std::size_t>(p * b_.mode_stride + l.nodes->slot[static_cast<std::size_t>(v)])];
    for (int i = 0; i < own; ++i) {
      centre[i] = l.z[static_cast<std::size_t>(v * own + i)];
      for (int a = 0; a < l.above; ++a) centre[i] += b[i * l.above + a] * deviation[a];
      r[i] = weight * at(sums, rows_.slope + l.place + i);
    }
    double* const mean_bar = l.mean_bar.data() + static_cast<long>(v) * own;
    double* const mode_bar = l.mode_bar.data() + static_cast<long>(v) * own;
    double* const factor_bar = l.factor_bar.data() + static_cast<long>(v) * l.triangle();
    double* const spread_bar = l.spread_bar.data() + static_cast<long>(v) * (own * own);
    double* const regression_bar = l.regression_bar.data() + static_cast<long>(v) * (own * l.above);
    for (int i = 0; i < own; ++i) {
      mean_bar[i] += r[i];
      for (int j = 0; j <= i; ++j) {
        double t = r[i] * centre[j]; // (sum e ll_u z')(i, j)
        for (int k = 0; k <= j; ++k)
          t += s_ * weight * at(sums, rows_.slope_by_point + i * own + k) * spread[packed(j, k)];
        factor_bar[packed(i, j)] += t;
      }
      double z = mass * centre[i], lr = 0.0;
      for (int k = 0; k <= i; ++k) z += s_ * weight * spread[packed(i, k)] * at(sums, rows_.point + k);
      for (int k = i; k < own; ++k) lr += factor[packed(k, i)] * r[k];
      pull[i] = lr - z;
      mode_bar[i] += pull[i];
    }
    if (!n_.adscale) return;
    for (int i = 0; i < own; ++i) {
      for (int j = 0; j < own; ++j) { // s sum e (L'll_u - z) x'
        double t = -weight * centre[i] * at(sums, rows_.point + j);
        for (int k = i; k < own; ++k) t += factor[packed(k, i)] * weight * at(sums, rows_.slope_by_point + k * own + j);
        for (int k = 0; k <= i; ++k) t -= s_ * weight * spread[packed(i, k)] * at(sums, rows_.square + packed(k, j));
        spread_bar[i * own + j] += s_ * t;
      }
      for (int a = 0; a < l.above; ++a) regression_bar[i * l.above + a] += pull[i] * deviation[a];
    }
    pull_ancestors(0, v, p, pull, b);
  }

  // The pull at a node's deviation reaches its ancestors' through the regression.
  void pull_ancestors(std::size_t level, int v, long p, const double* pull, const double* b)
  {
    const NestLevel& l = w_.level[level];
    for_ancestors(level, v, [&](NestLevel& a, int node) {
      const long joint = a.joint(), to = static_cast<long>(node) * a.own * joint + p % joint;
      for (int j = 0; j < a.own; ++j) {
        double t = 0.0;
        for (int i = 0; i < l.own; ++i) t += b[i * l.above + a.place + j] * pull[i];
        a.pulls[static_cast<std::size_t>(to + j * joint)] += t;
      }
    });
  }

  // The same for a node above the leaves, whose points are at hand.
  void node_sums(std::size_t level, int v)
  {
    NestLevel& l = w_.level[level];
    const model::REFFECT& reff = n_.reff[level];
    const int own = l.own;
    const long joint = l.joint();
    const double* const factor = modes::factor_of(l, v);
    const double* const b = l.tilt.data() + static_cast<long>(v) * (own * l.above);
    const double* const weight = l.weight.data() + static_cast<long>(v) * joint;
    const double* const deviation = l.deviation.data() + static_cast<long>(v) * own * joint;
    const double* const slopes = l.slopes.data() + static_cast<long>(v) * own * joint;
    const double* const pulls = l.pulls.data() + static_cast<long>(v) * own * joint;
    double* const mean_bar = l.mean_bar.data() + static_cast<long>(v) * own;
    double* const mode_bar = l.mode_bar.data() + static_cast<long>(v) * own;
    double* const factor_bar = l.factor_bar.data() + static_cast<long>(v) * l.triangle();
    double* const spread_bar = l.spread_bar.data() + static_cast<long>(v) * (own * own);
    double* const regression_bar = l.regression_bar.data() + static_cast<long>(v) * (own * l.above);
    for (long p = 0; p < l.outer; ++p) {
      double given[modes::most_effects] = {}; // pull at the deviation, summed over the own points
      for (long q = 0; q < l.points; ++q) {
        const long k = q * l.outer + p;
        if (!(weight[k] > 0.0)) continue;
        for (int i = 0; i < own; ++i) {
          const double ri = slopes[i * joint + k];
          mean_bar[i] += ri;
          double lr = 0.0;
          for (int m = i; m < own; ++m) lr += factor[packed(m, i)] * slopes[m * joint + k];
          for (int j = 0; j <= i; ++j)
            factor_bar[packed(i, j)] += ri * (l.z[static_cast<std::size_t>(v * own + j)] + deviation[j * joint + k]);
          const double plain = lr - weight[k] * (l.z[static_cast<std::size_t>(v * own + i)] + deviation[i * joint + k]);
          mode_bar[i] += plain;
          const double pull = plain + pulls[i * joint + k];
          given[i] += pull;
          for (int j = 0; j < own; ++j)
            spread_bar[i * own + j] += s_ * pull * reff.points[static_cast<std::size_t>(j * reff.nqpr + q)];
        }
      }
      if (!n_.adscale || l.above == 0) continue;
      for_ancestors(level, v, [&](NestLevel& a, int node) {
        const double* const from = a.deviation.data() + static_cast<long>(node) * a.own * a.joint() + p % a.joint();
        for (int i = 0; i < own; ++i)
          for (int j = 0; j < a.own; ++j) regression_bar[i * l.above + a.place + j] += given[i] * from[j * a.joint()];
      });
      pull_ancestors(level, v, p, given, b);
    }
  }

  const LeafMoments rows_;
  const double s_;
};

} // namespace

void sum_block_points(const NX& n, TVLThreadCtx& ctx)
{
  BlockPoints(n, ctx).sum();
}

} // namespace torvale::integration
