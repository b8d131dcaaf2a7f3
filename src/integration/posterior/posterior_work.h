#pragma once
// How one worker finds the posterior of a batch, by kind of model.

#include "integration/posterior/posterior.h"

#include <memory>

namespace torvale::integration {

class PosteriorWork {
public:
  virtual ~PosteriorWork() = default;

  // run: fills the entries of the leaves of the batch in hand. Returns 0 or the engine's code above 2.
  virtual int run(Posterior& out) = 0;
};

// Modes of one level of random effects, and of nests; means by importance samples, whose derivatives are left to the
// caller.
std::unique_ptr<PosteriorWork> mode_posterior(const model::NX& n, model::TVLThreadCtx& ctx);
std::unique_ptr<PosteriorWork> sampled_posterior(const model::NX& n, model::TVLThreadCtx& ctx);
std::unique_ptr<PosteriorWork> nest_posterior(const model::NX& n, model::TVLThreadCtx& ctx);

// keep_prior: mean, its derivatives and covariance of the prior of a slot, with one level.
void keep_prior(const model::NX& n, const model::BatchWork& b, int slot, Posterior& out);

} // namespace torvale::integration
