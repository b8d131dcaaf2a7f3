#pragma once
// The pictures of one fit.

#include "host/results/results.h"
#include "inference/pictures/picture_data.h"
#include "sampling/draws.h"

#include <vector>

namespace torvale::report {

// All pictures that have a meaning for the fit, in reading order. data: null when the model could not be evaluated at
// the estimates; then only pictures of the tables are drawn. sample: without chains when nothing was drawn.
std::vector<host::Figure> fit_pictures(const host::GroupResult& group, const inference::PictureData* data,
                                       const sampling::SampleDraws& sample = {});

} // namespace torvale::report
