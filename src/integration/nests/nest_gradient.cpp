// The gradient of a nest's integral: the adjoint of the elimination of the arrow and of the sums over points, node by
// node.
//
// For one block of effects subject_gradient.cpp derives
//     -v. = sum e ll. + lu'll_u. + <Zu, ll_uu.> + (r + tau + ll_uu lu)'m.
//           + <L., E + (tau + ll_uu lu) zm' + 2 ll_uu L Z + ll_u lambda'>
// with r = sum e ll_u, E = sum e ll_u z', tau_k = <ll_uuu_k, Zu>, Zu = L Z L', lambda = H^-1 (vb + L'tau), lu = L
// lambda, and vb and Z the adjoints of the modes and of -H. It holds for a nest with all its effects stacked. L is then
// block diagonal, everything of the likelihood lives on the chains of the leaves, and Z is needed only there, where H
// is not zero. Points move with
//     d = B d_above + s C x,   B = -S^-1 O,   C C' = S^-1,   log det H = sum log det S
// (S, O: a node's rows of its front), and with the adjoints Bb of B, Cb of C and Kb of the rows that a node leaves to
// its ancestors (which is the adjoint of its parent's front) the adjoint of its own front follows, from the top down:
//     Y = S^-1 Bb,   O: 2 B Kb - Y,   S: B Kb B' - sym(Y B') - C (P + I/2) C',   P = sym(low(C'Cb)),   ancestors: Kb.
// At a leaf it is -Z. (Own derivation.)

#include "integration/nests/nest_gradient.h"

#include "evaluation/cholesky_derivative.h"
#include "integration/nests/nest_points.h"
#include "integration/subjects/evaluation_parts.h"
#include "modes/joint_density.h"
#include "modes/nest_elimination.h"
#include "modes/nest_steps.h"

#include <algorithm>
#include <cmath>

namespace torvale::integration {

using model::BatchWork;
using model::NestLevel;
using model::NestWork;
using model::NX;
using model::TVLThreadCtx;
using modes::packed;

namespace {

class NestGradient {
public:
  NestGradient(const NX& n, TVLThreadCtx& ctx)
      : n_(n), ctx_(ctx), b_(ctx.batch), w_(ctx.nests), np_(n.nparm), rows_(n), s_(n.qscale * root_two)
  {
  }

  // Of all good nests.
  void compute()
  {
    const bool singles = modes::single_effects(w_);
    clear(singles);
    std::fill(w_.gradient.begin(), w_.gradient.end(), 0.0);
    for_good([&] { share_weights(); });
    if (singles)
      sum_single_leaves(n_, ctx_);
    else
      for_good([&] {
        NestLevel& leaf = w_.level.front();
        for (int v = first(leaf); v < last(leaf); ++v) leaf_sums(v);
      });
    if (singles) sum_single_points(n_, ctx_);
    for_good([&] {
      for (std::size_t k = 1; k < w_.level.size() && !singles; ++k)
        for (int v = first(w_.level[k]); v < last(w_.level[k]); ++v) node_sums(k, v);
      note_null_directions();
      if (n_.adaptive && single_point()) add_left_steps(-0.5);
    });
    if (n_.adaptive) add_modes(singles);
    for_good([&] {
      for (std::size_t k = 0; k < w_.level.size(); ++k) through_arguments(k);
    });
  }

private:
  void add_modes(bool singles)
  {
    if (n_.adscale && singles) through_single_curvature(n_, ctx_);
    for_good([&] {
      if (n_.adscale && !singles) through_scale();
      add_left_steps(1.0);
      if (!singles) through_modes();
    });
    if (singles) through_single_modes(n_, ctx_);
    for_good([&] { finish_steps(); });
  }

  template <class F> void for_good(F&& f)
  {
    for (int nest = 0; nest < w_.nests; ++nest) {
      nest_ = static_cast<std::size_t>(nest);
      if (w_.failure[nest_] != 0) continue;
      gradient_ = w_.gradient.data() + static_cast<long>(nest) * np_;
      f();
    }
  }

  int first(const NestLevel& l) const { return l.nodes->first[nest_]; }
  int last(const NestLevel& l) const { return l.nodes->first[nest_ + 1]; }
  static int parent(const NestLevel& l, int v) { return l.nodes->parent[static_cast<std::size_t>(v)]; }

  // Calls f(level, node) for the ancestors of a node, nearest first.
  template <class F> void for_ancestors(std::size_t level, int v, F&& f)
  {
    for (std::size_t up = level + 1; up < w_.level.size(); ++up) {
      v = parent(w_.level[up - 1], v);
      f(w_.level[up], v);
    }
  }

  // The sums over points; those of leaves with one effect are written whole (leaf_sums.cpp).
  void clear(bool singles)
  {
    for (NestLevel& l : w_.level) {
      if (singles && &l == &w_.level.front()) continue;
      for (std::vector<double>* rows :
           {&l.mean_bar, &l.mode_bar, &l.factor_bar, &l.spread_bar, &l.regression_bar, &l.slopes, &l.pulls})
        std::fill(rows->begin(), rows->end(), 0.0);
    }
  }

  // Weights given the ancestors' points become joint weights, from the top down.
  void share_weights()
  {
    for (std::size_t k = w_.level.size() - 1; k-- > 1;) {
      NestLevel& l = w_.level[k];
      for (int v = first(l); v < last(l); ++v) {
        double* const weight = l.weight.data() + static_cast<long>(v) * l.joint();
        const double* const above = w_.level[k + 1].weight.data() + static_cast<long>(parent(l, v)) * l.outer;
        for (long q = 0; q < l.points; ++q)
          for (long p = 0; p < l.outer; ++p) weight[q * l.outer + p] *= above[p];
      }
    }
  }

  // --- sums over points ---

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

  // --- effects without variance ---

  // What the nest knows of effects to which G leaves no variance: the unit of those variances. The expected slopes are
  // in mean_bar here; the curvature of the levels above the leaves is summed over the nest.
  void note_null_directions()
  {
    if (!has_null_directions()) return;
    double curve[modes::most_effects] = {};
    const NestLevel& leaf = w_.level.front();
    for (int v = first(leaf); v < last(leaf) && n_.adaptive; ++v) {
      const double* const sums = w_.leaf.data() + leaf.nodes->slot[static_cast<std::size_t>(v)];
      for (int i = 0; i < leaf.chain(); ++i) {
        const double own = std::abs(sums[n_.programs.curve(packed(i, i)) * b_.mode_stride]);
        curve[i] = i < leaf.place ? curve[i] + own : std::max(curve[i], own);
      }
    }
    for (const NestLevel& l : w_.level)
      for (int v = first(l); v < last(l); ++v) {
        const double* const factor = modes::factor_of(l, v);
        for (int i = 0; i < l.own; ++i) {
          if (factor[packed(i, i)] != 0.0) continue;
          const double slope = l.mean_bar[static_cast<std::size_t>(v * l.own + i)];
          double& scale = b_.null_scale[static_cast<std::size_t>(l.place + i)];
          scale = std::max(scale, slope * slope + curve[l.place + i]);
        }
      }
  }

  bool has_null_directions() const
  {
    for (const NestLevel& l : w_.level)
      for (int v = first(l); v < (l.varies ? last(l) : std::min(last(l), first(l) + 1)); ++v) {
        const double* const factor = modes::factor_of(l, v);
        for (int i = 0; i < l.own; ++i)
          if (factor[packed(i, i)] == 0.0) return true;
      }
    return false;
  }

  // --- modes and scale ---

  void through_scale()
  {
    NestLevel& leaf = w_.level.front();
    for (std::size_t k = w_.level.size(); k-- > 0;)
      for (int v = first(w_.level[k]); v < last(w_.level[k]); ++v) front_adjoint(k, v);
    for (int v = first(leaf); v < last(leaf); ++v) through_curvature(v);
  }

  void through_modes()
  {
    NestLevel& leaf = w_.level.front();
    modes::solve(w_, static_cast<int>(nest_), &NestLevel::mode_bar);
    for (int v = first(leaf); v < last(leaf); ++v) through_leaf_mode(v);
  }

  // What the steps that the search has left to the modes add to the value, to first order: mode_bar has what the value
  // loses with the modes. At the only point what comes from the point itself vanishes at the mode, and counts by half.
  void add_left_steps(double share)
  {
    double t = 0.0;
    for (const NestLevel& l : w_.level)
      for (long k = static_cast<long>(first(l)) * l.own; k < static_cast<long>(last(l)) * l.own; ++k)
        t += l.mode_bar[static_cast<std::size_t>(k)] * l.step[static_cast<std::size_t>(k)];
    w_.value[nest_] += share * t;
  }

  bool single_point() const
  {
    return std::all_of(w_.level.begin(), w_.level.end(), [](const NestLevel& l) { return l.points == 1; });
  }

  // The modes go to their ends.
  void finish_steps()
  {
    for (NestLevel& l : w_.level)
      for (int v = first(l); v < last(l); ++v) {
        const double* const factor = modes::factor_of(l, v);
        const double* const step = l.step.data() + static_cast<long>(v) * l.own;
        double* const u = l.u.data() + static_cast<long>(v) * l.own;
        for (int i = 0; i < l.own; ++i)
          for (int k = 0; k <= i; ++k) u[i] -= factor[packed(i, k)] * step[k];
      }
  }

  // The adjoint of a node's front from that of its parent's.
  void front_adjoint(std::size_t level, int v)
  {
    NestLevel& l = w_.level[level];
    const int own = l.own, above = l.above, chain = l.chain();
    const double* const inverse = l.inverse.data() + static_cast<long>(v) * l.triangle();
    const double* const c = l.spread.data() + static_cast<long>(v) * l.triangle();
    const double* const b = l.regression.data() + static_cast<long>(v) * (own * above);
    const double* const cbar = l.spread_bar.data() + static_cast<long>(v) * (own * own);
    const double* const bbar = l.regression_bar.data() + static_cast<long>(v) * (own * above);
    double* const bar = l.front_bar.data() + static_cast<long>(v) * (chain * (chain + 1) / 2);
    const double* kept = nullptr;
    if (above > 0) {
      kept = w_.level[level + 1].front_bar.data() + static_cast<long>(parent(l, v)) * (above * (above + 1) / 2);
      std::copy_n(kept, above * (above + 1) / 2, bar);
    }
    double p[packed(modes::most_effects, 0)]; // P + I/2
    for (int i = 0; i < own; ++i)
      for (int j = 0; j <= i; ++j) {
        double t = 0.0;
        for (int k = i; k < own; ++k) t += c[packed(k, i)] * cbar[k * own + j];
        p[packed(i, j)] = 0.5 * t + (i == j ? 0.5 : 0.0);
      }
    for (int i = 0; i < own; ++i) {
      double bk[modes::most_effects], y[modes::most_effects]; // row i of B Kb and of Y
      for (int a = 0; a < above; ++a) {
        bk[a] = y[a] = 0.0;
        for (int k = 0; k < above; ++k) bk[a] += b[i * above + k] * kept[packed(k, a)];
        for (int k = 0; k < own; ++k) y[a] += inverse[packed(i, k)] * bbar[k * above + a];
        bar[packed(above + i, a)] = bk[a] - 0.5 * y[a]; // each of the two places of an element
      }
      for (int j = 0; j < own; ++j) {
        double t = 0.0;
        for (int a = 0; a < above; ++a) t += (bk[a] - y[a]) * b[j * above + a];
        scratch_[i * own + j] = t;
      }
    }
    for (int i = 0; i < own; ++i)
      for (int j = 0; j <= i; ++j) {
        double t = 0.0; // C (P + I/2) C'
        for (int k = 0; k <= i; ++k)
          for (int m = 0; m <= j; ++m) t += c[packed(i, k)] * p[packed(k, m)] * c[packed(j, m)];
        bar[packed(above + i, above + j)] = 0.5 * (scratch_[i * own + j] + scratch_[j * own + i]) - t;
      }
  }

  // Along the chain of a leaf: L Z, then Zu and what the third derivatives make of it.
  void through_curvature(int v)
  {
    NestLevel& leaf = w_.level.front();
    const int chain = leaf.chain(), triangle = chain * (chain + 1) / 2;
    const model::ModelPrograms& program = n_.programs;
    const double* const bar = leaf.front_bar.data() + static_cast<long>(v) * triangle;
    const long slot = leaf.nodes->slot[static_cast<std::size_t>(v)];
    const double* const sums = w_.leaf.data() + slot;
    const double* const third = b_.curvature_sums.data() + b_.column[static_cast<std::size_t>(slot)];
    double* const lz = scratch_;                 // chain x chain: L Z
    double* const zu = scratch_ + chain * chain; // triangle: Zu, elements off the diagonal doubled
    for_chain(v, [&](NestLevel& l, int node) {
      const double* const factor = modes::factor_of(l, node);
      for (int i = 0; i < l.own; ++i)
        for (int j = 0; j < chain; ++j) {
          double t = 0.0;
          for (int k = 0; k <= i; ++k) t -= factor[packed(i, k)] * bar[packed(l.place + k, j)];
          lz[(l.place + i) * chain + j] = t;
        }
    });
    for_chain(v, [&](NestLevel& l, int node) {
      const double* const factor = modes::factor_of(l, node);
      for (int j = 0; j < l.own; ++j)
        for (int i = l.place + j; i < chain; ++i) {
          double t = 0.0;
          for (int k = 0; k <= j; ++k) t += lz[i * chain + l.place + k] * factor[packed(j, k)];
          zu[packed(i, l.place + j)] = i == l.place + j ? t : 2.0 * t;
        }
    });
    const auto inner = [&](int w) {
      double t = 0.0;
      for (int k = 0; k < triangle; ++k) t += zu[k] * third[program.third_place(w, k) * b_.mode_stride];
      return t;
    };
    for (int j = 0; j < np_; ++j) gradient_[j] -= inner(j);
    for_chain(v, [&](NestLevel& l, int node) {
      const double* const factor = modes::factor_of(l, node);
      double* const mean_bar = l.mean_bar.data() + static_cast<long>(node) * l.own;
      double* const mode_bar = l.mode_bar.data() + static_cast<long>(node) * l.own;
      double* const factor_bar = l.factor_bar.data() + static_cast<long>(node) * l.triangle();
      for (int i = 0; i < l.own; ++i) {
        const double tau = inner(np_ + l.place + i);
        mean_bar[i] += tau;
        for (int k = 0; k <= i; ++k) mode_bar[k] += factor[packed(i, k)] * tau;
        for (int j = 0; j <= i; ++j) {
          double t = 0.0; // (ll_uu L Z)(i, j)
          for (int k = 0; k < chain; ++k)
            t += sums[program.curve(packed(l.place + i, k)) * b_.mode_stride] * lz[k * chain + l.place + j];
          factor_bar[packed(i, j)] += tau * l.z[static_cast<std::size_t>(node * l.own + j)] + 2.0 * t;
        }
      }
    });
  }

  // mode_bar holds lambda: how the value moves with the modes, through one leaf's records.
  void through_leaf_mode(int v)
  {
    NestLevel& leaf = w_.level.front();
    const int chain = leaf.chain();
    const model::ModelPrograms& program = n_.programs;
    const long slot = leaf.nodes->slot[static_cast<std::size_t>(v)];
    const double* const sums = w_.leaf.data() + slot;
    const double* const cross = b_.curvature_sums.data() + b_.column[static_cast<std::size_t>(slot)];
    double lu[modes::most_effects];
    for_chain(v, [&](NestLevel& l, int node) {
      const double* const factor = modes::factor_of(l, node);
      const double* const lambda = l.mode_bar.data() + static_cast<long>(node) * l.own;
      for (int i = 0; i < l.own; ++i) {
        lu[l.place + i] = 0.0;
        for (int k = 0; k <= i; ++k) lu[l.place + i] += factor[packed(i, k)] * lambda[k];
      }
    });
    for_chain(v, [&](NestLevel& l, int node) {
      const double* const lambda = l.mode_bar.data() + static_cast<long>(node) * l.own;
      double* const mean_bar = l.mean_bar.data() + static_cast<long>(node) * l.own;
      double* const factor_bar = l.factor_bar.data() + static_cast<long>(node) * l.triangle();
      for (int i = 0; i < l.own; ++i) {
        double pull = 0.0; // ll_uu lu
        for (int k = 0; k < chain; ++k) pull += sums[program.curve(packed(l.place + i, k)) * b_.mode_stride] * lu[k];
        mean_bar[i] += pull;
        for (int j = 0; j <= i; ++j)
          factor_bar[packed(i, j)] += pull * l.z[static_cast<std::size_t>(node * l.own + j)] +
                                      sums[program.slope(l.place + i) * b_.mode_stride] * lambda[j];
      }
    });
    for (const int place : program.closing.outputs) {
      if (place >= program.third_place(0, 0)) break;
      gradient_[place % np_] -= lu[place / np_] * cross[place * b_.mode_stride];
    }
  }

  // Calls f(level, node) for a leaf and its ancestors.
  template <class F> void for_chain(int v, F&& f)
  {
    f(w_.level.front(), v);
    for_ancestors(0, v, f);
  }

  // --- means and elements of G by the parameters; nodes with one prior together ---

  void through_arguments(std::size_t level)
  {
    NestLevel& l = w_.level[level];
    if (l.varies) {
      for (int v = first(l); v < last(l); ++v) add_arguments(level, v, v);
      return;
    }
    for (int v = first(l) + 1; v < last(l); ++v) {
      add(l.mean_bar, first(l), v, l.own);
      add(l.factor_bar, first(l), v, l.triangle());
    }
    if (first(l) < last(l)) add_arguments(level, first(l), 0);
  }

  // Row v onto the first row of the nest.
  static void add(std::vector<double>& rows, int first, int v, int width)
  {
    for (int k = 0; k < width; ++k)
      rows[static_cast<std::size_t>(first * width + k)] += rows[static_cast<std::size_t>(v * width + k)];
  }

  void add_arguments(std::size_t level, int v, int prior)
  {
    NestLevel& l = w_.level[level];
    const model::REFFECT& reff = n_.reff[level];
    double* const factor_bar = l.factor_bar.data() + static_cast<long>(v) * l.triangle();
    const double* const mean_bar = l.mean_bar.data() + static_cast<long>(v) * l.own;
    evaluation::cholesky_adjoint(l.own, modes::factor_of(l, v), factor_bar, n_.singchol);
    const double* const by = l.arguments.data() + static_cast<long>(prior) * reff.setup.places;
    auto moved = reff.moved.begin();
    for (int j = 0; j < np_; ++j)
      for (; moved != reff.moved.begin() + reff.moved_first[static_cast<std::size_t>(j) + 1]; ++moved)
        gradient_[j] -= (moved->argument < l.own ? mean_bar[moved->argument] : factor_bar[moved->argument - l.own]) *
                        by[moved->place];
  }

  const NX& n_;
  TVLThreadCtx& ctx_;
  BatchWork& b_;
  NestWork& w_;
  std::size_t nest_ = 0;
  const int np_;
  const LeafMoments rows_;
  const double s_;
  double* gradient_ = nullptr; // of the nest
  double scratch_[2 * modes::most_effects * modes::most_effects];
};

} // namespace

void nest_gradients(const NX& n, TVLThreadCtx& ctx)
{
  NestGradient(n, ctx).compute();
}

} // namespace torvale::integration
