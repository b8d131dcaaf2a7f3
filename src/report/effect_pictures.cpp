// Pictures of random effects: distributions, pairs, against covariates.

#include "report/pictures.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace torvale::report {

using graphics::Axis;
using graphics::Canvas;
using graphics::Interval;
using graphics::Panel;
using inference::EffectLevel;
using inference::SubjectCovariate;

namespace {

std::vector<double> effect_values(const EffectLevel& data, const std::vector<double>& all, std::size_t effect)
{
  std::vector<double> out;
  for (std::size_t s = 0; s < data.subjects.size(); ++s) out.push_back(all[s * data.effects.size() + effect]);
  return out;
}

bool enough(const std::vector<double>& values)
{
  return std::count_if(values.begin(), values.end(), [](double x) { return std::isfinite(x); }) >= 4;
}

// Mean and standard deviation of the finite values.
struct Spread {
  double mean = 0, deviation = 0, count = 0;
};

Spread spread_of(const std::vector<double>& values)
{
  Spread s;
  for (const double x : values)
    if (std::isfinite(x)) {
      s.mean += x;
      ++s.count;
    }
  s.mean /= std::max(1.0, s.count);
  for (const double x : values)
    if (std::isfinite(x)) s.deviation += (x - s.mean) * (x - s.mean);
  s.deviation = std::sqrt(s.deviation / std::max(1.0, s.count - 1));
  return s;
}

constexpr std::size_t most_effects = 8;

} // namespace

void effect_picture(const EffectLevel& data, Pictures& out)
{
  struct Shown {
    std::size_t effect;
    double deviation, mean, shrinkage;
    graphics::Histogram bars;
    Interval range;
  };
  std::vector<Shown> shown;
  for (std::size_t e = 0; e < data.effects.size() && shown.size() < most_effects; ++e) {
    const auto modes = effect_values(data, data.mode, e);
    const Spread prior = spread_of(effect_values(data, data.prior.variance, e)); // its mean: the average variance
    if (!enough(modes) || !(prior.mean > 0)) continue;
    const double deviation = std::sqrt(prior.mean), mean = spread_of(effect_values(data, data.prior.mean, e)).mean;
    Interval range;
    graphics::range_of(modes, range);
    range = graphics::joined(range, {mean - 3 * deviation, mean + 3 * deviation});
    shown.push_back({e, deviation, mean, 1 - spread_of(modes).deviation / deviation, graphics::histogram(modes),
                     graphics::widened(range, 0.02)});
  }
  if (shown.empty()) return;
  const std::size_t columns = shown.size() == 1 ? 1 : shown.size() == 2 ? 2 : std::min<std::size_t>(4, shown.size());
  const double width = columns == 1 ? half_width : full_width, cell = width / static_cast<double>(columns),
               height = 270;
  Canvas canvas(width, height * static_cast<double>((shown.size() + columns - 1) / columns));
  std::string shrinkage;
  for (std::size_t k = 0; k < shown.size(); ++k) {
    const Shown& s = shown[k];
    std::vector<double> x, y;
    double top = 0.4 / s.deviation;
    for (const double d : s.bars.density) top = std::max(top, d);
    for (int i = 0; i <= 80; ++i) {
      x.push_back(s.range.low + s.range.length() * i / 80);
      const double z = (x.back() - s.mean) / s.deviation;
      y.push_back(0.3989422804014327 / s.deviation * std::exp(-0.5 * z * z));
    }
    Panel p(canvas,
            {cell * static_cast<double>(k % columns), height * static_cast<double>(k / columns),
             cell - (columns > 1 ? 14 : 0), height},
            {data.effects[s.effect], s.range}, {k % columns == 0 ? "Density" : "", {0, 1.06 * top}});
    p.bars(s.bars.edges, s.bars.density);
    p.curve(x, y, "two");
    shrinkage += fmt::format("{}{} {:.0f} %", shrinkage.empty() ? "" : ", ", data.effects[s.effect], 100 * s.shrinkage);
  }
  const std::string caption = fmt::format("Bars are the subjects' estimated effects, the dashed curve the normal "
                                          "distribution that the fit gives them. Shrinkage, 1 less "
                                          "the ratio of their standard deviations: {}. Where it is above about 30 %, "
                                          "the effects say little of single subjects.",
                                          shrinkage);
  out.push_back({"effects", "Random effects", caption, canvas.finish("Random effects", caption)});
}

void effect_pairs_picture(const EffectLevel& data, Pictures& out)
{
  std::vector<std::pair<std::size_t, std::size_t>> pairs;
  const std::size_t count = std::min<std::size_t>(data.effects.size(), 4);
  for (std::size_t a = 0; a < count; ++a)
    for (std::size_t b = a + 1; b < count; ++b)
      if (enough(effect_values(data, data.mode, a)) && enough(effect_values(data, data.mode, b)))
        pairs.emplace_back(a, b);
  if (pairs.empty()) return;
  const std::size_t columns = std::min<std::size_t>(3, pairs.size()), step = thinning(data.subjects.size(), 1500);
  const double width = pairs.size() == 1 ? half_width : full_width, cell = width / static_cast<double>(columns);
  const double height = pairs.size() == 1 ? 360 : 290;
  Canvas canvas(width, height * static_cast<double>((pairs.size() + columns - 1) / columns));
  for (std::size_t k = 0; k < pairs.size(); ++k) {
    const auto x = effect_values(data, data.mode, pairs[k].first), y = effect_values(data, data.mode, pairs[k].second);
    Interval xr, yr;
    graphics::range_of(x, xr);
    graphics::range_of(y, yr);
    Panel p(canvas,
            {cell * static_cast<double>(k % columns), height * static_cast<double>(k / columns),
             cell - (columns > 1 ? 14 : 0), height},
            {data.effects[pairs[k].first], graphics::widened(xr, 0.06)},
            {data.effects[pairs[k].second], graphics::widened(yr, 0.06)});
    p.vertical(0);
    p.horizontal(0);
    p.dots(thinned(x, step), thinned(y, step));
  }
  std::string caption = "Each dot is a subject. A tilted cloud says that the effects go together: give the model their "
                        "covariance, or keep it. "
                        "Shrunken effects can look more alike than they are.";
  if (step > 1) caption += fmt::format(" One in {} subjects is drawn.", step);
  out.push_back(
      {"effect-pairs", "Pairs of random effects", caption, canvas.finish("Pairs of random effects", caption)});
}

namespace {

// Levels in use, in the order of their places; more than a dozen are no levels that an eye can compare.
std::vector<double> levels_of(const SubjectCovariate& c)
{
  std::vector<double> levels;
  for (const double x : c.value)
    if (std::isfinite(x)) levels.push_back(x);
  std::sort(levels.begin(), levels.end());
  levels.erase(std::unique(levels.begin(), levels.end()), levels.end());
  return levels;
}

} // namespace

void effect_covariate_picture(const EffectLevel& data, Pictures& out)
{
  const std::size_t effects = std::min<std::size_t>(data.effects.size(), 3);
  std::vector<const SubjectCovariate*> covariates;
  for (const auto& c : data.covariates) {
    const std::size_t levels = levels_of(c).size();
    if (levels >= 2 && (c.levels.empty() || levels <= 12) && covariates.size() < 4) covariates.push_back(&c);
  }
  if (effects == 0 || covariates.empty()) return;
  const std::size_t step = thinning(data.subjects.size(), 1500);
  const std::size_t columns = covariates.size();
  const double width = columns == 1 ? half_width : full_width, cell = width / static_cast<double>(columns),
               height = 240;
  Canvas canvas(width, height * static_cast<double>(effects));
  for (std::size_t e = 0; e < effects; ++e) {
    const auto y = effect_values(data, data.mode, e);
    Interval yr;
    if (!graphics::range_of(y, yr)) return;
    for (std::size_t k = 0; k < columns; ++k) {
      const SubjectCovariate& c = *covariates[k];
      Axis axis{c.label, {}};
      std::vector<double> x = c.value;
      const auto levels = levels_of(c);
      const bool groups = !c.levels.empty() || levels.size() <= 4;
      if (groups) { // levels stand at 0, 1, 2, ..., their dots side by side
        axis.range = {-0.6, static_cast<double>(levels.size()) - 0.4};
        for (const double level : levels)
          axis.categories.push_back(c.levels.empty() ? fmt::format("{:.6g}", level)
                                                     : c.levels[static_cast<std::size_t>(level)]);
        for (std::size_t s = 0; s < x.size(); ++s)
          x[s] = static_cast<double>(std::lower_bound(levels.begin(), levels.end(), x[s]) - levels.begin()) +
                 0.36 * (static_cast<double>(s * 7 % 11) / 5 - 1);
      } else {
        Interval xr;
        graphics::range_of(x, xr);
        axis.range = graphics::widened(xr, 0.05);
      }
      Panel p(canvas,
              {cell * static_cast<double>(k), height * static_cast<double>(e), cell - (columns > 1 ? 14 : 0), height},
              axis, {data.effects[e], graphics::widened(yr, 0.06)});
      p.horizontal(0);
      p.dots(thinned(x, step), thinned(y, step));
      if (groups) continue;
      const auto line = graphics::smooth_line(x, y);
      p.curve(line.x, line.y, "two");
    }
  }
  const std::string caption = "Each dot is a subject's estimated effect against what the program reads of the subject. "
                              "A trend that is left says that "
                              "the covariate acts in another way than the model lets it." +
                              (step > 1 ? fmt::format(" One in {} subjects is drawn.", step) : std::string());
  out.push_back({"effect-covariates", "Random effects and covariates", caption,
                 canvas.finish("Random effects and covariates", caption)});
}

} // namespace torvale::report
