#include "optimizer/optimizer.h"

namespace torvale::optimizer {
namespace {

struct Text {
  int group;
  int number;
  const char* words;
};

constexpr Text texts[] = {
    // Options.
    {352, 452, "Least-squares and norm objectives are not available."},
    {352, 455, "Quadratic problems given by their matrices are not available."},
    {352, 456, "TECHNIQUE=NRLINS is run as TECHNIQUE=NEWRAP."},
    {352, 457, "TECHNIQUE number {0} is not available."},
    {352, 461, "A simplex technique cannot handle linear constraints."},
    {352, 462, "Nonlinear constraints are not available."},
    {352, 463, "UPDATE number {0} does not belong to TECHNIQUE=QUANEW."},
    {352, 464, "UPDATE number {0} does not belong to TECHNIQUE=DUQUAN or DBLDOG."},
    {352, 465, "UPDATE number {0} does not belong to TECHNIQUE=CONGRA."},
    {352, 466, "UPDATE= is ignored: the technique has no update."},
    {352, 467, "HESCAL= is ignored: the technique does not scale the Hessian."},
    {352, 468, "LCDEACT={0} has the wrong sign for this problem and is ignored."},
    {352, 469, "LINESEARCH= is ignored: the technique has no line search."},
    {352, 471, "GRADCHECK is ignored: the gradient comes from differences."},
    {352, 472, "FD= is ignored because FDHESSIAN= is given: analytic gradients are used."},
    {503, 330, "MAXITER={0} is below MINITER={1} and takes its value."},
    {503, 9400,
     "A Hessian by differences costs {0} calls, too many for MAXFUNC={1}: TECHNIQUE=DUQUAN is run in its place."},
    // Reports.
    {549, 1, "No further progress could be made. The largest gradient element is {0}."},
    {549, 2, "The time limit of {0} seconds was reached."},
    {549, 4, "The optimization did not converge."},
    {549, 8, "A point that violates the constraints could not be made feasible."},
    {549, 9, "The line search of the Newton technique failed."},
    {549, 10, "The start was moved to a point that satisfies the bounds and linear constraints."},
    {549, 40, "The step length reached {0}: the objective seems to be unbounded below."},
    {549, 41, "The step length reached {0}: the objective seems to be unbounded above."},
    {549, 46, "No point satisfies the bounds and linear constraints within LCEPSILON={0}."},
    {549, 130, "There is no feasible start."},
    {549, 131, "The objective cannot be computed at the start."},
    {549, 132, "The derivatives of the objective cannot be computed at the start."},
    {549, 133, "The objective cannot be computed during the optimization, or it is unbounded."},
    {549, 134, "The gradient cannot be computed during the optimization."},
    {549, 136, "The largest gradient element at the returned point is {0}, which is not small."},
    {549, 137, "The constraints hold only within the looser tolerance {0}."},
    {549, 138, "The set of active constraints changed in the last iteration."},
    {549, 180, "GRADCHECK: the analytic gradient agrees with differences of the objective (largest error {1})."},
    {549, 181,
     "GRADCHECK: the analytic gradient disagrees with differences of the objective: {0} cases, largest error {1}."},
    {549, 184, "SIGSQ={0} is ignored: the problem is not one of least squares."},
    {549, 185, "The covariance matrix has one singular direction."},
    {549, 188, "The covariance form needs a matrix that is not available; no covariance is computed."},
    {549, 189, "The Hessian is singular. The dependencies among the parameters are listed."},
    {549, 190, "The Hessian is singular. The covariance is its Moore-Penrose inverse."},
    {549, 253, "The constraints do not hold even within a tolerance that was loosened ten times."},
    {549, 255, "The covariance matrix has two singular directions."},
    {549, 256, "The covariance matrix has {0} singular directions."},
    {549, 257, "Some variances are negative: the Hessian is not positive definite at the returned point."},
    {549, 605, "MAXITER={0} iterations were done without convergence."},
    {549, 606, "MAXFUNC={1} objective calls were made without convergence."},
    {549, 607, "Convergence criterion {0} is satisfied."},
    {549, 609, "All parameters are held by active constraints."},
    {549, 611, "A limit was reached while convergence criterion {0} was met {1} times, less often than asked for."},
    {549, 613, "No iteration was done."},
    {549, 614, "The optimization ended without a convergence criterion."},
};

} // namespace

const char* message_text(int group, int number)
{
  for (const Text& text : texts)
    if (text.group == group && text.number == number) return text.words;
  return nullptr;
}

} // namespace torvale::optimizer
