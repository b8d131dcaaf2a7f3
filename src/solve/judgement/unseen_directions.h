#pragma once
// Ridges of random effects, as the likelihood of every subject tells.

#include "model/run_record.h"

#include <vector>

namespace torvale::solve {

// unseen_directions: directions in the parameters of G along which the likelihood of no subject changes at x, where
// the objective has its estimates: two effects that enter by their sum, say. Points that follow each effect break such
// a ridge, and may make its end the lowest point; but what they change is little in each subject's gradient, and less
// with `finer` points. Data that tell the effects apart show in the gradients of the subjects, however slight the
// curvature of their sum. Each direction by all parameters. Leaves the points in use in place, without an evaluation.
std::vector<std::vector<double>> unseen_directions(model::NX& n, const std::vector<double>& x, int finer);

} // namespace torvale::solve
