#pragma once
// The metric that a quasi-Newton run starts from where the statement gives none.

#include "model/run_record.h"

namespace torvale::solve {

// start_metric: the optimizer's callback `usmet`. The Hessian in n.metric where that belongs to this point; else the
// sum of the outer products of the subjects' (observations') gradients, which costs no evaluation; where these are too
// few to tell something of every parameter, one-sided differences of gradients. Returns 1 when there is none of these.
int start_metric(optimizer::MINSTR* str);

// metric_follows: whether that sum, at the points that a run comes to, is worth asking for: with random effects, where
// it costs no evaluation, and with enough subjects to stand for a Hessian.
bool metric_follows(const model::NX& n);

} // namespace torvale::solve
