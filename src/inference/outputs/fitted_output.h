#pragma once
// OUTFIT=: the fit seen from its records.

#include "integration/posterior/posterior.h"

namespace torvale::inference {

// FittedRecords: columns over the records of the BY group in file order; missing where a record is not used, and where
// the model has no such number.
struct FittedRecords {
  std::vector<double> response;
  std::vector<double> population, population_error; // mean of the response with the effects at their means
  std::vector<double> individual, individual_error; // at their estimates; missing without random effects
  std::vector<double> residual;                     // response less individual (population without random effects)
  std::vector<double> pearson;                      // residual / root of the variance of the response there
  std::vector<double> conditional; // normal responses: residuals of the model that is linear in the effects around
                                   // their estimates, decorrelated by the lower Cholesky factor of their covariance
  std::vector<double> quantile;    // normal quantile of the distribution function there; randomized for counts
};

// find_fitted_records: at n.parm and the posterior; n.fitted.program must stand. Random numbers come from n.seed and
// the record's place in the file. Returns 0 or the engine's code above 2.
int find_fitted_records(model::NX& n, const integration::Posterior& posterior, FittedRecords& out);

// open_fitted_output: opens the data set of the step and declares its columns. Returns as open_output does.
int open_fitted_output(model::NX& n);

// write_fitted_output: a row per used record. Returns 0 or the engine's code above 2.
int write_fitted_output(model::NX& n, const integration::Posterior& posterior);

} // namespace torvale::inference
