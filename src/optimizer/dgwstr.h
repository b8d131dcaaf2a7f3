#pragma once

#include "optimizer/minstr.h"

namespace torvale::optimizer {

// DGWSTR: state of a trust-region iteration, shared by TRUREG and DBLDOG. Named after Dennis, Gay and Welsch, whose
// decision routine it serves (An Adaptive Nonlinear Least-Squares Algorithm, ACM TOMS 7, 1981).
struct DGWSTR {
  MINSTR* minstr = nullptr; // the problem

  // Decision (assess).
  int irc = 4;       // outcome: 1 poor, shrink; 3 and 4 accept; 5 try a larger radius
  int rest = 0;      // 2: a better step is saved; 3: the last trial was worse than the saved one, go back to it
  long nfgc = 0;     // nfct at the saved step
  long rinc = 0;     // radius increases tried in this iteration; negative after a decrease
  double clgd = 0;   // objective of the saved step
  double plgd = 0;   // predicted reduction of the saved step
  double dsts = 0;   // length of the saved step
  double gtsl = 0;   // slope of the saved step
  double radf = 1;   // factor of the radius for the next step
  double decf = 0.5; // factor that decreases the radius
  double incf = 2;   // least factor that increases it

  // The step.
  double rad0 = 0;                // radius that the step was computed for
  double dst0 = 0;                // length of the Newton step; negative: the Hessian is indefinite
  double dstn = 0;                // length of the step taken, in scaled parameters
  double gtst = 0;                // slope g's of the step
  double nred = 0;                // reduction predicted where the Newton step is known, else 0
  double newton_gain = 0;         // reduction predicted for the Newton step itself; only where dst0 is known
  double rldx = 0;                // largest relative change of a parameter
  double dgnm = 0;                // norm of the scaled gradient
  double scaled_hessian_form = 0; // g'Hg of the scaled gradient (gthg), for the Cauchy point
  double gfac = 0;                // factor of the gradient in a dogleg step
  double nfac = 0;                // factor of the Newton step in a dogleg step

  // The subproblem (gqtstp).
  long kagqt = -1; // rounds used; negative: first call for this Hessian
  double emin = 0; // Gerschgorin lower bound of the eigenvalues
  double emax = 0; // Gerschgorin upper bound
};

} // namespace torvale::optimizer
