#pragma once
// A fit once more from its starting values, where its first end is in doubt.

#include "solve/judgement/fit_coordinates.h"

#include <vector>

namespace torvale::solve {

// fresh_start: trust-region steps from `start`, measured by the parameters themselves, half of them at first: a first
// step that was too long may have left the region that has the minimum. scales: units of parameters that start at zero;
// may be empty. On return x holds the parameters of the best point, f the objective there. False when nothing was
// gained.
bool fresh_start(model::NX& n, const std::vector<double>& start, const std::vector<double>& scales,
                 std::vector<double>& x, double& f);

} // namespace torvale::solve
