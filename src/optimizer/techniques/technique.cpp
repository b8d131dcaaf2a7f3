#include "optimizer/techniques/technique.h"

#include "optimizer/active_set/active_set.h"
#include "optimizer/derivatives/difference_interval.h"
#include "optimizer/derivatives/objective_access.h"
#include "optimizer/derivatives/units.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace torvale::optimizer {

int begin_technique(MINSTR* str, bool with_gradient)
{
  if (str->continues == 0) {
    str->nitr = 0.0;
    str->nfct = str->ngrd = str->nhes = str->nhup = str->nlis = str->ires = 0;
  }
  str->itre = str->null = str->idle_steps = 0;
  str->scut = cut_none;
  reset_change(str);
  str->cutf = 0;
  str->reentered_at = -1.0;
  str->unbounded_told = false;
  str->tbig = 0.0;
  std::fill(str->toln + 11, str->toln + 19, 0L);
  // Nothing is known of these before the first direction, and nothing may look converged by them.
  str->pred = str->gcri = str->gihg = largest;
  str->ridg = str->lamb = str->rhor = 0.0;
  str->dfes = missing;
  str->alfa = 0.0;
  str->stub = largest;
  str->trial = 0.0;

  // The start stage has been here and left its point in xold; only a caller that moved x in between pays for another
  // call.
  const auto bytes = sizeof(double) * static_cast<std::size_t>(str->nvar);
  const bool known = str->job == 2 && str->rcod == 0 && std::memcmp(str->x, str->xold, bytes) == 0;
  if (!known) {
    if (objective_value(str) != 0) return code_start_objective;
    if (with_gradient && objective_gradient(str) != 0) return code_start_derivative;
  }
  str->cold = str->crit;
  znlpfch(str, 1, 0);
  if (with_gradient) znlpgmx(str);
  return 0;
}

void begin_cycle(MINSTR* str)
{
  str->alfa = str->salf;
  str->itre = 0;
  if (str->nitr == 0.0) return;
  ++str->ires;
  forget_curvature(str);
}

int test_termination(MINSTR* str, int job)
{
  const UserUnits view(str);
  return str->uster(str, job);
}

int end_technique(MINSTR* str, int code)
{
  if (str->stop != 0) return code_objective; // whatever failed because of it
  return code < 0 ? test_termination(str, code) : code;
}

void remember(MINSTR* str)
{
  str->scut = cut_none;
  str->cold = str->crit;
  std::copy_n(str->x, str->nvar, str->xold);
  std::copy_n(str->grad, str->nvar, str->gold);
}

void go_back(MINSTR* str)
{
  str->crit = str->cold;
  std::copy_n(str->xold, str->nvar, str->x);
  std::copy_n(str->gold, str->nvar, str->grad);
}

int settle_constraints(MINSTR* str, const double* d)
{
  reset_change(str);
  if (str->nlis > 0 && str->nlis <= str->smit && str->alfa >= str->smax) str->scut = cut_radius;
  if (!constrained(*str)) {
    znlpgmx(str);
    return 0;
  }
  if (const long c = first_touched(*str, d); c >= 0) str->scut = c < str->nvar ? cut_bound : cut_row;
  if (znlpfch(str, 0, str->ipre) != 0) {
    if (znlpfea(str) < 0) return code_infeasible;
    znlpfch(str, 1, 0);
    if (objective_value(str) != 0 || objective_gradient(str) != 0) return code_infeasible;
    znlpgmx(str);
    return 1;
  }
  znlpact(str, d);
  znlpgmx(str);
  znlpdac(str);
  return 0;
}

void correct_prediction(MINSTR* str, double modelled)
{
  const double noise = std::abs(str->cold) * str->ftol;
  if (!(str->pred > noise) || !(modelled > 0.0)) return;
  double before = 0.0, after = 0.0; // slopes of the step
  for (long i = 0; i < str->nvar; ++i) {
    const double s = str->x[i] - str->xold[i];
    before += s * str->gold[i];
    after += s * str->grad[i];
  }
  const double by_values = 2.0 * (str->crit - str->cold - before);
  const double observed = std::max({after - before, by_values, 1e-8 * modelled});
  if (observed < modelled) str->pred *= modelled / observed;
}

double* free_hessian(MINSTR* str)
{
  if (objective_hessian(str) != 0) return nullptr;
  if (str->opro == 0 && str->nabc == 0) return str->hess;
  znlpsym(*str, str->hess, str->hpro, str->awrk);
  return str->hpro;
}

} // namespace torvale::optimizer
