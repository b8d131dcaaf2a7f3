#pragma once
// A second opinion by the parameters themselves, where the bent coordinates of a fit come to their ends.

#include "solve/judgement/judgement.h"

#include <memory>

namespace torvale::solve {

// ends_at_zero: coordinates of `free` that are parameters, far smaller than their error, and have no other side of 0 to
// go to, whether a bound says so or not (a variance in a log likelihood that is written out). What differences know of
// them there may be rounding.
std::vector<int> ends_at_zero(FitSurface& surface, const std::vector<int>& free);

// StraightJudgement: the tests of judge by the parameters.
struct StraightJudgement {
  std::unique_ptr<FitCoordinates> coordinates; // straight; null when there is nothing to ask, or nothing was measured
  Judgement judgement;
  bool rounding = false; // derivatives at x are: the fit is better off where it was judged
};

// judge_straight: judges the point x, where the bent coordinates c have their origin and the objective is f, by the
// parameters themselves, where the judgement `judged` in c is one of slopes or rounding rather than curvature: a
// variance that is small beside its own error, so that its root or its logarithm is all bend; a bound that is active;
// an end at zero; or a Hessian of bent coordinates that is singular or nearly so. Gradients at the very end of a
// variance may be rounding: what stands at an end is asked a little inside, where that costs nothing. Bounds hold a
// parameter only where they are pressed on by what counts, for at the end of a ridge a variance stands on its bound and
// moves all the same.
StraightJudgement judge_straight(model::NX& n, FitCoordinates& c, const Judgement& judged, const std::vector<double>& x,
                                 double f);

} // namespace torvale::solve
