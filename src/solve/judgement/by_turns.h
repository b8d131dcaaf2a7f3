#pragma once
// The variance of a normal response and all other parameters by turns.

#include "model/run_record.h"

#include <vector>

namespace torvale::solve {

// by_turns: takes a fit on from x, where the objective is f. While the residuals still fall a great deal, the Hessian
// by parameters and variance together is indefinite, and a trust region as wide as the standard errors at one variance
// is far too wide at the next: steps are short. With the variance held the others have least squares (with random
// effects: a fit that knows the variance); then the variance alone follows. On true x and f are those of a better
// point. False too where the variance is no parameter.
bool by_turns(model::NX& n, std::vector<double>& x, double& f);

} // namespace torvale::solve
