#pragma once
// The points of the leaves of many nests, side by side in the lanes: the inner integral of every leaf given the joint
// point of its ancestors, and the moments that the gradient needs.

#include "model/run_record.h"

namespace torvale::integration {

// LeafMoments: rows of NestWork::moments, for every joint point of the ancestors: sums over the leaf's own points, each
// times the weight, of
struct LeafMoments {
  int direct;         // the derivatives of the log likelihood by the parameters, those that are not identically zero
  int slope;          // its derivatives by the effects of the chain
  int slope_by_point; // those by the leaf's own effects times the standard points, own x own
  int point;          // the standard points
  int square;         // their products, a packed triangle
  int rows;

  explicit LeafMoments(const model::NX& n);
};

// sum_leaf_points: total and, with gradient, moments of all leaves of good nests in ctx.nests, and in the place of the
// peaks the logs of the integrals given the ancestors. Needs deviation and effects of the levels above, z, spread and
// tilt of the leaves. Returns 0 or the engine's code above 2.
int sum_leaf_points(const model::NX& n, model::TVLThreadCtx& ctx, bool gradient);

// place_single_points: scale of all nodes of good nests given their ancestors, and deviations, effects and log weights
// of the points of those above the leaves; where every level has one effect. close_single_levels: from the log
// integrands of these, with the integrals of the leaves in them, the log integral of each node given its ancestors'
// joint points, and weights of its own given these.
void place_single_points(const model::NX& n, model::TVLThreadCtx& ctx);
void close_single_levels(const model::NX& n, model::TVLThreadCtx& ctx);
// The same for levels of any number of effects.
void place_block_points(const model::NX& n, model::TVLThreadCtx& ctx);
void close_block_levels(model::TVLThreadCtx& ctx);

// add_log: a factor of an integrand, as logs; what is 0 stays so.
inline void add_log(double& to, double integral)
{
  to = integral > model::failed_point && to > model::failed_point ? to + integral : model::failed_point;
}

void size_leaf_points(const model::NX& n, model::TVLThreadCtx& ctx);

} // namespace torvale::integration
