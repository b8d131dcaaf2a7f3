// Pictures of a posterior sample: the paths of its chains with their densities, and how long they remember.

#include "report/pictures.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace torvale::report {

using graphics::Axis;
using graphics::Canvas;
using graphics::Interval;
using graphics::Panel;
using sampling::Chains;
using sampling::SampleDraws;

namespace {

constexpr std::size_t most_quantities = 12;
constexpr std::size_t most_path_points = 400; // of one chain in one panel
constexpr int density_points = 100;

std::string chain_css(int chain)
{
  static constexpr const char* colours[] = {"one", "two", "three", "four"};
  return std::string("chain ") + colours[chain % 4];
}

struct Density {
  std::vector<double> at, value;
};

// Gaussian kernels with Silverman's width over the range of all chains, from counts in bins a fraction of it wide.
Density density_of(std::span<const double> draws, const Interval& range)
{
  constexpr std::size_t bins = 1024;
  std::vector<double> count(bins, 0.0);
  double mean = 0.0, square = 0.0;
  const auto n = static_cast<double>(draws.size());
  const double width = range.length() / static_cast<double>(bins);
  for (const double x : draws) mean += x / n;
  for (const double x : draws) {
    square += (x - mean) * (x - mean) / n;
    const auto bin = static_cast<std::size_t>(std::max(0.0, (x - range.low) / width));
    count[std::min(bin, bins - 1)] += 1.0 / n;
  }
  const double h = std::max(1.06 * std::sqrt(square) * std::pow(n, -0.2), width);
  Density out;
  for (int i = 0; i <= density_points; ++i) {
    const double x = range.low + range.length() * i / density_points;
    double sum = 0.0;
    for (std::size_t b = 0; b < bins; ++b) {
      const double z = (x - range.low - (static_cast<double>(b) + 0.5) * width) / h;
      if (std::abs(z) < 6.0) sum += count[b] * std::exp(-0.5 * z * z);
    }
    out.at.push_back(x);
    out.value.push_back(sum * 0.3989422804014327 / h);
  }
  return out;
}

// Quantities with draws that differ, the first few of them.
std::vector<std::size_t> shown_quantities(const SampleDraws& sample)
{
  std::vector<std::size_t> out;
  for (std::size_t q = 0; q < sample.names.size() && out.size() < most_quantities; ++q) {
    const auto draws = sample.of(q).draws;
    Interval range;
    const bool finite = std::all_of(draws.begin(), draws.end(), [](double x) { return std::isfinite(x); });
    if (finite && graphics::range_of(draws, range) && range.length() > 0) out.push_back(q);
  }
  return out;
}

std::string selection_note(std::size_t shown, std::size_t all)
{
  return shown < all ? fmt::format(" The first {} of {} are drawn.", shown, all) : std::string();
}

void draw_paths(Canvas& canvas, const graphics::PanelPlace& place, const Chains& chains, const Interval& range,
                const std::string& name, bool last)
{
  const auto length = static_cast<std::size_t>(chains.length());
  Panel panel(canvas, place, {last ? "Iteration" : "", {1, static_cast<double>(length)}, Axis::Ticks::whole},
              {"", range}, name);
  const std::size_t step = thinning(length, most_path_points);
  for (int c = 0; c < chains.chains; ++c) {
    std::vector<double> x, y;
    for (std::size_t k = 0; k < length; k += step) {
      x.push_back(static_cast<double>(k + 1));
      y.push_back(chains.chain(c)[k]);
    }
    panel.curve(x, y, chain_css(c));
  }
}

void draw_densities(Canvas& canvas, const graphics::PanelPlace& place, const Chains& chains, const Interval& range,
                    double estimate)
{
  std::vector<Density> curves;
  double top = 0.0;
  for (int c = 0; c < chains.chains; ++c) {
    curves.push_back(density_of(chains.chain(c), range));
    for (const double d : curves.back().value) top = std::max(top, d);
  }
  Panel panel(canvas, place, {"", range}, {"", {0, 1.06 * top}});
  if (range.holds(estimate)) panel.vertical(estimate);
  for (int c = 0; c < chains.chains; ++c) {
    const Density& d = curves[static_cast<std::size_t>(c)];
    panel.curve(d.at, d.value, chain_css(c));
  }
}

double estimate_of(const host::GroupResult& group, const std::string& name)
{
  const auto at = std::find(group.fit.parameters.begin(), group.fit.parameters.end(), name);
  const auto k = static_cast<std::size_t>(at - group.fit.parameters.begin());
  return k < group.fit.estimates.size() ? group.fit.estimates[k] : host::missing;
}

} // namespace

void chain_picture(const host::GroupResult& group, const SampleDraws& sample, Pictures& out)
{
  const auto shown = shown_quantities(sample);
  if (shown.empty() || sample.of(0).length() < 4) return;
  const double height = 150, last_height = 170, left = 0.62 * full_width;
  Canvas canvas(full_width, height * static_cast<double>(shown.size() - 1) + last_height);
  for (std::size_t k = 0; k < shown.size(); ++k) {
    const Chains chains = sample.of(shown[k]);
    const bool last = k + 1 == shown.size();
    const double top = height * static_cast<double>(k), tall = last ? last_height : height;
    Interval range;
    graphics::range_of(chains.draws, range);
    range = graphics::widened(range, 0.03);
    draw_paths(canvas, {0, top, left - 14, tall}, chains, range, sample.names[shown[k]], last);
    draw_densities(canvas, {left, top + 14, full_width - left, height - 14}, chains, range,
                   estimate_of(group, sample.names[shown[k]]));
  }
  const auto length = static_cast<std::size_t>(sample.of(0).length());
  const std::size_t step = thinning(length, most_path_points);
  const std::string caption =
      fmt::format("Left: the path of each of the {} chains, a colour each; they should lie over each other like one "
                  "thick, level band. A chain that stays apart or drifts has not reached the posterior distribution. "
                  "Right: the density of each chain's draws; they should agree. The upright dashed line is the "
                  "estimate of the fit.{}{}",
                  sample.chains, step > 1 ? fmt::format(" Paths show one iteration in {}.", step) : std::string(),
                  selection_note(shown.size(), sample.names.size()));
  out.push_back(
      {"chains", "Chains and posterior densities", caption, canvas.finish("Chains and posterior densities", caption)});
}

void autocorrelation_picture(const SampleDraws& sample, Pictures& out)
{
  const auto shown = shown_quantities(sample);
  if (shown.empty() || sample.of(0).length() < 16) return;
  const std::size_t columns = std::min<std::size_t>(4, shown.size());
  const double width = columns <= 2 ? half_width : full_width, cell = width / static_cast<double>(columns),
               height = 190;
  Canvas canvas(width, height * static_cast<double>((shown.size() + columns - 1) / columns));
  for (std::size_t k = 0; k < shown.size(); ++k) {
    const sampling::Correlogram c = sampling::correlogram(sample.of(shown[k]));
    double low = 0;
    for (const double r : c.correlation) low = std::min(low, r);
    Panel panel(canvas,
                {cell * static_cast<double>(k % columns), height * static_cast<double>(k / columns),
                 cell - (columns > 1 ? 14 : 0), height},
                {"Lag", {0, c.lag.back()}, Axis::Ticks::whole}, {"", {1.05 * low, 1.05}}, sample.names[shown[k]]);
    panel.horizontal(0);
    panel.curve(c.lag, c.correlation, "one");
    panel.dots(c.lag, c.correlation);
  }
  const std::string caption =
      "Correlation of draws that lie so many iterations apart, over all chains. The sooner it falls to 0, the more a "
      "draw is worth; where it falls slowly, longer chains are needed for the same precision." +
      selection_note(shown.size(), sample.names.size());
  out.push_back({"autocorrelation", "Autocorrelation of the chains", caption,
                 canvas.finish("Autocorrelation of the chains", caption)});
}

} // namespace torvale::report
