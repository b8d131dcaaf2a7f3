#pragma once
// Verdict: what is known about a fit at its end. Written once, by the solve room when it has judged the fit; read by
// the tables of the fit, the report and the driver.

#include "host/values/missing.h"

#include <string>
#include <vector>

namespace torvale::model {

enum class FitOutcome {
  not_judged,         // no optimization (TECHNIQUE=NONE, no free parameter), or not judged yet
  confirmed,          // a minimum, definite on the free space
  confirmed_singular, // a minimum with a null space: some parameters are not identified
  unconfirmed,        // no Hessian to judge by: the technique's own metric stands in
  user_criterion,     // a criterion that the user gave stopped the fit; what is left to gain stands in gain
  not_minimum,        // something is left to gain and the budget or the means are used up
  not_evaluated       // no starting value at which the objective can be computed
};

// A combination of parameters that the objective does not depend on: names and weights on the user's scale, the
// largest 1.
struct FlatDirection {
  std::vector<int> parameter; // places in parmstr
  std::vector<double> weight;
};

struct Verdict {
  FitOutcome outcome = FitOutcome::not_judged;
  double gain = host::missing;     // what a Newton step would still take off -2 log L (g'H^-1 g); missing: not known
  double accuracy = host::missing; // noise of the objective in -2 log L
  std::vector<FlatDirection> flat; // the null space of the Hessian
  std::vector<double>
      null_basis; // the same as an orthonormal basis: np doubles a direction, directions one after another
  std::vector<char> identified;  // per parameter: 0 has a component in the null space and so no standard error
  std::vector<int> at_bounds;    // parameters at an active bound
  std::vector<int> vanished;     // parameters that are the variance of a random effect and ended at 0
  bool singular_effects = false; // the covariance matrix of random effects ended on its edge
  std::vector<int> separated;    // parameters along which the likelihood goes on rising without end
  bool indefinite = false;       // the Hessian has a negative eigenvalue on the free space
  bool left_start = true;        // the fit moved away from its starting values
  double quadrature_change =
      host::missing;              // change of -2 log L with more points at the estimates; missing: not evaluated
  std::string quadrature_reason;  // why not
  bool cut_short_by_qmax = false; // the number of points was chosen as far as QMAX= goes, and has not settled
  bool unsettled = false;         // with more points the estimates are no minimum
};

} // namespace torvale::model
