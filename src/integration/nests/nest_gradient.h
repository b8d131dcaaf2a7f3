#pragma once

#include "model/run_record.h"

namespace torvale::integration {

// nest_gradients: the derivatives by the parameters of the value of every good nest of ctx.nests, into its gradient.
// Needs the sums of nest_points.h with gradient, the weights that close_levels leaves, and what a search that closes
// leaves at the modes.
void nest_gradients(const model::NX& n, model::TVLThreadCtx& ctx);

// sum_single_leaves: the sums over the points of the leaves of good nests, where every level has one effect: into their
// rows and those of their ancestors and into the nests' gradients, which must be clear. Overwrites columns of the
// nests.
void sum_single_leaves(const model::NX& n, model::TVLThreadCtx& ctx);

// sum_single_points: the same of the points of the levels above, after those of the leaves.
void sum_single_points(const model::NX& n, model::TVLThreadCtx& ctx);

// sum_block_points: the same of all levels, where they have any number of effects.
void sum_block_points(const model::NX& n, model::TVLThreadCtx& ctx);

// through_single_curvature, through_single_modes: what the scale of the points of good nests and then their modes add,
// where every level has one effect; after the sums over the points. The same with `block` for any number of effects.
void through_single_curvature(const model::NX& n, model::TVLThreadCtx& ctx);
void through_single_modes(const model::NX& n, model::TVLThreadCtx& ctx);
void through_block_curvature(const model::NX& n, model::TVLThreadCtx& ctx);
void through_block_modes(const model::NX& n, model::TVLThreadCtx& ctx);

} // namespace torvale::integration
