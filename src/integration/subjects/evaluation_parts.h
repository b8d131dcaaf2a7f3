#pragma once
// The parts of one evaluation, each on one context. They write the context and the slots of their own subjects only.

#include "evaluation/record_sums.h"
#include "host/messages/names/methods.h"
#include "integration/subjects/integrator.h"
#include "model/run_record.h"

#include <span>
#include <vector>

namespace torvale::integration {

inline constexpr double log2pi = 1.8378770664093456;
inline constexpr double root_two = 1.4142135623730951;

// The integrators.
const Integrator& adaptive_quadrature(); // one level: all numbers of points, importance samples
const Integrator& support_points();      // a discrete distribution: the sum over its points
const Integrator& first_order();         // the mean linear in the effects
const Integrator& trapezoid();           // one effect, on the whole line
const Integrator& nest_quadrature();     // several levels

// The message of a nest whose integral is zero.
inline int zero_integral(const model::NX& n)
{
  return n.outer().sub_character ? message::integral_zero_text_subject::message_number
                                 : message::integral_zero::message_number;
}

// Work arrays are sized with this.
template <class Array> void size(Array& v, long count)
{
  v.assign(static_cast<std::size_t>(count), typename Array::value_type{});
}

// The same where every evaluation writes what it reads: a vector that has the size already stays as it is.
template <class Array> void room(Array& v, long count)
{
  if (v.size() != static_cast<std::size_t>(count)) size(v, count);
}

// size_subject_work: priors, points, modes and curvature of the slots of a batch, and one subject's small matrices.
void size_subject_work(const model::NX& n, model::TVLThreadCtx& ctx);
// size_block: small matrices of one subject, of any level.
void size_block(const model::ModelLists& n, model::BlockWork& block);
// size_point_sums: the sums over the points of a batch.
void size_point_sums(const model::NX& n, model::TVLThreadCtx& ctx);

// keep_trial_modes: the modes u = m + L z of some slots into n.ebtrial, and where they are kept their derivatives by
// the parameters into n.ebtrial_by, after an evaluation with a gradient.
void keep_trial_modes(model::NX& n, const model::TVLThreadCtx& ctx, std::span<const int> slots);
inline bool keeps_mode_derivatives(const model::NX& n)
{
  return n.dograd && !n.ebtrial_by.empty() && !n.prediction_stands;
}

// Without random effects the observations are summed in blocks of this many, one slot each.
inline constexpr long block_records = 1024;
long observation_blocks(const model::GroupState& n);
int sum_observations(model::NX& n, model::TVLThreadCtx& ctx, long block);

// add_record_products: without random effects, the sum over observations of the outer products of their gradients, by
// another run of the program. Returns 0; 1 when an observation has no gradient.
int add_record_products(const model::NX& n, model::TVLThreadCtx& ctx, double* sum);

// add_outer_product: sum += weight g g', packed.
inline void add_outer_product(const double* g, int np, double weight, double* sum)
{
  for (int i = 0; i < np; ++i)
    for (int j = 0; j <= i; ++j) *sum++ += weight * (g[i] * g[j]);
}

// find_spread: the scale of the points by z of all good slots, into b.spread: the Cholesky factor of the inverse
// Hessian at the mode, or the identity (then L alone scales u). Overwrites b.active.
void find_spread(const model::NX& n, model::BatchWork& b);

// sum_points: runs the program at the quadrature points of all good slots of ctx.batch, and sums weights, moments of
// the points and weighted derivatives per slot (peak, total, point_moments, slope_moments, direct). A slot's points are
// taken in chunks of its own, so its sums do not depend on the batch. Returns 0 or the engine's code above 2.
int sum_points(const model::NX& n, model::TVLThreadCtx& ctx, bool gradient);

// --- factored derivatives (factored_gradient.cpp) ---

inline constexpr long block_lanes = 65536; // of the coefficients of a block of subjects, unless one has more

// size_factored: after size_point_sums; decides whether they are used.
void size_factored(const model::NX& n, model::TVLThreadCtx& ctx);
// kept_lanes: where a program leaves its coefficients, lane by lane.
evaluation::LaneValues kept_lanes(model::BatchWork& b, int coefficients);
// take_mode_coefficients: from the lanes of b.active at their modes to the records of the batch.
void take_mode_coefficients(const model::ModelLists& n, model::BatchWork& b);
// factored_gradients: the gradients of all good slots, for close_factored; after sum_points and sum_curvature. Returns
// 0 or the engine's code above 2.
int factored_gradients(const model::NX& n, model::TVLThreadCtx& ctx);
void close_factored(const model::ModelLists& n, const model::TVLThreadCtx& ctx, int slot, double* gradient);
// find_shares: after sum_points, what share every point has in a good slot's integral, times the subject's replicates:
// nqpr numbers a slot. By a second pass; allocates. Returns as sum_points.
int find_shares(const model::NX& n, model::TVLThreadCtx& ctx, double* shares);

// list_good_slots: those that have not failed, into b.active, and the place of each there into b.column. Returns how
// many they are.
int list_good_slots(model::BatchWork& b);

// sum_curvature: cross and third derivatives at the modes of all good slots, into curvature_sums. Returns as
// sum_points.
int sum_curvature(const model::NX& n, model::TVLThreadCtx& ctx);
// sum_at_modes: the same together with what the search for modes reads, for modes::AtModes.
int sum_at_modes(const model::NX& n, model::TVLThreadCtx& ctx, int active, int column);
inline bool closes_point(const model::NX& n)
{
  return n.leaf().nqpr == 1 && n.method == 0 && n.programs.closing_point;
}
// taken_at_modes: the mode is the only point and was closed with what a gradient wants there. sum_points then runs
// nothing, and leaves its sums of derivatives where sum_at_modes put them: in curvature_sums, behind
// ModelPrograms::closing_gradient.
inline bool taken_at_modes(const model::NX& n, const model::BatchWork& b, bool gradient)
{
  return gradient && n.adaptive && !b.factored.in_use && closes_point(n);
}

// subject_gradients: the derivatives of the integrals of all good slots by the parameters (of the negative log
// likelihood) into b.gradients, after sum_points and sum_curvature. Where derivatives are factored without what their
// products give, whose weights go into b.factored.weights. Overwrites b.active.
void subject_gradients(const model::NX& n, model::BatchWork& b);

} // namespace torvale::integration
