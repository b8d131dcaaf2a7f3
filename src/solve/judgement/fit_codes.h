#pragma once
// Termination codes as the end of a fit reads them: who stopped it, what it may still spend, what it says.

#include "host/messages/messages.h"
#include "model/run_record.h"

#include <initializer_list>

namespace torvale::solve {

// True for techniques that carry an approximation of the Hessian; the others use the true one, or none at all.
bool approximates_hessian(int tech);

// met_criterion: the code of a convergence criterion. given_by_user: of one whose option the program has. stuck: of a
// failure that leaves a point to go on from. default_limit: of a limit that the program did not set.
bool met_criterion(int code);
bool given_by_user(const model::ModelLists& n, int code);
bool stuck(int code);
bool default_limit(const model::ModelLists& n, int code);

// extend_default_limits: 200 more iterations, and the calls that they take, where the limits are the defaults.
void extend_default_limits(model::NX& n);
bool limits_reached(const optimizer::MINSTR& str);
// out_of_iterations: a limit is reached that the program did not set.
bool out_of_iterations(const model::NX& n);

// code_of_failure: the code of a fit that did not get to a minimum; its message replaces those of the technique, and
// tells MAXITER and MAXFUNC as the program (or the default) has them.
int code_of_failure(model::NX& n, double maxiter, double maxfunc);

// add_message: one of the optimizer's own messages, as if it had sent it.
void add_message(model::NX& n, host::MessageCode code, int severity, std::initializer_list<double> values);

} // namespace torvale::solve
