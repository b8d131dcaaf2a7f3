#pragma once
// What the search for the joint modes of nests decides by, for all listed nests at once: values, Newton steps and their
// lengths, of nodes with any number of effects; single_steps.h has what is done where every level has one. What goes to
// nests is added node by node, in their order, so that no nest sees those beside it.

#include "model/run_record.h"

namespace torvale::modes {

// single_effects: every level has one effect, and the levels are few enough for small matrices of vectors.
inline constexpr int most_single_levels = 8;
bool single_effects(const model::NestWork& w);

// list_nodes: NestLevel::listed of the nests that are active.
void list_nodes(model::NestWork& w);
// list_good_nests: those that have not failed become active, and are listed.
void list_good_nests(model::NestWork& w);

// place_starts: z of the listed nodes from the accepted modes; where they move with the parameters (predicts:
// b.parameter_step says how far these are) zold has the accepted ones. A nest of which a mode would move out of the
// prior's reach stays.
void place_starts(const model::NX& n, model::TVLThreadCtx& ctx, bool predicts);

// place_effects: u = m + L z of the listed nodes.
void place_effects(const model::NX& n, model::TVLThreadCtx& ctx);

// The sums of a run over the leaves: results of programs.mode by place, b.mode_stride apart, in the columns b.column of
// their slots.
// find_values: the negative log joint density of the listed nests into w.value; failure_objective or more where it has
// none.
void find_values(const model::NX& n, model::TVLThreadCtx& ctx, const double* sums);

// find_steps: Newton's step of every listed nest into `step` of its nodes, with inverse and regression; w.length and
// w.square. What is not finite there belongs to a nest that has no step.
void find_steps(const model::NX& n, model::TVLThreadCtx& ctx, const double* sums);

// find_own_steps: the same of one level's nodes with all others held: the blocks on the diagonal of the arrow.
void find_own_steps(const model::NX& n, model::TVLThreadCtx& ctx, const double* sums, int level);

} // namespace torvale::modes
