#pragma once
// The solve step: the optimizer run of one BY group, and what is read back from it.

#include "model/run_record.h"

namespace torvale::solve {

// tvlsolv: optimizes from n.parm by the optimization library (tvl procedure, solv solve): stage 1 makes the start
// feasible and evaluates there, stage 2 runs the technique and ends with the covariance of the estimates. Leaves
// n.znlprc, n.parm (estimates on a bound snapped onto it), n.fval, n.finalgrad, n.hessmat, n.covmat, n.det, standard
// errors in n.str->ster, n.dfe; warns about the Hessian. Returns n.znlprc: above 0 the estimates are usable.
int tvlsolv(model::NX& n);

// forget_fit: what an earlier BY group left of its fit (covariance, Hessian, verdict, counts of evaluations), which a
// group that cannot start must not report as its own.
void forget_fit(model::NX& n);

} // namespace torvale::solve
