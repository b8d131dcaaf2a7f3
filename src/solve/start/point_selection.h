#pragma once
// The number of quadrature points: chosen at the start, once more at the estimates, and questioned at the end.

#include "model/run_record.h"

namespace torvale::solve {

// settle_points: builds the point set and evaluates at n.parm; without QPOINTS= raises the number of points until the
// objective's relative change is below qtol, and settles on the smaller of the last two counts. Returns 0; 1 when the
// objective has no value here whatever the number of points (another grid point may have one); 2 when qmax was not
// enough (message 503/270).
int settle_points(model::NX& n);

// What is known of the number of points at a point of the fit.
struct PointsAsked {
  std::vector<double> at; // the point; empty: nothing is known
  int in_use = 0;         // that are enough there, per dimension
  int finer = 0;          // a larger number that was tried; 0: none
  double objective = 0.0; // the sum over these
  // Whether it is of n's optimizer's point, and of the number of points in use.
  bool here(const model::NX& n) const;
};

// chooses_points: whether the number of points is the fit's to choose.
bool chooses_points(const model::NX& n);

// more_points: the choice of the number of points made once more at the estimates, from the number in use on. What
// finer_points change tells whether they are enough; where it says no, or costs too much, the next count does. True
// when a larger one was chosen: the points then are in place, and the fit has to go on with them. Passing QMAX= is
// noted in the verdict. Evaluates nothing where `asked` has the answer, and leaves it there.
bool more_points(model::NX& n, PointsAsked& asked);

// check_points: how much -2 log L at the estimates changes with finer_points(N) per dimension in place of N, into the
// verdict; left out, with the reason, where that evaluation would cost more than 125 of the fit's. A change above 0.1
// is a warning, and so is a number that QMAX= has cut short. Takes the larger number's sum from `asked` where it has
// it.
void check_points(model::NX& n, const PointsAsked& asked);

// finer_points: the number of points per dimension that questions `points`: twice as many and one, and five for one
// where they are affordable. Three points leave the sixth moment of the rule short, by what cancels all that they add
// to one point where third and fourth derivatives of an integrand go like those of exp (counts and gamma responses).
int finer_points(const model::NX& n, int points);

// affordable_points: whether an evaluation with so many points per dimension may be spent on questioning a fit that
// has in_use: at most 125 evaluations of the fit, and 20,000 points of an innermost subject.
bool affordable_points(const model::NX& n, int in_use, int points);

// take_points: so many points from here on; the next evaluation is made with them. A set that cannot be built ends the
// group: every evaluation would need it.
void take_points(model::NX& n, int points);

} // namespace torvale::solve
