#include "optimizer/messages/status_messages.h"

#include "optimizer/messages/messages.h"
#include "optimizer/optimizer.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

void report_failure(MINSTR* str, int code)
{
  // NONE has nothing to stop: its failures are told without the general line. A limit says the same by itself.
  if (str->tech != NONE && code != code_limit) send_message(str, named("no_convergence"), severity_warning);
  switch (code) {
  case code_start_objective:
    send_message(str, named("no_objective_at_start"), severity_error);
    break;
  case code_start_derivative:
    send_message(str, named("no_derivatives_at_start"), severity_error);
    break;
  case code_objective:
    send_message(str, named("no_objective_during_optimization"), severity_error);
    break;
  case code_gradient:
    send_message(str, named("no_gradient_during_optimization"), severity_error);
    break;
  case code_no_progress:
    send_message(str, named("stopped_before_convergence"),
                 str->nitr < static_cast<double>(str->mini) ? severity_error : severity_warning, {str->gmax});
    break;
  case code_infeasible:
    send_message(str, named("point_not_made_feasible"), severity_error);
    break;
  case code_newton_search:
    send_message(str, named("newton_line_search_failed"), severity_error);
    break;
  case code_limit:
    send_message(str, str->nitr >= str->maxi ? named("maxiter_reached") : named("maxfunc_reached"), str->zmsg,
                 {str->maxi, str->maxf});
    break;
  case code_time:
    send_message(str, named("time_limit"), severity_warning, {str->upti});
    break;
  case code_no_feasible_start:
    send_message(str, named("no_feasible_start"), severity_error);
    break;
  case code_hessian:
    send_message(str, named("stopped_before_convergence"), severity_error, {str->gmax});
    break;
  default:
    break;
  }
}

} // namespace

void report_status(MINSTR* str, int code)
{
  const double value = static_cast<double>(code);
  if (code >= 1 && code <= 9)
    send_message(str, named("criterion_met"), severity_note, {value});
  else if (code == code_all_fixed)
    send_message(str, named("all_held"), severity_note);
  else if (code > code_pass_count) {
    const int criterion = code - code_pass_count;
    send_message(str, named("limit_while_criterion_met"), severity_note,
                 {static_cast<double>(criterion + 1), static_cast<double>(str->toln[criterion + 10])});
  } else if (code >= 0) {
    if (str->tech != NONE)
      send_message(str, str->nitr == 0.0 ? named("no_iteration_done") : named("ended_without_criterion"),
                   severity_note);
  } else {
    report_failure(str, code);
  }
  if (code <= code_start_objective && code >= code_gradient) return;
  if (str->ipre >= 10)
    send_message(str, named("constraints_violated"), severity_warning);
  else if (str->ipre >= 1)
    send_message(str, named("constraints_hold_loosely"), severity_warning,
                 {std::pow(10.0, str->ipre) * std::max(str->ceps, tiny_threshold)});
  if (code >= 0 && str->tech != NONE && str->ider > 0 && str->gmax > 0.001)
    send_message(str, named("gradient_not_small"), severity_note, {str->gmax});
  if (str->idac != 0) send_message(str, named("active_set_changed"), severity_note);
}

} // namespace torvale::optimizer
