#pragma once
// Evaluates the expressions of ESTIMATE and CONTRAST statements at the estimates.

#include "model/run_record.h"

#include <vector>

namespace torvale::inference {

// The rows of all statements, one after the other.
struct ExpressionValues {
  std::vector<double> value;    // per row
  std::vector<double> gradient; // rows x nparm; a row with a missing derivative is all zero
};

// Values and derivatives at n.parm. Returns 0, or 1 after message 503/73 (statement: its word for the message).
int evaluate_expressions(model::NX& n, const std::vector<model::EstimateStatement>& statements, const char* statement,
                         ExpressionValues& out);

} // namespace torvale::inference
