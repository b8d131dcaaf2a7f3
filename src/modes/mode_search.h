#pragma once
// The mode of each subject's joint density of data and random effects, found for a batch of subjects in lockstep.

#include "model/run_record.h"

namespace torvale::modes {

// tvlebes: finds, for every slot of ctx.batch without a failure, the minimum over u of
//     f(u) = -sum over used records of log p(y | u) + 1/2 (u - m)' G^-1 (u - m)
// (tvl procedure, ebes empirical Bayes estimates). The search runs in z with u = m + L z, L L' = G: the same Newton
// steps as in u, defined for a singular G too, where it stays in the range of G. Searches start from the accepted modes
// (n.ebes), or from the mean with EBZSTART or where none is stored; one that fails from a stored mode starts once more
// from the mean.
//
// Fills z, slope, curve, covariance and search[].logdet of ctx.batch; spread is the caller's. A slot that fails gets
// message 358, 356 where no shorter step helps, 350 where EBOPT did not either (359, 357, 351 with a character
// subject). Needs the priors; the frame's range must cover the batch. Only slots of ctx change. Returns 0 or the
// engine's code above 2. Allocates nothing.
//
// AtModes: what the caller wants to know at the modes. The last evaluation of a search is then this one: `run` is
// called for the first `active` entries of b.active, whose columns of curvature_sums are `column`, column + 1, ...
// (kept in b.column); the places of ModelPrograms::mode begin at `mode_place` there. It is called again for slots whose
// mode was not quite reached.
struct AtModes {
  int (*run)(const model::NX& n, model::TVLThreadCtx& ctx, int active, int column) = nullptr;
  int mode_place = 0;
};
int tvlebes(const model::NX& n, model::TVLThreadCtx& ctx, const AtModes* at_modes = nullptr);

// library_search: the second stage (EBOPT): Newton-Raphson with ridging of the optimization library for one slot whose
// own search failed. On success the slot is as tvlebes leaves it and true is returned. Allocates at its first use.
bool library_search(const model::NX& n, model::TVLThreadCtx& ctx, int slot);

// Index of a slot's prior in ctx.batch.
inline int prior_of(const model::NX& n, int slot)
{
  return n.leaf().setup_varies ? slot : 0;
}

} // namespace torvale::modes
