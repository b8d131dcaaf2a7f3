#pragma once
// What a sampling run leaves: the rows of OUT= and its tables.

#include "sampling/sampler.h"

namespace torvale::sampling {

// The kept draws, chain after chain; nothing without OUT=.
void write_sample(model::NX& n, const SamplerOptions& options, const std::vector<const Chain*>& chains);

// The draws for pictures: of the parameters that move, then LogPost; nothing unless options.draws is set.
void keep_draws(const model::ModelLists& n, const SamplerOptions& options, const Posterior& target,
                const std::vector<const Chain*>& chains);

// "MCMCSpecifications", "AcceptanceRates", "MCMCDiagnostics", and a warning when the chains do not agree.
void write_tables(model::NX& n, const SamplerOptions& options, const Posterior& target,
                  const std::vector<const Chain*>& chains);

} // namespace torvale::sampling
