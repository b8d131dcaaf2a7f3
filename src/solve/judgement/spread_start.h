#pragma once
// A start from which a response can be told: where a fit ends with parameters of which the likelihood knows nothing, it
// began where it knew nothing of them.

#include "model/run_record.h"
#include "solve/judgement/judgement.h"

#include <vector>

namespace torvale::solve {

// lost_parameters: of the point x, judged in coordinates c, the ordinary parameters that ran away, that move along a
// ridge, or that may be halved and doubled at no cost.
std::vector<int> lost_parameters(model::NX& n, const FitCoordinates& c, const Judgement& judged,
                                 const std::vector<double>& x, double f);

// spread_start: from the starting values each of these parameters in turn at the power of two times its start (up to 32
// either way) where the objective is lowest. False when none is lower than the start.
bool spread_start(model::NX& n, const std::vector<int>& lost, const std::vector<double>& start, std::vector<double>& x);

} // namespace torvale::solve
