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
  if (str->tech != NONE && code != code_limit) send_message(str, 549, 4, severity_warning);
  switch (code) {
  case code_start_objective:
    send_message(str, 549, 131, severity_error);
    break;
  case code_start_derivative:
    send_message(str, 549, 132, severity_error);
    break;
  case code_objective:
    send_message(str, 549, 133, severity_error);
    break;
  case code_gradient:
    send_message(str, 549, 134, severity_error);
    break;
  case code_no_progress:
    send_message(str, 549, 1, str->nitr < static_cast<double>(str->mini) ? severity_error : severity_warning,
                 {str->gmax});
    break;
  case code_infeasible:
    send_message(str, 549, 8, severity_error);
    break;
  case code_newton_search:
    send_message(str, 549, 9, severity_error);
    break;
  case code_limit:
    send_message(str, 549, str->nitr >= str->maxi ? 605 : 606, str->zmsg, {str->maxi, str->maxf});
    break;
  case code_time:
    send_message(str, 549, 2, severity_warning, {str->upti});
    break;
  case code_no_feasible_start:
    send_message(str, 549, 130, severity_error);
    break;
  case code_hessian:
    send_message(str, 549, 1, severity_error, {str->gmax});
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
    send_message(str, 549, 607, severity_note, {value});
  else if (code == code_all_fixed)
    send_message(str, 549, 609, severity_note);
  else if (code > code_pass_count) {
    const int criterion = code - code_pass_count;
    send_message(str, 549, 611, severity_note,
                 {static_cast<double>(criterion + 1), static_cast<double>(str->toln[criterion + 10])});
  } else if (code >= 0) {
    if (str->tech != NONE) send_message(str, 549, str->nitr == 0.0 ? 613 : 614, severity_note);
  } else {
    report_failure(str, code);
  }
  if (code <= code_start_objective && code >= code_gradient) return;
  if (str->ipre >= 10)
    send_message(str, 549, 253, severity_warning);
  else if (str->ipre >= 1)
    send_message(str, 549, 137, severity_warning, {std::pow(10.0, str->ipre) * std::max(str->ceps, tiny_threshold)});
  if (code >= 0 && str->tech != NONE && str->ider > 0 && str->gmax > 0.001)
    send_message(str, 549, 136, severity_note, {str->gmax});
  if (str->idac != 0) send_message(str, 549, 138, severity_note);
}

} // namespace torvale::optimizer
