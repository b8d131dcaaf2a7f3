#pragma once
// PREDICT: an expression at every record of the BY group, with its standard error over parameters and random effects.

#include "inference/tables/tables.h"
#include "integration/posterior/posterior.h"

#include <vector>

namespace torvale::inference {

// One statement's results: a row per record of the BY group, in the order of the file.
struct PredictionColumns {
  std::vector<double> value, error, t, p, lower, upper;
  std::vector<double> derivative; // with DER: rows x (parameters, then random effects); else empty
  std::vector<char> undetermined; // 1: no error, since the data do not determine it
  std::vector<double> id;         // rows x variables of the program that ID names
  double df = 0.0, alpha = 0.05;
};

// predict: evaluates a statement at n.parm and the estimates of the random effects. With g the derivatives by
// parameters and by effects, D and V of the posterior and C the covariance of the estimates, the squared error is
//     h'C h + g_u'V g_u,   h = g_theta + D'g_u,
// the quadratic form of g in the joint covariance of parameters and effects. Records whose expression has a fault are
// missing, and `faults` of them are told apart in the log (message 70). Returns 0, or the engine's code above 2.
int predict(model::NX& n, const model::PredictStatement& statement, const integration::Posterior& posterior,
            PredictionColumns& out);

} // namespace torvale::inference
