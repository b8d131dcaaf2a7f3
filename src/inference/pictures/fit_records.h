#pragma once
// FitRecords: the fit seen from its records, for the pictures of the report.

#include "model/run_record.h"

#include <string>
#include <vector>

namespace torvale::inference {

// Columns of one length: a row per used record, in file order. What a model does not have is missing throughout
// (residuals of a GENERAL likelihood) or left empty (individual predictions without random effects).
struct FitRecords {
  std::vector<std::int64_t> row;     // row of the input data set, from 0
  std::vector<std::int32_t> subject; // place in the index of the deepest level; -1 without random effects
  std::vector<double> response;
  std::vector<double> population; // mean of the response with the effects at their means
  std::vector<double> individual; // mean of the response at the subject's modes
  std::vector<double> residual;   // response - individual (population without random effects)
  std::vector<double> pearson;    // residual / root of the variance of the response at the same place
  std::vector<double> quantile;   // quantile_residual at the same place, randomized when discrete
  std::vector<double> arguments;  // of the distribution there, response_arguments a record
};

// Means and variances of the random effects of every subject at the estimates: nr a subject, subjects in order; missing
// for subjects without records in use. One level of normal effects.
struct EffectMoments {
  std::vector<double> mean, variance;
};
// false when the arguments cannot be evaluated
bool random_effect_moments(model::NX& n, const model::REFFECT& reff, EffectMoments& out);
// The modes found at the estimates, in the same order; missing where a search has failed.
std::vector<double> random_effect_modes(const model::NX& n, const model::REFFECT& reff);

// fit_records: computes the columns at the estimates, with the modes found there.
// Returns 0; 1 when the model cannot be evaluated there, rows are then empty.
int fit_records(model::NX& n, FitRecords& out);

} // namespace torvale::inference
