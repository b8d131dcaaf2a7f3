// How the values of nests move with their modes and the scale of their points, where levels have any number of effects
// (nest_gradient.cpp has the formulas).

#include "integration/nests/nest_gradient.h"
#include "integration/nests/nest_walk.h"
#include "modes/joint_density.h"
#include "modes/nest_elimination.h"

#include <algorithm>

namespace torvale::integration {

using model::NestLevel;
using model::NX;
using model::TVLThreadCtx;
using modes::packed;

namespace {

class BlockModes : NestWalk {
public:
  BlockModes(const NX& n, TVLThreadCtx& ctx) : NestWalk(n, ctx) {}

  void curvature()
  {
    for_good([&] { through_scale(); });
  }
  void joint_modes()
  {
    for_good([&] { through_modes(); });
  }

private:
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

  double scratch_[2 * modes::most_effects * modes::most_effects];
};

} // namespace

void through_block_curvature(const NX& n, TVLThreadCtx& ctx)
{
  BlockModes(n, ctx).curvature();
}

void through_block_modes(const NX& n, TVLThreadCtx& ctx)
{
  BlockModes(n, ctx).joint_modes();
}

} // namespace torvale::integration
