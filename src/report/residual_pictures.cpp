// Pictures of residuals.

#include "inference/pictures/normal_band.h"
#include "report/pictures.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace torvale::report {

using graphics::Canvas;
using graphics::Interval;
using graphics::Panel;
using inference::PictureData;

namespace {

// The residuals that say most: quantile residuals are normal under any right model; of normal responses they are the
// Pearson residuals.
struct Residuals {
  const std::vector<double>* values = nullptr;
  const char* name = "";
  bool normal = false; // standard normal when the model is right
};

bool any_finite(const std::vector<double>& values)
{
  return std::any_of(values.begin(), values.end(), [](double x) { return std::isfinite(x); });
}

Residuals residuals_of(const PictureData& data)
{
  const auto& r = data.records;
  if (data.normal && any_finite(r.pearson)) return {&r.pearson, "Pearson residual", true};
  if (any_finite(r.quantile)) return {&r.quantile, "Quantile residual", true};
  return {};
}

} // namespace

void residual_picture(const PictureData& data, Pictures& out)
{
  const Residuals residuals = residuals_of(data);
  if (residuals.values == nullptr) return;
  const auto& r = data.records;
  const bool individual = !r.individual.empty(), along_axis = !data.axis.empty();
  const std::size_t step = thinning(r.response.size());
  const auto e = thinned(*residuals.values, step);
  Interval y;
  if (!graphics::range_of(e, y)) return;
  const double size = 1.06 * std::max({std::abs(y.low), std::abs(y.high), 2.2});
  y = {-size, size};
  Canvas canvas(along_axis ? full_width : half_width, 330);
  bool drawn = false;
  const auto panel = [&](double left, const std::string& label, const std::vector<double>& x) {
    Interval range;
    if (!graphics::range_of(x, range)) return;
    Panel p(canvas, {left, 0, half_width, 330},
            {label, graphics::widened(range, 0.03),
             graphics::all_whole(x) ? graphics::Axis::Ticks::whole : graphics::Axis::Ticks::round},
            {residuals.name, y});
    p.horizontal(0);
    if (residuals.normal) {
      p.horizontal(-1.96);
      p.horizontal(1.96);
    }
    p.dots(x, e);
    const auto line = graphics::smooth_line(x, e);
    p.curve(line.x, line.y, "two");
    drawn = true;
  };
  panel(0, individual ? "Individual prediction" : "Prediction",
        thinned(individual ? r.individual : r.population, step));
  if (along_axis) panel(full_width - half_width, data.axis, thinned(data.axis_value, step));
  if (!drawn) return;
  const std::string caption =
      std::string("Residuals should scatter about 0 with the same spread everywhere; the dashed line is their local "
                  "mean. A bend says that the curve of the mean is wrong, a funnel that the variance is.") +
      (residuals.normal ? " About one in twenty lies outside the outer lines." : "") +
      thinning_note(step, r.response.size());
  out.push_back({"residuals", "Residuals", caption, canvas.finish("Residuals", caption)});
}

void quantile_picture(const PictureData& data, Pictures& out)
{
  const Residuals residuals = residuals_of(data);
  if (residuals.values == nullptr || !residuals.normal) return;
  std::vector<double> sorted;
  for (const double x : *residuals.values)
    if (std::isfinite(x)) sorted.push_back(x);
  if (sorted.size() < 8) return;
  std::sort(sorted.begin(), sorted.end());
  const inference::NormalBand band = inference::normal_quantile_band(sorted.size());
  // Large samples: every step-th of the middle, all of the ends.
  std::vector<double> expected, observed;
  const std::size_t step = thinning(sorted.size(), 600), ends = 100;
  for (std::size_t i = 0; i < sorted.size(); ++i) {
    if (step > 1 && i >= ends && i + ends < sorted.size() && i % step != 0) continue;
    expected.push_back(inference::expected_quantile(i, sorted.size()));
    observed.push_back(sorted[i]);
  }
  Interval x, y;
  if (!graphics::range_of(expected, x) || !graphics::range_of(observed, y)) return;
  x = graphics::widened(x, 0.04);
  y = graphics::widened(graphics::joined(y, x), 0.02);
  Canvas canvas(half_width, 380);
  {
    Panel p(canvas, {0, 0, half_width, 380}, {"Normal quantile", x}, {residuals.name, y});
    p.band(band.expected, band.low, band.high);
    p.diagonal();
    p.dots(expected, observed);
  }
  const std::string caption =
      "Ordered residuals against what a standard normal sample of this size gives. In 95 of 100 right models all dots "
      "stay inside the band; ends that bend away from the line say that the tails are heavier or lighter.";
  out.push_back({"quantiles", "Normal quantiles of the residuals", caption,
                 canvas.finish("Normal quantiles of the residuals", caption)});
}

} // namespace torvale::report
