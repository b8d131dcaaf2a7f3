#include "report/fit_pictures.h"

#include "host/values/text.h"
#include "report/pictures.h"

#include <fmt/format.h>

namespace torvale::report {

using inference::PictureData;
using inference::ResponseKind;

std::size_t thinning(std::size_t count, std::size_t most)
{
  return count <= most ? 1 : (count + most - 1) / most;
}

std::vector<double> thinned(const std::vector<double>& values, std::size_t step)
{
  if (step == 1) return values;
  std::vector<double> out;
  for (std::size_t i = 0; i < values.size(); i += step) out.push_back(values[i]);
  return out;
}

std::string thinning_note(std::size_t step, std::size_t count)
{
  if (step == 1) return {};
  const std::string_view ending = step == 2 ? "nd" : step == 3 ? "rd" : "th";
  return fmt::format(" Every {}{} of {} records is drawn.", step, ending, count);
}

namespace {

// The random effects of a level; with several levels names and titles say which.
void level_pictures(const inference::EffectLevel& level, bool several, Pictures& out)
{
  const std::size_t first = out.size();
  effect_picture(level, out);
  effect_pairs_picture(level, out);
  effect_covariate_picture(level, out);
  for (std::size_t k = first; several && k < out.size(); ++k) {
    out[k].name += "-" + host::wzstrlo(level.subject_label);
    out[k].title += " of " + level.subject_label;
  }
}

} // namespace

std::vector<host::Figure> fit_pictures(const host::GroupResult& group, const PictureData* data,
                                       const sampling::SampleDraws& sample)
{
  Pictures out;
  if (sample.chains > 0) chain_picture(group, sample, out);
  if (sample.chains > 0) autocorrelation_picture(sample, out);
  if (data != nullptr && data->kind != ResponseKind::general) {
    // Dots of zeros and ones say nothing: binary responses are compared by bins, counts both ways.
    if (data->kind != ResponseKind::binary) individual_picture(*data, out);
    if (data->kind != ResponseKind::binary) prediction_picture(*data, out);
    if (data->kind != ResponseKind::continuous) calibration_picture(*data, out);
    frequency_picture(*data, out);
    residual_picture(*data, out);
    quantile_picture(*data, out);
  }
  if (data != nullptr && data->replicated)
    for (auto& picture : out) picture.caption += " Each row counts once here, whatever its REPLICATE.";
  if (data != nullptr)
    for (auto level = data->levels.rbegin(); level != data->levels.rend(); ++level)
      level_pictures(*level, data->levels.size() > 1, out);
  estimates_picture(group, out);
  correlation_picture(group, out);
  history_picture(group, out);
  return out;
}

} // namespace torvale::report
