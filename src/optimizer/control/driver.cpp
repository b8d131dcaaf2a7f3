#include "optimizer/optimizer.h"

#include "optimizer/active_set/active_set.h"
#include "optimizer/control/arrays.h"
#include "optimizer/covariance/covariance.h"
#include "optimizer/derivatives/difference_interval.h"
#include "optimizer/derivatives/gradient_check.h"
#include "optimizer/derivatives/objective_access.h"
#include "optimizer/derivatives/units.h"
#include "optimizer/messages/messages.h"
#include "optimizer/messages/status_messages.h"
#include "optimizer/techniques/technique.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

ProblemCallback objective_of(const MINSTR& str)
{
  return str.covstr != nullptr ? str.covstr->usfct : nullptr;
}
ProblemCallback gradient_of(const MINSTR& str)
{
  return str.covstr != nullptr ? str.covstr->usgrd : nullptr;
}

void forget_point(MINSTR* str)
{
  str->crit = missing;
  std::fill_n(str->grad, str->nvar, missing);
}

double seconds(MINSTR* str)
{
  return str->clock != nullptr ? str->clock(str) : 0.0;
}

// A feasible point, or the code -10. The start is moved only when it has to be.
int feasible_start(MINSTR* str)
{
  std::copy_n(str->x, str->nvar, str->xold);
  const int result = constrained(*str) ? znlpfea(str) : 0;
  if (result > 0) send_message(str, named("start_moved"), severity_note);
  if (result < 0) {
    send_message(str, named("no_feasible_point"), severity_error, {str->ceps});
    std::copy_n(str->xold, str->nvar, str->x);
    str->ipre = 0;
    znlpfch(str, 1, 0);
    forget_point(str);
    return code_no_feasible_start;
  }
  std::copy_n(str->x, str->nvar, str->xold);
  return 0;
}

int start_stage(MINSTR* str)
{
  if (provide_technique_arrays(str) != 0) return code_start_objective;
  const InnerRun units(str);
  str->tbig = 0.0;
  str->stop = 0;
  str->ipre = 0;
  str->xval_current = false;
  // FD alone begins forward, whatever the run before has come to.
  if (str->continues == 0 && str->fidi == 2 && str->swfd > 0.0) str->fidi = 3;
  forget_curvature(str);
  if (const int code = feasible_start(str); code != 0) return code;
  znlpfch(str, 1, 0);
  str->nbic = 0;
  for (long i = 0; str->bounds != 0 && i < str->nvar; ++i)
    str->nbic += str->iabc[i] == 2 ? 0 : (str->lb[i] > -largest) + (str->ub[i] < largest);
  str->ntec = str->nbec + str->neqc;
  str->ntco = str->ntec + str->ncon;

  std::fill_n(str->grad, str->nvar, missing);
  str->indf = purpose_start;
  if (objective_value(str, objective_of(*str)) != 0) {
    forget_point(str);
    return code_start_objective;
  }
  str->cold = str->crit;
  str->dfes = missing;
  if (str->cfdh != 0 && znlpfdh(str, str->cfdh) != 0) return code_start_objective;
  if (str->ider == 0) return 0;
  if (objective_gradient(str, gradient_of(*str)) != 0) {
    std::fill_n(str->grad, str->nvar, missing);
    return code_start_derivative;
  }
  znlpfta(str);
  return 0;
}

int check_derivatives(MINSTR* str, int dtst)
{
  if ((str->gchk == 0 && dtst == 0) || str->ider == 0 || gradient_by_differences(*str)) return 0;
  return check_gradient(str, str->gchk != 1) < 0 ? code_start_derivative : 0;
}

int run_technique(MINSTR* str)
{
  const InnerRun units(str);
  switch (str->tech) {
  case TRUREG:
    return znlptre(str);
  case NEWRAP:
  case NRLINS:
    return znlpnra(str);
  case NRRIDG:
    return znlpnrr(str);
  case DBLDOG:
    return znlpddl(str);
  case QUANEW:
    return znlpqun(str);
  case DUQUAN:
    return znlpdqn(str);
  case CONGRA:
    return znlpcog(str);
  case NMSIMP:
    return znlpnms(str);
  case NMSIM2:
    return znlpnm2(str);
  default:
    return 0;
  }
}

// The returned point is evaluated once more, so that whatever the caller keeps beside the objective belongs to it.
int final_evaluation(MINSTR* str, int code)
{
  str->indf = purpose_final;
  if (objective_value(str, objective_of(*str)) != 0) {
    str->crit = missing;
    return code_objective;
  }
  str->cold = str->crit;
  str->pcrit = str->imax != 0 ? -str->crit : str->crit;
  if (str->cfdh != 0) znlpfdh(str, str->cfdh);
  // Analytic gradients come with the value; differences are only formed when the technique used none or others.
  if (str->usgrd == nullptr && str->ider == 0 && str->covstr == nullptr) return code;
  if (objective_gradient(str, gradient_of(*str)) != 0) return code_gradient;
  return code;
}

// The tolerance at which the point counts as feasible, and the active set there.
void final_classification(MINSTR* str)
{
  if (!constrained(*str)) {
    znlpgmx(str);
    return;
  }
  for (str->ipre = 0; znlpfch(str, 1, str->ipre) != 0 && str->ipre < 10; ++str->ipre) {
  }
  znlpfta(str);
}

void covariance_stage(MINSTR* str)
{
  if (str->has_point != 0 && str->covstr != nullptr) znlpcma(str, 1);
}

int optimization_stage(MINSTR* str)
{
  str->indf = purpose_iteration;
  const double start = seconds(str) - (str->continues != 0 ? str->mtim : 0.0);
  str->mtim = start;
  int code = 0;
  if (str->tech != NONE) {
    const double first_step = str->salf; // for the next run too: a technique forgets it after some iterations
    const bool continues = str->continues != 0;
    if (str->maxi <= (continues ? str->nitr : 0.0) || str->maxf <= (continues ? static_cast<double>(str->nfct) : 0.0))
      code = code_limit;
    else if (str->upti <= (continues ? seconds(str) - start : 0.0))
      code = code_time;
    else
      code = run_technique(str);
    str->salf = first_step;
  }
  str->mtim = seconds(str) - start;
  const bool lost = (code <= code_start_objective && code >= code_gradient) || code == code_hessian;
  if (!lost) {
    code = final_evaluation(str, code);
    if (code != code_objective && code != code_gradient) final_classification(str);
  }
  str->rcod = code;
  report_status(str, code);
  str->has_point = lost ? 0 : 1;
  if (str->covariance_waits == 0) covariance_stage(str);
  return code;
}

} // namespace

void continue_run(const MINSTR& from, MINSTR* to)
{
  to->continues = 1;
  to->nitr = from.nitr;
  to->nfct = from.nfct;
  to->ngrd = from.ngrd;
  to->nhes = from.nhes;
  to->nhup = from.nhup;
  to->nlis = from.nlis;
  to->ires = from.ires;
  to->mtim = from.mtim;
}

int znlpdrv(MINSTR* str, int job, int, int dtst, int)
{
  str->job = job;
  int code = 0;
  if (job == 1) {
    code = start_stage(str);
    if (code == 0) code = check_derivatives(str, dtst);
    str->pcrit = str->imax != 0 ? -str->crit : str->crit;
    if (str->covstr != nullptr) znlpcma(str, 0);
    if (code != 0) report_status(str, code);
  } else if (job == 2) {
    code = optimization_stage(str);
  } else {
    code = str->rcod;
    covariance_stage(str);
  }
  str->rcod = code;
  return code;
}

} // namespace torvale::optimizer
