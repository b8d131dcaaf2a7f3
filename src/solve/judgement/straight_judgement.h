#pragma once
// A second opinion by the parameters themselves, where the bent coordinates of a fit come to their ends.

#include "solve/judgement/judgement.h"

#include <memory>

namespace torvale::solve {

// at_an_end: whether the judgement `judged` in the coordinates c is one of slopes rather than curvature: a variance
// that is small beside its own error, so that its root or its logarithm is all bend; a bound that is active; or a
// Hessian of bent coordinates that is singular or nearly so.
bool at_an_end(const FitCoordinates& c, const Judgement& judged);

// StraightJudgement: the tests of judge by the parameters.
struct StraightJudgement {
  std::unique_ptr<FitCoordinates> coordinates; // straight; null when nothing could be measured
  Judgement judgement;
};

// judge_straight: judges the point x, where the bent coordinates c have their origin and the objective is f, by the
// parameters themselves. judged: the judgement in the bent coordinates. Gradients at the very end of a variance may be
// rounding: what stands at an end is asked a little inside, where that costs nothing. Bounds hold a parameter only
// where they are pressed on by what counts, for at the end of a ridge a variance stands on its bound and moves all the
// same.
StraightJudgement judge_straight(model::NX& n, const FitCoordinates& c, const Judgement& judged,
                                 const std::vector<double>& x, double f);

} // namespace torvale::solve
