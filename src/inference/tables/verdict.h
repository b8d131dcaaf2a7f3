#pragma once
// The verdict of a fit in words: one voice for listing, report and results.

#include "host/results/results.h"
#include "model/run_record.h"

#include <string>
#include <utility>
#include <vector>

namespace torvale::inference {

// What the words are made of.
struct VerdictFacts {
  const model::Verdict* verdict = nullptr;
  std::vector<std::string> parameters;       // names
  std::vector<std::string> effects;          // names of the random effects, over all blocks
  int znlprc = 0;                            // the optimizer's code
  bool optimized = true;                     // false: TECHNIQUE=NONE, or nothing to optimize
  bool covariance = true;                    // there is a covariance of the estimates
  std::string reason;                        // the words of "ConvergenceStatus"
  std::vector<std::pair<int, int>> warnings; // group and number of the warnings of this fit, each once
};

// verdict_words: fills converged, standing, headline and findings.
void verdict_words(const VerdictFacts& facts, host::FitSummary& out);

// write_verdict: the table "FitVerdict" and the summary of the group at hand. After the tables of the optimization,
// before those of the fit.
void write_verdict(model::NX& n);

} // namespace torvale::inference
