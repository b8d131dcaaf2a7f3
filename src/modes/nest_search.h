#pragma once
// The joint mode of a nest: of an outermost subject's random effects and of those of all subjects nested in it.

#include "model/run_record.h"

namespace torvale::modes {

// nest_search: finds, for every nest of ctx.nests without a failure, the minimum of the negative log joint density by
// Newton steps with exact second derivatives; the nests of a batch in lockstep. Cost is linear in the nodes. Start,
// safeguard, retry from the mean and the end are those of tvlebes, with fixed options; with EBITER$ the levels take
// turns (tvlebesm), with the options of one level, until the modes stand still to EBMTOL$.
//
// Fills, in the levels of ctx.nests, z, u, inverse, regression and logdet; leaf (sums over records at the mode). A nest
// that fails gets message 358 or 356 (359, 357 with a character subject). Needs the priors; the frame's records must be
// the batch's. Returns 0 or the engine's code above 2. Allocates nothing.
//
// closes: the last evaluation of a search is one of programs.closing, whose sums are then in curvature_sums, in the
// columns b.column of the leaves' slots; `step` of the nodes is what then is left to the modes (1e-8
// posterior deviations at most), which the caller makes up for.
int nest_search(const model::NX& n, model::TVLThreadCtx& ctx, bool closes = false);

} // namespace torvale::modes
