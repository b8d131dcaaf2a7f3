#pragma once

#include "integration/posterior/posterior.h"

namespace torvale::inference {

// write_shrinkage: table "Shrinkage", a row per random effect, the outermost level first: the mean variance that the
// model gives the effect; the variance of the empirical Bayes estimates about their means, and its ratio to the former;
// and one less the mean ratio of posterior (inverse Hessian) to prior variance. Subjects count as often as REPLICATE
// says.
void write_shrinkage(model::NX& n, const integration::Posterior& posterior);

} // namespace torvale::inference
