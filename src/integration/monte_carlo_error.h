#pragma once

#include "model/run_record.h"

namespace torvale::integration {

// monte_carlo_error: the standard error that the sample gives the log likelihood at n.parm, of importance sampling with
// one level. All subjects share one sample of N points. With s_t the sum over subjects (times replicates) of N times
// the share that point t has in the subject's integral, the log likelihood varies, to first order, as the mean of the
// s_t: the error is the root of their variance over N. Missing when the evaluation there fails. One evaluation with a
// second pass over the points, on one thread. Returns 0 or the engine's code above 2.
int monte_carlo_error(model::NX& n, double& error);

} // namespace torvale::integration
