#pragma once
// Posterior sampling of a BY group: the chains, their data set and tables.

#include "host/data/libraries.h"
#include "sampling/chain.h"
#include "sampling/draws.h"

namespace torvale::sampling {

// What the MCMC statement asks for.
struct SamplerOptions {
  ChainOptions chain;
  int chains = 4;
  long lognote = 0;         // iterations between progress notes; 0 none
  bool no_u_turn = false;   // SAMPLER=NUTS
  bool nooptimize = false;  // chains start at the starting values
  bool nointegrate = false; // the random effects are integrated out instead of sampled
  std::vector<double>
      covariance; // COVDATA=: packed, of the parameters; missing entries where it says nothing; empty: none
  SampleDraws* draws = nullptr;       // filled for whoever draws pictures; borrowed
  host::OutputDataSet* out = nullptr; // OUT=; borrowed
  std::function<double(int context, const double* theta, double* gradient)> prior; // as Posterior::prior
};

// declare_sample_columns: the columns of OUT= for this model: BY variables, parameters, effects as NAME_SUBJECT when
// they are sampled
// (`subjects` of them), LogPost, Sample, Chain.
void declare_sample_columns(model::NX& n, const SamplerOptions& options);

// tvlmcmc: draws the sample at the point n.parm (estimates or starting values) and writes it, "MCMCSpecifications",
// "AcceptanceRates" and "MCMCDiagnostics". An interruption writes what has been drawn. Returns 0, or 1 on failure, said
// in the log. (tvl procedure, mcmc Markov chain Monte Carlo.)
int tvlmcmc(model::NX& n, const SamplerOptions& options);

} // namespace torvale::sampling
