#include "solve/judgement/fit_codes.h"

#include "host/messages/names/optimizer.h"
#include "optimizer/messages/messages.h"
#include "optimizer/optimizer.h"
#include "solve/course/course.h"
#include "syntax/statement_names.h"

namespace torvale::solve {

using model::ModelLists;
using model::NX;
using optimizer::MINSTR;
using syntax::torvale_slot;

// Techniques that carry an approximation of the Hessian; the others use the true one, or none at all.
bool approximates_hessian(int tech)
{
  return tech == optimizer::QUANEW || tech == optimizer::DUQUAN || tech == optimizer::DBLDOG ||
         tech == optimizer::CONGRA;
}

bool met_criterion(int code)
{
  return (code > 0 && code < optimizer::code_all_fixed) || code > optimizer::code_pass_count;
}

// Failures of a technique that leave a point to go on from.
bool stuck(int code)
{
  return code == optimizer::code_no_progress || code == optimizer::code_objective || code == optimizer::code_gradient ||
         code == optimizer::code_newton_search || code == optimizer::code_hessian;
}

// The options of the criteria with the codes 1 to 9, and of their counts.
bool given_by_user(const ModelLists& n, int code)
{
  using enum syntax::torvale_slot;
  constexpr syntax::torvale_slot options[] = {absconv, absfconv, absgconv, absxconv, fconv,
                                              gconv,   xconv,    fconv2,   gconv2};
  const int criterion = code > 100 ? code - 100 : code;
  return met_criterion(code) && criterion <= 9 && n.proc->statements.front().given(options[criterion - 1]);
}

// A limit that the user did not give is the technique's own; what goes on from there has one of its own.
bool default_limit(const ModelLists& n, int code)
{
  const auto& procedure = n.proc->statements.front();
  return code == optimizer::code_limit && !procedure.given(torvale_slot::maxiter) &&
         !procedure.given(torvale_slot::maxfunc);
}

void extend_default_limits(NX& n)
{
  constexpr int more_iterations = 200;
  const auto& procedure = n.proc->statements.front();
  MINSTR& str = *n.str;
  if (!procedure.given(torvale_slot::maxiter)) str.maxi += more_iterations;
  const double calls = n.nparm + 4.0; // of an iteration with its Hessian
  if (!procedure.given(torvale_slot::maxfunc)) str.maxf += more_iterations * (str.fidi == 0 ? calls : calls * calls);
}

bool limits_reached(const MINSTR& str)
{
  return str.nitr >= str.maxi || static_cast<double>(str.nfct) >= str.maxf || str.mtim >= str.upti;
}

bool out_of_iterations(const NX& n)
{
  const auto& procedure = n.proc->statements.front();
  const MINSTR& str = *n.str;
  const bool iterations = str.nitr >= str.maxi && !procedure.given(torvale_slot::maxiter);
  const bool calls = static_cast<double>(str.nfct) >= str.maxf && !procedure.given(torvale_slot::maxfunc);
  return (iterations || calls) && str.mtim < str.upti;
}

int code_of_failure(NX& n, double maxiter, double maxfunc)
{
  const MINSTR& str = *n.str;
  n.optimizer_messages.clear();
  if (!limits_reached(str)) return optimizer::code_no_progress;
  if (str.mtim >= str.upti) {
    add_message(n, status_message::time_limit, optimizer::severity_warning, {str.upti});
    return optimizer::code_time;
  }
  const auto limit = str.nitr >= str.maxi ? status_message::maxiter_reached : status_message::maxfunc_reached;
  add_message(n, limit, str.zmsg, {maxiter, maxfunc});
  return optimizer::code_limit;
}

void add_message(NX& n, host::MessageCode code, int severity, std::initializer_list<double> values)
{
  optimizer_message(n.str.get(), code.group, code.number, severity, values.begin(), static_cast<int>(values.size()));
}

} // namespace torvale::solve
