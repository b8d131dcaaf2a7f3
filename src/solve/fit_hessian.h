#pragma once
// The Hessian of the objective for the covariance of the estimates: central differences of gradients.

#include "model/run_record.h"

namespace torvale::solve {

// Each column costs two evaluations with a gradient, which start from predicted modes (start/hessian_columns.h).
// Parameters that act on a record through one number, its predictor p = x'b + ..., need not be moved one by one. With
// g_s the gradient of subject s and r its rows,
//     d^2 f / d theta d b' = sum over s, over r:  (d g_s / d p_r) x_r',
// and as subjects have nothing in common but the parameters, the predictors of the first rows of all subjects are moved
// in one evaluation, those of the second rows in the next. Two evaluations for each row that a subject has at most, and
// for each of the other parameters: where these are fewer they are taken.

// fit_hessian: callback of the covariance step: the Hessian of the objective at str->x, a point that the fit stands at,
// into str->hess. Falls back on the optimizer's differences where the model cannot be evaluated nearby.
int fit_hessian(optimizer::MINSTR* str);

} // namespace torvale::solve
