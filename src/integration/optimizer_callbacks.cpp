// The objective as the optimizer sees it.

#include "host/messages/names/methods.h"
#include "host/messages/names/optimization.h"
#include "integration/kept_evaluation.h"
#include "integration/objective.h"

#include "evaluation/likelihood_programs.h"

#include <algorithm>

namespace torvale::integration {

using model::FitState;
using model::NX;
using optimizer::MINSTR;

namespace {

// Evaluates at the optimizer's point, and hands value and gradient over. A stop that somebody asked for, or that the
// program's own STOP or ABORT makes, ends the optimization.
int evaluate(MINSTR* str, NX& n)
{
  // The covariance begins where the technique has ended; what follows it is not the technique's until it is started
  // anew.
  if (n.host != nullptr && str->indf == optimizer::purpose_final) n.host->stages().enter(host::Stage::covariance);
  if (str->x != n.parm.data()) n.parm.assign(str->x, str->x + n.nparm);
  const int rc = recall_evaluation(n) ? 0 : tvllike(n);
  str->crit = n.objfun;
  if (rc > 1 || (n.host != nullptr && n.host->interrupted())) str->stop = 1;
  return rc;
}

void hand_over_gradient(MINSTR* str, const FitState& n)
{
  if (str->grad != n.objgrad.data()) std::copy(n.objgrad.begin(), n.objgrad.end(), str->grad);
}

} // namespace

int nlpfunc(MINSTR* str)
{
  ++str->nfct;
  NX& n = *static_cast<NX*>(str->comstr);
  const int rc = evaluate(str, n);
  // The gradient is there, but a caller that asked for the value alone keeps what it has in grad.
  if (n.dograd && str->ifdr >= 2) hand_over_gradient(str, n);
  if (n.dograd)
    n.parmlast = n.parm;
  else
    n.parmlast.clear();
  return rc;
}

int nlpfunclog(MINSTR* str)
{
  const int rc = nlpfunc(str);
  const NX& n = *static_cast<const NX*>(str->comstr);
  n.host->log().xpmlog(message::evaluation_objective{.count = str->nfct, .objective = n.objfun});
  return rc;
}

int nlpgrad(MINSTR* str)
{
  ++str->ngrd;
  NX& n = *static_cast<NX*>(str->comstr);
  // Compared as values: a point that is equal but for the sign of a zero has the same gradient.
  const bool known = n.dograd && n.parmlast.size() == static_cast<std::size_t>(n.nparm) &&
                     std::equal(n.parmlast.begin(), n.parmlast.end(), str->x);
  if (known) {
    hand_over_gradient(str, n);
    return 0;
  }
  if (n.host != nullptr) n.host->log().xpmlog(message::gradient_before_objective);
  n.raise(4);
  if (!evaluation::can_evaluate(n).gradient) return 1;
  n.dograd = true;
  const double crit = str->crit;
  const int rc = evaluate(str, n);
  hand_over_gradient(str, n);
  str->crit = crit; // the gradient callback leaves the objective of the last function call
  n.parmlast = n.parm;
  return n.failed ? 1 : rc;
}

} // namespace torvale::integration
