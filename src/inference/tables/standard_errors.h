#pragma once
// Which standard errors mean something. One rule for all tables of a fit.

#include "model/run_record.h"

namespace torvale::inference {

// Of parameter i: the root of its variance; missing where there is none (no covariance, a parameter that the data do
// not identify or that is held) or where the variance is one by rounding only: below SINGVAR= times what the
// parameter's own curvature alone would give, of which a sound variance has at least the whole.
double standard_error(const model::NX& n, int i);

// moves_along_flat: a function of the parameters with the gradient g (np doubles) moves along a direction in which the
// objective is flat: the data do not determine it.
bool moves_along_flat(const model::NX& n, const double* g);

// Of a function of the parameters with the gradient g (np doubles) and the variance v = g'Cg: missing where the
// function moves along a direction in which the objective is flat, or where v is rounding beside the terms that it is
// the sum of.
double standard_error(const model::NX& n, const double* g, double v);

// Message 503/9431 for each parameter that the objective did not respond to at all.
void warn_without_influence(model::NX& n);

} // namespace torvale::inference
