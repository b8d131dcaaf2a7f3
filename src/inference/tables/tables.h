#pragma once
// The tables written after a fit.

#include "model/run_record.h"

namespace torvale::inference {

// TVAL: one inference: what is given and what follows. (T value.)
struct TVAL {
  double estimate = 0.0; // in
  double sder = 0.0;     // in: standard error
  double dfe = 0.0;      // in: degrees of freedom
  double alpha = 0.05;   // in: significance level
  double tval = 0.0;     // out: t value
  double prob = 0.0;     // out: two-sided probability
  double lower = 0.0;    // out: lower confidence limit
  double upper = 0.0;    // out: upper confidence limit
};

// tvltval: fills the outputs. (tvl procedure, tval t value.) Returns 0; 1 when all outputs are missing because an input
// is missing or infinite, or the error is not above 0. With degrees of freedom not above 0 there is a t value and no
// more.
int tvltval(TVAL& t);

// The criteria of a fit with minimized objective n.fval.
struct InformationCriteria {
  double minus2_log_likelihood, aic, aicc, bic;
};
InformationCriteria information_criteria(const model::NX& n);

// "FitStatistics": -2 log likelihood, AIC, AICC, BIC of a fit with minimized objective n.fval.
void write_fit_statistics(model::NX& n);

// tvlpest: "StartingValues" (job < 0) or "ParameterEstimates" (job > 0). (tvl procedure, pest parameter estimates.)
void tvlpest(model::NX& n, int job);

// tvlphes: a square matrix of the parameters (tvl procedure, phes print Hessian): job -1 "StartingHessian", 0
// "Hessian", 1 "CovMatParmEst", 2 "CorrMatParmEst".
void tvlphes(model::NX& n, int job);

// warn_of_standard_errors: warnings of parameters without influence and of missing degrees of freedom, which the
// verdict repeats.
void warn_of_standard_errors(model::NX& n);

// The tables of the fit after tvlsolv, in their order: fit statistics, estimates, Hessian, covariance, correlation.
void write_fit_tables(model::NX& n);

// starting_tables: "StartingValues" and, with HESS, "StartingHessian"; called before the first iteration.
void starting_tables(model::NX& n);

// tvlesti: "AdditionalEstimates" by the delta method, and the matrices and derivatives asked for. (tvl procedure, esti
// ESTIMATE.) Returns 0; 1 when the expressions could not be evaluated (message 503/73).
int tvlesti(model::NX& n);

// tvlcont: "Contrasts" by Wald F tests. (tvl procedure, cont CONTRAST.) Returns as tvlesti.
int tvlcont(model::NX& n);

} // namespace torvale::inference
