#pragma once
// A covariance matrix of random effects that ended on its edge: a correlation of 1 or -1, or effects of which one is a
// combination of others. The fit is right, but it has fewer effects than the program names.

#include "model/run_record.h"

#include <vector>

namespace torvale::solve {

// g: the packed covariance matrix of a level's effects at the estimates. Warns, and marks the verdict, when it is
// singular beside effects whose variance is 0, and the fit (not the program) made it so.
void warn_singular_effects(model::NX& n, const model::REFFECT& reff, const std::vector<double>& g);

} // namespace torvale::solve
