// What mode_derivatives.cpp says of one block of effects holds for a nest with all its effects stacked: G is then block
// diagonal, the likelihood lives on the chains of the leaves, and products with V = L H^-1 L' go through the eliminated
// arrow, parameter by parameter.

#include "integration/nests/nest_moves.h"

#include "integration/nests/nest_walk.h"
#include "modes/joint_density.h"
#include "modes/nest_elimination.h"
#include "modes/nest_steps.h"

#include <algorithm>

namespace torvale::integration {

using model::NestLevel;
using model::NX;
using model::REFFECT;
using model::TVLThreadCtx;
using modes::packed;

namespace {

class NestMoves : NestWalk {
public:
  NestMoves(const NX& n, TVLThreadCtx& ctx, const double* cross)
      : NestWalk(n, ctx), cross_(cross), stride_(ctx.batch.mode_stride)
  {
  }

  void find_all()
  {
    for_good([&] { find(); });
  }

private:
  void find()
  {
    sum_slopes();
    for (int j = 0; j < n_.nparm; ++j) {
      for_nodes([&](NestLevel& l, const REFFECT& reff, int v) {
        find_lead(l, reff, v, j);
        std::fill_n(l.mode_bar.begin() + static_cast<long>(v) * l.own, l.own, 0.0);
      });
      const NestLevel& leaves = w_.level.front();
      for (int v = first(leaves); v < last(leaves); ++v) add_pulls(v, j);
      for_nodes([](NestLevel& l, const REFFECT&, int v) { times_transpose(l, v); });
      modes::solve(w_, static_cast<int>(nest_), &NestLevel::mode_bar);
      for_nodes([&](NestLevel& l, const REFFECT&, int v) { keep(l, v, j); });
    }
  }

  template <class F> void for_nodes(F&& f)
  {
    for (std::size_t k = 0; k < w_.level.size(); ++k)
      for (int v = first(w_.level[k]); v < last(w_.level[k]); ++v) f(w_.level[k], n_.reff[k], v);
  }

  const double* sums(int leaf) const
  {
    return w_.leaf.data() + w_.level.front().nodes->slot[static_cast<std::size_t>(leaf)];
  }

  void sum_slopes()
  {
    for (NestLevel& l : w_.level) std::fill_n(l.slope.begin() + first(l) * l.own, (last(l) - first(l)) * l.own, 0.0);
    const NestLevel& leaves = w_.level.front();
    for (int v = first(leaves); v < last(leaves); ++v)
      for_chain(v, [&](NestLevel& l, int node) {
        for (int i = 0; i < l.own; ++i)
          l.slope[static_cast<std::size_t>(node * l.own + i)] += sums(v)[n_.programs.slope(l.place + i) * stride_];
      });
  }

  // dm/dtheta + dG/dtheta ll_u.
  static void find_lead(NestLevel& l, const REFFECT& reff, int v, int j)
  {
    const double* const slope = l.slope.data() + static_cast<long>(v) * l.own;
    const double* const by = l.arguments.data() + static_cast<long>(l.prior_of(v)) * reff.setup.places;
    double* const to = l.lead.data() + static_cast<long>(v) * l.own;
    std::fill_n(to, l.own, 0.0);
    for_moved(reff, j, [&](int a, int place) {
      if (a < l.own) {
        to[a] += by[place];
        return;
      }
      int row = 0; // of the element of G
      while (packed(row, row) < a - l.own) ++row;
      const int column = a - l.own - packed(row, 0);
      to[row] += by[place] * slope[column];
      if (row != column) to[column] += by[place] * slope[row];
    });
  }

  // ll_uu lead + ll_u., along the chain of a leaf.
  void add_pulls(int leaf, int j)
  {
    const auto slot = static_cast<std::size_t>(w_.level.front().nodes->slot[static_cast<std::size_t>(leaf)]);
    const double* const cross = cross_ + b_.column[slot];
    for_chain(leaf, [&](NestLevel& to, int node) {
      for (int i = 0; i < to.own; ++i) {
        double pull = cross[n_.programs.cross_place(to.place + i, j) * stride_];
        for_chain(leaf, [&](const NestLevel& from, int other) {
          for (int e = 0; e < from.own; ++e)
            pull += sums(leaf)[n_.programs.curve(packed(to.place + i, from.place + e)) * stride_] *
                    from.lead[static_cast<std::size_t>(other * from.own + e)];
        });
        to.mode_bar[static_cast<std::size_t>(node * to.own + i)] += pull;
      }
    });
  }

  // L' times what a node has; row by row from the first, which the others do not need any more.
  static void times_transpose(NestLevel& l, int v)
  {
    const double* const factor = modes::factor_of(l, v);
    double* const x = l.mode_bar.data() + static_cast<long>(v) * l.own;
    for (int i = 0; i < l.own; ++i) {
      x[i] *= factor[packed(i, i)];
      for (int k = i + 1; k < l.own; ++k) x[i] += factor[packed(k, i)] * x[k];
    }
  }

  // lead + L x
  void keep(NestLevel& l, int v, int j) const
  {
    const double* const factor = modes::factor_of(l, v);
    const double* const x = l.mode_bar.data() + static_cast<long>(v) * l.own;
    for (int i = 0; i < l.own; ++i) {
      double t = l.lead[static_cast<std::size_t>(v * l.own + i)];
      for (int k = 0; k <= i; ++k) t += factor[packed(i, k)] * x[k];
      l.move[static_cast<std::size_t>(move_place(l, v, i, j, n_.nparm))] = t;
    }
  }

  const double* const cross_;
  const long stride_;
};

} // namespace

void find_nest_moves(const NX& n, TVLThreadCtx& ctx, const double* cross)
{
  if (modes::single_effects(ctx.nests)) return find_single_moves(n, ctx, cross);
  NestMoves(n, ctx, cross).find_all();
}

} // namespace torvale::integration
