#pragma once
// The parts of one evaluation, each on one context. They write the context and the slots of their own subjects only.

#include "model/run_record.h"

namespace torvale::integration {

inline constexpr double log2pi = 1.8378770664093456;
inline constexpr double root_two = 1.4142135623730951;

// take_batch: makes a batch the one in hand of a context: its slots, its rows.
void take_batch(const model::NX& n, model::TVLThreadCtx& ctx, const model::Batch& batch);

// tvlgaus: value, gradient (with dograd), trial modes and status of the subjects of one batch, by quadrature (gaus Gauss).
// Returns 0 or the engine's code above 2.
int tvlgaus(model::NX& n, model::TVLThreadCtx& ctx, const model::Batch& batch);

// Without random effects the observations are summed in blocks of this many, one slot each.
inline constexpr long block_records = 1024;
long observation_blocks(const model::NX& n);
int sum_observations(model::NX& n, model::TVLThreadCtx& ctx, long block);

// sum_points: runs the program at the quadrature points of all good slots of ctx.batch, and sums weights, moments of the
// points and weighted derivatives per slot (peak, total, point_moments, slope_moments, direct). A slot's points are taken
// in chunks of its own, so its sums do not depend on the batch. Returns 0 or the engine's code above 2.
int sum_points(const model::NX& n, model::TVLThreadCtx& ctx, bool gradient);
long point_scratch(const model::NX& n, const model::REFFECT& reff);

// sum_curvature: cross and third derivatives at the modes of all good slots, into curvature_sums. Returns as sum_points.
int sum_curvature(const model::NX& n, model::TVLThreadCtx& ctx);

// subject_gradient: derivative of a slot's integral by the parameters, np doubles (of the negative log likelihood).
void subject_gradient(const model::NX& n, const model::TVLThreadCtx& ctx, int slot, double* gradient);

} // namespace torvale::integration
