#pragma once
// Coordinates that are moved together by a standard error each: most of them need no evaluation of their own.

#include "solve/judgement/curvature.h"

#include <vector>

namespace torvale::solve {

// rise_together: those of the asked coordinates (of the curvature, ascending indices of its free ones) that a joint
// step either way shows to rise as their curvature promises; the others remain to be tried one by one. g: the gradient
// at 0.
//
// The slope along coordinate i at the end of a joint step s is promised to be g + H s. What is looked for has another:
// the curvature of what runs away comes from records on the tail of an exponential, and is so slight that a standard
// error moves these records by far more than the tail's length (a rise below 1e-4 means more than a hundred lengths).
// Outwards their slopes then vanish, backwards they explode. They can be as promised only where the joint step leaves
// these records where they are, and then the promise, s H s over them, is nothing: a coordinate to which the joint step
// promises less than half of what it would have alone is not decided by it. Signs are chosen so that coordinates with a
// common effect move it the same way.
std::vector<int> rise_together(FitSurface& surface, const Curvature& curvature, const double* g,
                               const std::vector<int>& asked);

} // namespace torvale::solve
