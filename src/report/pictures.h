#pragma once
// Each picture on its own: appends to `out` when there is something to show. Private to the room.

#include "graphics/panel.h"
#include "host/results/results.h"
#include "inference/pictures/picture_data.h"
#include "sampling/draws.h"

#include <string>
#include <vector>

namespace torvale::report {

using Pictures = std::vector<host::Figure>;

inline constexpr double half_width = 470.0; // two pictures stand side by side on a wide screen
inline constexpr double full_width = 960.0; // and these take the row

// Most dots of one panel; larger data are thinned evenly, and the caption says so.
inline constexpr std::size_t most_dots = 3000;

// Every step-th record, so that at most `most` remain. The step is 1 for small data.
std::size_t thinning(std::size_t count, std::size_t most = most_dots);
std::vector<double> thinned(const std::vector<double>& values, std::size_t step);
std::string thinning_note(std::size_t step,
                          std::size_t count); // " Every 4th of 12000 records is drawn."; empty when all are

// From tables: the course of the optimization, intervals of the estimates, their correlations.
void history_picture(const host::GroupResult& group, Pictures& out);
void estimates_picture(const host::GroupResult& group, Pictures& out);
void correlation_picture(const host::GroupResult& group, Pictures& out);

// From records: observed against predicted, predictions by bins, frequencies of counts, curves by subject.
void prediction_picture(const inference::PictureData& data, Pictures& out);
void calibration_picture(const inference::PictureData& data, Pictures& out);
void frequency_picture(const inference::PictureData& data, Pictures& out);
void individual_picture(const inference::PictureData& data, Pictures& out);

// Residuals: by prediction and along the axis, and their normal quantiles.
void residual_picture(const inference::PictureData& data, Pictures& out);
void quantile_picture(const inference::PictureData& data, Pictures& out);

// Random effects of one level: distributions, pairs, against covariates.
void effect_picture(const inference::EffectLevel& data, Pictures& out);
void effect_pairs_picture(const inference::EffectLevel& data, Pictures& out);
void effect_covariate_picture(const inference::EffectLevel& data, Pictures& out);

// Posterior samples: paths and densities of the chains, their autocorrelation.
void chain_picture(const host::GroupResult& group, const sampling::SampleDraws& sample, Pictures& out);
void autocorrelation_picture(const sampling::SampleDraws& sample, Pictures& out);

} // namespace torvale::report
