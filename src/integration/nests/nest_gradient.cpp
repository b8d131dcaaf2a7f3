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
#include "integration/nests/nest_walk.h"
#include "modes/joint_density.h"
#include "modes/nest_elimination.h"
#include "modes/nest_steps.h"

#include <algorithm>
#include <cmath>

namespace torvale::integration {

using model::NestLevel;
using model::NX;
using model::TVLThreadCtx;
using modes::packed;

namespace {

class NestGradient : NestWalk {
public:
  NestGradient(const NX& n, TVLThreadCtx& ctx) : NestWalk(n, ctx), singles_(modes::single_effects(ctx.nests)) {}

  // Of all good nests.
  void compute()
  {
    clear();
    for_good([&] { share_weights(); });
    if (singles_) {
      sum_single_leaves(n_, ctx_);
      sum_single_points(n_, ctx_);
    } else {
      sum_block_points(n_, ctx_);
    }
    for_good([&] {
      note_null_directions();
      if (n_.adaptive && single_point()) add_left_steps(-0.5);
    });
    if (n_.adaptive) add_modes();
    for_good([&] {
      for (std::size_t k = 0; k < w_.level.size(); ++k) through_arguments(k);
    });
  }

private:
  void add_modes()
  {
    if (n_.adscale) singles_ ? through_single_curvature(n_, ctx_) : through_block_curvature(n_, ctx_);
    for_good([&] { add_left_steps(1.0); });
    singles_ ? through_single_modes(n_, ctx_) : through_block_modes(n_, ctx_);
    for_good([&] { finish_steps(); });
  }

  // The sums over points; those of leaves with one effect are written whole (leaf_sums.cpp).
  void clear()
  {
    std::fill(w_.gradient.begin(), w_.gradient.end(), 0.0);
    for (NestLevel& l : w_.level) {
      if (singles_ && &l == &w_.level.front()) continue;
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

  // --- what the search has left ---

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

  const bool singles_; // every level has one effect
};

} // namespace

void nest_gradients(const NX& n, TVLThreadCtx& ctx)
{
  NestGradient(n, ctx).compute();
}

} // namespace torvale::integration
