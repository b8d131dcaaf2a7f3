#include "optimizer/optimizer.h"

#include "optimizer/active_set/active_set.h"
#include "optimizer/control/neighbourhood.h"
#include "optimizer/derivatives/objective_access.h"
#include "optimizer/derivatives/units.h"
#include "optimizer/messages/messages.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

bool is_simplex(const MINSTR& str)
{
  return str.tech == NMSIMP || str.tech == NMSIM2;
}

// The values that the criteria compare, and the code that they lead to.
class Tests {
public:
  Tests(MINSTR* record, int job_code) : str(record), start(job_code == 10)
  {
    const double sign = str->imax != 0 ? -1.0 : 1.0;
    f = sign * str->crit;
    const double f_old = start ? f : sign * str->cold;
    decrease = start ? largest : str->cold - str->crit;
    function_threshold = std::max(std::abs(f_old), str->fsiz) * str->ftol;
    gradient_threshold = std::max(std::abs(f_old), str->fsiz) * str->gtol;
    predicted = start ? largest : std::abs(str->pred);
    conjugate = start ? largest : str->gcri;
  }

  int run()
  {
    // No MINITER for a value that is good enough by itself.
    if (str->imax == 0 ? f <= str->atol : f >= str->atol) return code_absconv;
    if (decrease < -str->aftl) return code_no_progress;
    int code = is_simplex(*str) ? simplex_criteria() : criteria();
    if (code == 0 && stalled()) return code_no_progress;
    if (str->nitr < static_cast<double>(str->mini)) code = 0;
    return code;
  }

  double gradient_threshold;
  double predicted;

private:
  // A criterion i holds when it was met in as many successive iterations as its pass count asks for.
  void apply(int i, bool met, int& code)
  {
    str->toln[i + 10] = met ? str->toln[i + 10] + 1 : 0;
    if (met && str->toln[i + 10] >= str->toln[i]) code = i + 1;
  }

  // The last criterion that holds gives the code.
  int criteria()
  {
    int code = 0;
    // A step that was cut short, by failed evaluations, a radius or a constraint, says nothing by its length or by what
    // it gained. The prediction is that of the full step.
    const bool full_step = str->cutf == 0 && str->scut == cut_none;
    apply(1, full_step && decrease <= str->aftl, code);
    apply(2, test_gradient(*str) <= str->agtl, code);
    if (start) return code;
    apply(3, full_step && distance() <= str->axtl, code);
    apply(4, full_step && decrease <= function_threshold, code);
    apply(5, (str->tech == CONGRA ? conjugate : predicted) <= gradient_threshold, code);
    apply(6, full_step && relative_change() <= str->xtol, code);
    return code;
  }

  int simplex_criteria()
  {
    int code = 0;
    apply(1, decrease <= str->aftl, code);
    if (!start) {
      apply(3, str->alfa <= str->axtl || str->gmax <= str->axtl, code);
      apply(6, relative_change() <= str->xtol, code);
    }
    apply(4, decrease <= function_threshold, code);
    // An absolute spread of 1e-6 is generous below 1 and severe above: it is relative there, and below FCONV asks
    // instead.
    const double size = std::abs(f);
    const double spread =
        size > 1.0 ? str->fto2 * size : std::min(str->fto2, std::max(str->ftol * size, tiny_threshold));
    apply(7, predicted <= spread && str->fto2 > 0.0, code);
    return code;
  }

  // Cut steps that gain no more than rounding say nothing of convergence, but many of them in succession lead nowhere.
  bool stalled()
  {
    const bool idle = !start && !is_simplex(*str) && str->scut != cut_none && decrease <= function_threshold;
    str->idle_steps = idle ? str->idle_steps + 1 : 0;
    return str->idle_steps >= 20;
  }

  double distance() const
  {
    double sum = 0.0;
    for (long i = 0; i < str->nvar; ++i) sum += (str->x[i] - str->xold[i]) * (str->x[i] - str->xold[i]);
    return std::sqrt(sum);
  }

  double relative_change() const
  {
    double most = 0.0;
    for (long i = 0; i < str->nvar; ++i) {
      const double d = std::abs(str->x[i] - str->xold[i]);
      const double s = std::max({std::abs(str->x[i]), std::abs(str->xold[i]), str->xsiz});
      double r;
      if (s > tiny_threshold)
        r = s >= 1.0 || d <= 1.0 || d <= s * 1e-4 * largest ? d / s : largest;
      else
        r = d <= tiny_threshold ? 0.0 : largest;
      most = std::max(most, r);
    }
    return most;
  }

  MINSTR* str;
  bool start;
  double f;
  double decrease;
  double function_threshold;
  double conjugate;
};

// A limit or a failure that struck while a criterion was met but not often enough yet says so.
int name_pending_criterion(const MINSTR& str, int code)
{
  if (code != code_no_progress && code != code_limit && code != code_time) return code;
  for (int i = 1; i <= 8; ++i)
    if (str.toln[i] != 0 && str.toln[i + 10] != 0) return code_pass_count + i;
  return code;
}

// The gradient that every later quotient is compared with must be a central one too.
void switch_to_central(MINSTR* str)
{
  const InnerUnits view(str);
  str->fidi = 2;
  if (objective_gradient(str) == 0 && free_dimension(*str) > 0) znlpgmx(str);
}

bool wants_central(const MINSTR& str, const Tests& tests)
{
  return !(test_gradient(str) > str.swfd * str.agtl &&
           tests.predicted > std::max(tests.gradient_threshold * str.swfd, 1e-6));
}

int limits(const MINSTR& str, MINSTR* record)
{
  if (str.nitr >= str.maxi || static_cast<double>(str.nfct) >= str.maxf) return code_limit;
  if (str.clock != nullptr && str.upti < largest && str.clock(record) - str.mtim > str.upti) return code_time;
  return 0;
}

void note_unbounded(MINSTR* str)
{
  if (!str->unbounded_told)
    send_message(str, str->imax == 0 ? named("unbounded_below") : named("unbounded_above"), severity_warning,
                 {str->ssin});
  str->unbounded_told = true;
  str->tbig = 1.0;
}

// ABSCONV has a default only to stop an objective that falls for ever: met, it is no success.
bool beyond_all_bounds(const MINSTR& str)
{
  return std::abs(str.atol) == 1.3407807929943e+154 && str.crit <= -1.3407807929943e+154;
}

int optimality_check(MINSTR* str, int job, int code)
{
  if (code == 0 || std::abs(job) >= 11 || is_missing(str->rtop)) return code;
  if (str->stop != 0 || str->tbig != 0.0 || str->reentered_at == str->nitr) return code;
  const InnerUnits view(str);
  const int purpose = str->indf;
  str->indf = purpose_optimality_check;
  const bool better = znlpnoi(str, job != 10) != 0 || znlpdnc(str) == 0;
  str->indf = purpose;
  if (!better) return code;
  str->reentered_at = str->nitr;
  return code_reenter;
}

} // namespace

int znlptrm(MINSTR* str, int job)
{
  if (str->usfout != nullptr) str->usfout(str);
  const HistoryRow row = make_history_row(str, job);
  const bool iteration = job == 10 || (job > 0 && job % 2 != 0);
  if (str->history != nullptr && iteration && (str->dbug > 1.0 || (str->dbug > 0.0 && job == 10)))
    str->history(str, row);

  Tests tests(str, job);
  int code = 0;
  const bool dropped = str->chac < 0 && (job == 10 || str->cold - str->crit > smallest_normal);
  if (job > 0 && job != 10 && (str->alfa >= str->ssin || beyond_all_bounds(*str))) note_unbounded(str);
  if (job < 0)
    code = name_pending_criterion(*str, job);
  else if (interrupted(*str))
    code = code_objective;
  else if (job == 0)
    code = 0;
  else if (str->nvar > 0 && str->nabc + str->nalc == str->nvar)
    code = code_all_fixed;
  else if (!dropped)
    code = tests.run(); // where the active set has just been reduced no criterion counts

  code = optimality_check(str, job, code);
  if (code == 0 || code == code_reenter) {
    if (const int limit = limits(*str, str); limit != 0) code = limit;
  }
  if (str->fidi % 10 == 3 && !is_simplex(*str) && job != 10 && job != 0) {
    // Forward differences have done what they can: go on with central ones before anything is called converged or
    // failed.
    if (code == code_no_progress) {
      switch_to_central(str);
      code = code_reenter;
    } else if ((code == 0 && wants_central(*str, tests)) || (code >= code_absfconv && code < code_all_fixed)) {
      switch_to_central(str);
      code = 0;
    }
  }
  if (code == 0) str->idac = 0;
  str->rcod = code;
  return code;
}

} // namespace torvale::optimizer
