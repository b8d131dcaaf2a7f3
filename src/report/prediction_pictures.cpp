// Pictures of records: observed against predicted, predictions by bins, curves by subject.

#include "report/pictures.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <numeric>

namespace torvale::report {

using graphics::Axis;
using graphics::Canvas;
using graphics::Interval;
using graphics::Panel;
using inference::PictureData;

void prediction_picture(const PictureData& data, Pictures& out)
{
  const auto& r = data.records;
  Interval observed, predicted;
  if (!graphics::range_of(r.response, observed) || !graphics::range_of(r.population, predicted)) return;
  const bool individual = !r.individual.empty();
  Interval both = graphics::joined(observed, predicted);
  if (Interval more; individual && graphics::range_of(r.individual, more)) both = graphics::joined(both, more);
  both = graphics::widened(both, 0.04);
  const std::size_t step = thinning(r.response.size());
  const auto y = thinned(r.response, step), population = thinned(r.population, step),
             modes = thinned(r.individual, step);
  const double width = individual ? full_width : half_width;
  Canvas canvas(width, 400);
  const auto panel = [&](double left, const char* label, const std::vector<double>& x, const char* heading) {
    Panel p(canvas, {left, 0, half_width, 400}, {label, both}, {"Observed " + data.response, both}, heading);
    p.diagonal();
    p.dots(x, y);
    const auto line = graphics::smooth_line(x, y);
    p.curve(line.x, line.y, "two");
  };
  panel(0, "Predicted, population", population, individual ? "Population" : "");
  if (individual) panel(full_width - half_width, "Predicted, individual", modes, "Individual");
  const std::string caption =
      std::string("Each dot is a record; on the grey diagonal prediction and observation agree. The dashed line is a "
                  "local mean: it "
                  "should follow the diagonal.") +
      (individual ? " Population: random effects at their means. Individual: at each subject's own effects." : "") +
      thinning_note(step, r.response.size());
  out.push_back({"predictions", "Observed and predicted", caption, canvas.finish("Observed and predicted", caption)});
}

namespace {

// Records sorted by prediction, in bins of equal counts: mean prediction, mean response, and its interval.
struct Bin {
  double predicted = 0, observed = 0, low = 0, high = 0;
};

// Shares get Wilson's interval (1927), which stays between 0 and 1 and has a length at both; means two standard errors.
void set_interval(Bin& bin, double count, double variance, bool share)
{
  double middle = bin.observed, half = 2 * std::sqrt(variance / count);
  if (share) {
    constexpr double z = 1.96;
    const double p = bin.observed, scale = 1 / (1 + z * z / count);
    middle = scale * (p + z * z / (2 * count));
    half = scale * z * std::sqrt(p * (1 - p) / count + z * z / (4 * count * count));
  }
  bin.low = middle - half;
  bin.high = middle + half;
}

std::vector<Bin> bins_of(const std::vector<double>& prediction, const std::vector<double>& response, bool shares)
{
  std::vector<std::size_t> order;
  for (std::size_t i = 0; i < response.size(); ++i)
    if (std::isfinite(prediction[i]) && std::isfinite(response[i])) order.push_back(i);
  std::sort(order.begin(), order.end(),
            [&](std::size_t a, std::size_t b) { return std::pair(prediction[a], a) < std::pair(prediction[b], b); });
  const std::size_t count = std::clamp<std::size_t>(order.size() / 20, 1, 10);
  std::vector<Bin> bins;
  for (std::size_t k = 0; k < count; ++k) {
    const std::size_t from = order.size() * k / count, to = order.size() * (k + 1) / count;
    const auto m = static_cast<double>(to - from);
    Bin bin;
    double squares = 0;
    for (std::size_t i = from; i < to; ++i) {
      bin.predicted += prediction[order[i]] / m;
      bin.observed += response[order[i]] / m;
    }
    for (std::size_t i = from; i < to; ++i) squares += std::pow(response[order[i]] - bin.observed, 2);
    set_interval(bin, m, m > 1 ? squares / (m - 1) : 0, shares);
    bins.push_back(bin);
  }
  return bins;
}

} // namespace

void calibration_picture(const PictureData& data, Pictures& out)
{
  const auto& r = data.records;
  const bool individual = !r.individual.empty();
  const bool binary = data.kind == inference::ResponseKind::binary;
  const auto bins = bins_of(individual ? r.individual : r.population, r.response, binary);
  if (bins.size() < 3) return;
  std::vector<double> x, y, all;
  for (const Bin& b : bins) {
    x.push_back(b.predicted);
    y.push_back(b.observed);
    all.insert(all.end(), {b.predicted, b.low, b.high});
  }
  Interval range;
  if (!graphics::range_of(all, range)) return;
  range = graphics::widened(range, 0.05);
  if (binary) range = {std::max(range.low, -0.02), std::min(range.high, 1.02)};
  Canvas canvas(half_width, 380);
  {
    Panel p(canvas, {0, 0, half_width, 380}, {binary ? "Mean predicted probability" : "Mean prediction", range},
            {binary ? "Share of " + data.response + " = 1" : "Mean " + data.response, range});
    p.diagonal();
    for (const Bin& b : bins) p.interval(b.predicted, b.low, b.high, "one");
    p.dots(x, y);
  }
  const std::string caption = fmt::format(
      "Records in {} bins of equal size by {}prediction: {} against mean prediction. Bins that stand away from the "
      "diagonal show where the model is wrong.{}",
      bins.size(), individual ? "individual " : "",
      binary ? "share of ones with its 95 % interval" : "mean response with two standard errors",
      individual ? " Individual effects draw predictions towards the data, so agreement here is the least to expect."
                 : "");
  out.push_back({"calibration", "Calibration", caption, canvas.finish("Calibration", caption)});
}

namespace {

constexpr std::size_t most_panels = 16;

// Records of each subject, along the axis.
std::vector<std::vector<std::size_t>> records_by_subject(const PictureData& data)
{
  std::vector<std::vector<std::size_t>> out(data.levels.front().subjects.size());
  const auto& r = data.records;
  for (std::size_t i = 0; i < r.subject.size(); ++i)
    if (r.subject[i] >= 0) out[static_cast<std::size_t>(r.subject[i])].push_back(i);
  for (auto& rows : out)
    std::stable_sort(rows.begin(), rows.end(), [&](auto a, auto b) { return data.axis_value[a] < data.axis_value[b]; });
  return out;
}

std::vector<double> picked(const std::vector<double>& values, const std::vector<std::size_t>& rows)
{
  std::vector<double> out;
  for (const std::size_t i : rows) out.push_back(values[i]);
  return out;
}

} // namespace

void individual_picture(const PictureData& data, Pictures& out)
{
  const auto& r = data.records;
  if (data.axis.empty() || r.individual.empty() || data.levels.empty()) return;
  const auto by_subject = records_by_subject(data);
  std::vector<std::size_t> usable;
  for (std::size_t s = 0; s < by_subject.size(); ++s)
    if (by_subject[s].size() >= 2) usable.push_back(s);
  if (usable.empty()) return;
  std::vector<std::size_t> shown;
  const std::size_t count = std::min(usable.size(), most_panels);
  for (std::size_t k = 0; k < count; ++k) shown.push_back(usable[k * usable.size() / count]);

  // One scale for all, from the subjects shown.
  std::vector<double> xs, ys;
  for (const std::size_t s : shown)
    for (const std::size_t i : by_subject[s]) {
      xs.push_back(data.axis_value[i]);
      ys.insert(ys.end(), {r.response[i], r.individual[i], r.population[i]});
    }
  Interval x, y;
  if (!graphics::range_of(xs, x) || !graphics::range_of(ys, y)) return;
  x = graphics::widened(x, 0.04);
  y = graphics::widened(y, 0.05);

  const auto x_ticks = graphics::all_whole(xs) ? Axis::Ticks::whole : Axis::Ticks::round;
  const std::size_t columns = std::min<std::size_t>(4, count), rows = (count + columns - 1) / columns;
  constexpr double height = 168, foot = 22, margin = 22;
  const double width = (full_width - margin) / static_cast<double>(columns);
  Canvas canvas(full_width, height * static_cast<double>(rows) + foot);
  for (std::size_t k = 0; k < count; ++k) {
    const auto& records = by_subject[shown[k]];
    const auto at = picked(data.axis_value, records);
    Panel p(canvas,
            {margin + width * static_cast<double>(k % columns), height * static_cast<double>(k / columns), width - 6,
             height - 6},
            {"", x, x_ticks}, {"", y}, data.levels[0].subject_label + " " + data.levels[0].subjects[shown[k]], true);
    p.curve(at, picked(r.population, records), "two");
    p.curve(at, picked(r.individual, records), "one");
    p.dots(at, picked(r.response, records), "ink");
  }
  canvas.text(full_width / 2, canvas.height() - 4, data.axis, graphics::Anchor::middle, "soft");
  canvas.text(12, height * static_cast<double>(rows) / 2, data.response, graphics::Anchor::middle, "soft",
              graphics::font_size, true);
  const std::string sample =
      count < usable.size()
          ? fmt::format(" {} of {} subjects, evenly spaced in the order of the data.", count, usable.size())
          : "";
  const std::string caption =
      "Dots are observations, the solid line the subject's own prediction, the dashed line that of the population "
      "(effects at their means), both joined from record to record." +
      sample;
  out.push_back({"individuals", "Individual fits", caption, canvas.finish("Individual fits", caption)});
}

} // namespace torvale::report
