#pragma once
// A start from which a response can be told: where a fit ends with parameters of which the likelihood knows nothing, it
// began where it knew nothing of them.

#include "model/run_record.h"
#include "solve/judgement/judgement.h"

#include <vector>

namespace torvale::solve {

// lost_parameter: whether the point x, judged in coordinates c, has a parameter that ran away, or that may be halved
// and doubled at no cost.
bool lost_parameter(model::NX& n, const FitCoordinates& c, const Judgement& judged, const std::vector<double>& x,
                    double f);

// spread_start: from the starting values each parameter in turn at the power of two times its start (up to 32 either
// way) where the objective is lowest. False when none is lower than the start.
bool spread_start(model::NX& n, const std::vector<double>& start, std::vector<double>& x);

} // namespace torvale::solve
