#pragma once
// Slight curvatures that come from the points of the integrals, and not from the data.

#include "solve/judgement/judgement.h"

namespace torvale::solve {

// ridges_of_the_points: directions of the judgement (in coordinates c, at the parameters x) that are flat as far as the
// integrals tell: their curvature is slight, and with `finer` points per dimension in place of those in use most of it
// is gone. A ridge along which an integral does not change at all (two effects that enter by their sum) is broken by
// points that follow each effect. Leaves the points in use in place.
std::vector<int> ridges_of_the_points(model::NX& n, const FitCoordinates& c, const Judgement& judged,
                                      const std::vector<double>& x, int finer);

} // namespace torvale::solve
