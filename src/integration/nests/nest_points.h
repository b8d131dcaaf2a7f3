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

void size_leaf_points(const model::NX& n, model::TVLThreadCtx& ctx);

} // namespace torvale::integration
