#pragma once
// What an integration leaves beside the fit: the gradients of the subjects (SUBGRADIENT=), the points in use (OUTQ=),
// the accuracy of importance sampling.

#include "model/run_record.h"

namespace torvale::inference {

// open_method_outputs: as open_fit_outputs. OUTQ= is dropped with a warning where there are no points.
int open_method_outputs(model::NX& n);

// write_points: the point set in use, a row per joint point: raw abscissas of every dimension, the deepest level first,
// and the log of the weight for exp(-x^2); of importance sampling the sample alone.
void write_points(model::NX& n);

// write_subject_gradients: a row per subject of the outermost level, or per record without random effects. Returns 0 or
// 1012.
int write_subject_gradients(model::NX& n);

// write_importance_sampling: with METHOD=ISAMP the Monte Carlo error of the log likelihood, and by how much this method
// shifts it: in the log and as table "ImportanceSampling". Returns 0 or the engine's code above 2.
int write_importance_sampling(model::NX& n);

} // namespace torvale::inference
