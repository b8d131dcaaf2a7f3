#pragma once
// What the judge found, as the rest of the run reads it: covariance, standard errors, the verdict and its words.

#include "solve/judgement/fit_end.h"

namespace torvale::solve {

// take_judgement: where the judge measured the curvature, n.covmat, the standard errors and n.det come from it: the
// inverse off the null space, with the null space itself in n.verdict (flat, null_basis, identified) and as rows of
// "LinearDependencies". Parameters with a component in the null space, at a bound, or of a vanished effect have no
// standard error.
void take_judgement(model::NX& n, const FitEnd& end);

// missing_errors: standard errors that must not be shown are missing. After anything that forms them anew.
void missing_errors(model::NX& n);

// report_verdict: the warnings of a fit that was judged.
void report_verdict(model::NX& n);

} // namespace torvale::solve
