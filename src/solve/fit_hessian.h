#pragma once
// The Hessian of the objective where subjects are many and small: differences of gradients along directions of their
// own.

#include "model/run_record.h"

namespace torvale::solve {

// Parameters that act on a record through one number, its predictor p = x'b + ..., are not moved one by one. With g_s
// the gradient of subject s and r its rows,
//     d^2 f / d theta d b' = sum over s, over r:  (d g_s / d p_r) x_r',
// and as subjects have nothing in common but the parameters, the predictors of the first rows of all subjects are moved
// in one evaluation, those of the second rows in the next. Two evaluations for each row that a subject has at most, and
// for each of the other parameters, in place of two for each parameter.

// fit_hessian: callback of the covariance step: the Hessian of the objective at str->x into str->hess, by central
// differences. Falls back on differences parameter by parameter where the model cannot be evaluated nearby.
int fit_hessian(optimizer::MINSTR* str);

// fit_hessian_pays: whether it takes fewer evaluations than differences parameter by parameter. Call when programs,
// store and subject index stand.
bool fit_hessian_pays(model::NX& n);

} // namespace torvale::solve
