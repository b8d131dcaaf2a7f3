#pragma once
// The metric that a quasi-Newton run starts from where the statement gives none.

#include "model/run_record.h"

#include <cstddef>
#include <vector>

namespace torvale::solve {

// start_metric: the optimizer's callback `usmet`. The Hessian in n.metric where that belongs to this point; else the
// sum of the outer products of the subjects' (observations') gradients, which costs no evaluation; where these are too
// few to tell something of every parameter, one-sided differences of gradients. Returns 1 when there is none of these.
int start_metric(optimizer::MINSTR* str);

// unit_of: what the sum of outer products (packed) says that parameter j, which is x, is known by: 1 / sqrt of its
// diagonal. Where gradients by it are 0 but for rounding, as by the slope of a covariate that stands symmetrically
// around 0 in subjects that are all alike, or where there is no sum, its own size: 1 + |x|.
double unit_of(const std::vector<double>& products, std::size_t j, double x);

// metric_follows: whether that sum, at the points that a run comes to, is worth asking for: with random effects, where
// it costs no evaluation, and with enough subjects to stand for a Hessian.
bool metric_follows(const model::NX& n);

} // namespace torvale::solve
