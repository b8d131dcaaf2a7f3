#include "graphics/panel.h"

#include "host/values/text.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace torvale::graphics {

namespace {

Ticks ticks_of(const Axis& axis, int count)
{
  if (!axis.categories.empty()) {
    Ticks ticks;
    for (std::size_t k = 0; k < axis.categories.size(); ++k) {
      ticks.at.push_back(static_cast<double>(k));
      ticks.label.push_back(axis.categories[k]);
    }
    return ticks;
  }
  if (axis.ticks == Axis::Ticks::powers) return power_ticks(axis.range, count);
  return round_ticks(axis.range, count, axis.ticks == Axis::Ticks::whole);
}

double widest(const Ticks& ticks, double size)
{
  double w = 0.0;
  for (const std::string& label : ticks.label) w = std::max(w, text_width(label, size));
  return w;
}

Ticks upright_ticks(const Axis& axis, double height, bool compact)
{
  return ticks_of(axis, std::max(2, static_cast<int>(height / (compact ? 45 : 55))));
}

// Ticks of a horizontal axis, thinned until their labels stand apart.
Ticks fitting_ticks(const Axis& axis, double width, double size)
{
  Ticks ticks = ticks_of(axis, std::max(2, static_cast<int>(width / 60)));
  for (int count = static_cast<int>(width / 60); axis.categories.empty() && count > 1; --count) {
    if (widest(ticks, size) + 8 < width / static_cast<double>(std::max<std::size_t>(1, ticks.at.size()))) break;
    Ticks fewer = ticks_of(axis, count);
    if (fewer.at.size() < ticks.at.size()) ticks = std::move(fewer);
  }
  return ticks;
}

} // namespace

double label_room(const Axis& axis, double height)
{
  return widest(upright_ticks(axis, height, false), font_size);
}

Panel::Panel(Canvas& canvas, const PanelPlace& place, const Axis& x, const Axis& y, std::string_view heading,
             bool compact)
    : canvas_(canvas)
{
  const double size = compact ? small_font_size : font_size;
  const Ticks y_ticks = upright_ticks(y, place.height, compact);
  const double left =
      place.left + (compact || y.label.empty() ? 0 : size + 8) + std::max(y.label_room, widest(y_ticks, size)) + 8;
  // Half of the last label hangs over the right end.
  const double right = place.left + place.width - 14;
  const double top = place.top + (heading.empty() ? 8 : size + 10);
  const double bottom = place.top + place.height - (size + 7) - (compact || x.label.empty() ? 0 : size + 6);
  x_ = Scale(x.range, left, right);
  y_ = Scale(y.range, bottom, top);
  canvas_.open_group(fmt::format("class=\"panel\" data-x=\"{} {} {} {}\" data-y=\"{} {} {} {}\"",
                                 host::shortest(x.range.low), host::shortest(x.range.high), coordinate(left),
                                 coordinate(right), host::shortest(y.range.low), host::shortest(y.range.high),
                                 coordinate(bottom), coordinate(top)));
  if (!heading.empty())
    canvas_.text(left, top - 6, fitted_text(heading, right - left, size), Anchor::start, "head", size);
  y_axis(y, y_ticks, size);
  x_axis(x, size);
  const double middle_x = (left + right) / 2, middle_y = (top + bottom) / 2;
  if (!compact)
    canvas_.text(middle_x, place.top + place.height - 4, fitted_text(x.label, right - left), Anchor::middle, "soft");
  if (!compact)
    canvas_.text(place.left + size, middle_y, fitted_text(y.label, bottom - top), Anchor::middle, "soft", font_size,
                 true);
}

Panel::~Panel()
{
  canvas_.close_group();
}

void Panel::y_axis(const Axis& axis, const Ticks& ticks, double size)
{
  for (std::size_t k = 0; k < ticks.at.size(); ++k) {
    const double at = y_.place(ticks.at[k]);
    if (axis.categories.empty()) canvas_.line(x_.from(), at, x_.to(), at, "grid");
    canvas_.text(x_.from() - 6, at + 0.35 * size, ticks.label[k], Anchor::end, "soft", size);
  }
}

void Panel::x_axis(const Axis& axis, double size)
{
  const Ticks ticks = fitting_ticks(axis, x_.to() - x_.from(), size);
  canvas_.line(x_.from(), y_.from(), x_.to(), y_.from(), "axis");
  const double slot = (x_.to() - x_.from()) / static_cast<double>(std::max<std::size_t>(1, ticks.at.size())) - 4;
  for (std::size_t k = 0; k < ticks.at.size(); ++k) {
    const double at = x_.place(ticks.at[k]);
    canvas_.line(at, y_.from(), at, y_.from() + 4, "axis");
    canvas_.text(at, y_.from() + size + 6,
                 axis.categories.empty() ? ticks.label[k] : fitted_text(ticks.label[k], slot, size), Anchor::middle,
                 "soft", size);
  }
}

void Panel::dots(std::span<const double> x, std::span<const double> y, std::string_view css)
{
  // Many dots are smaller, so that their density can be seen.
  const double radius = x.size() > 2000 ? 1.3 : x.size() > 400 ? 1.8 : 2.6;
  canvas_.open_group(fmt::format("class=\"dots{}{}\"", css.empty() ? "" : " ", css));
  for (std::size_t i = 0; i < x.size(); ++i)
    if (x_.data().holds(x[i]) && y_.data().holds(y[i])) canvas_.circle(x_.place(x[i]), y_.place(y[i]), radius);
  canvas_.close_group();
}

void Panel::curve(std::span<const double> x, std::span<const double> y, std::string_view css)
{
  std::vector<double> points;
  points.reserve(2 * x.size());
  for (std::size_t i = 0; i < x.size(); ++i) {
    points.push_back(x_.place(x[i]));
    points.push_back(y_.data().holds(y[i]) ? y_.place(y[i]) : std::nan(""));
  }
  canvas_.path(points, css);
}

void Panel::band(std::span<const double> x, std::span<const double> low, std::span<const double> high)
{
  std::vector<double> points;
  const auto add = [&](double px, double py) {
    points.push_back(x_.place(px));
    points.push_back(std::clamp(y_.place(py), y_.to(), y_.from()));
  };
  for (std::size_t i = 0; i < x.size(); ++i) add(x[i], low[i]);
  for (std::size_t i = x.size(); i-- > 0;) add(x[i], high[i]);
  canvas_.path(points, "area", true);
}

void Panel::bars(std::span<const double> edges, std::span<const double> heights)
{
  const std::vector<double> zero(heights.size(), 0.0);
  bars(edges, zero, heights);
}

void Panel::bars(std::span<const double> edges, std::span<const double> low, std::span<const double> high)
{
  const auto inside = [&](double y) { return std::clamp(y, y_.data().low, y_.data().high); };
  for (std::size_t k = 0; k < high.size(); ++k) {
    const double left = x_.place(edges[k]), right = x_.place(edges[k + 1]), top = y_.place(inside(high[k]));
    if (high[k] > low[k]) canvas_.rectangle(left, top, right - left, y_.place(inside(low[k])) - top, "bar");
  }
}

void Panel::vertical(double x, std::string_view css)
{
  if (x_.data().holds(x)) canvas_.line(x_.place(x), y_.from(), x_.place(x), y_.to(), css);
}

void Panel::horizontal(double y, std::string_view css)
{
  if (y_.data().holds(y)) canvas_.line(x_.from(), y_.place(y), x_.to(), y_.place(y), css);
}

void Panel::diagonal()
{
  const Interval both = {std::max(x_.data().low, y_.data().low), std::min(x_.data().high, y_.data().high)};
  if (both.low < both.high)
    canvas_.line(x_.place(both.low), y_.place(both.low), x_.place(both.high), y_.place(both.high), "reference");
}

void Panel::interval(double x, double low, double high, std::string_view css)
{
  if (!x_.data().holds(x) || !std::isfinite(low) || !std::isfinite(high)) return;
  canvas_.line(x_.place(x), y_.place(std::max(low, y_.data().low)), x_.place(x),
               y_.place(std::min(high, y_.data().high)), css);
}

Histogram histogram(std::span<const double> values)
{
  Histogram out;
  std::vector<double> sorted;
  for (const double x : values)
    if (std::isfinite(x)) sorted.push_back(x);
  if (sorted.empty()) return out;
  std::sort(sorted.begin(), sorted.end());
  const auto count = static_cast<double>(sorted.size());
  const Interval range = {sorted.front(), sorted.back()};
  // Width by Freedman and Diaconis (1981): twice the interquartile range over the cube root of the count.
  const double spread =
      sorted[static_cast<std::size_t>(0.75 * (count - 1))] - sorted[static_cast<std::size_t>(0.25 * (count - 1))];
  const double width = 2 * spread / std::cbrt(count);
  const int bins = !(range.length() > 0) ? 1
                   : width > 0           ? std::clamp(static_cast<int>(std::ceil(range.length() / width)), 4, 40)
                                         : 4;
  const Interval shown = range.length() > 0 ? range : widened(range, 0);
  const double step = shown.length() / bins;
  out.density.assign(static_cast<std::size_t>(bins), 0.0);
  for (int k = 0; k <= bins; ++k) out.edges.push_back(shown.low + k * step);
  for (const double x : sorted) {
    const int k = std::clamp(static_cast<int>((x - shown.low) / step), 0, bins - 1);
    out.density[static_cast<std::size_t>(k)] += 1 / (count * step);
  }
  return out;
}

Smooth smooth_line(std::span<const double> x, std::span<const double> y)
{
  Smooth out;
  std::vector<std::pair<double, double>> pairs;
  for (std::size_t i = 0; i < x.size(); ++i)
    if (std::isfinite(x[i]) && std::isfinite(y[i])) pairs.emplace_back(x[i], y[i]);
  if (pairs.size() < 20) return out;
  std::sort(pairs.begin(), pairs.end());
  const double length = pairs.back().first - pairs.front().first;
  int places_of_x = 1; // a line through a few places would tell of what lies between them
  for (std::size_t i = 1; i < pairs.size(); ++i) places_of_x += pairs[i].first != pairs[i - 1].first;
  if (!(length > 0) || places_of_x < 8) return out;
  const std::size_t window = std::max<std::size_t>(5, 2 * pairs.size() / 3);
  constexpr int places = 40;
  std::size_t first = 0; // of the `window` pairs nearest to the place
  for (int k = 0; k <= places; ++k) {
    const double at = pairs.front().first + length * k / places;
    while (first + window < pairs.size() && pairs[first + window].first - at < at - pairs[first].first) ++first;
    const double reach = std::max({at - pairs[first].first, pairs[first + window - 1].first - at, 1e-12 * length});
    // A weighted line through the window.
    double w = 0, wx = 0, wy = 0, wxx = 0, wxy = 0;
    const std::size_t stride = std::max<std::size_t>(1, window / 500);
    for (std::size_t i = first; i < first + window; i += stride) {
      const double d = pairs[i].first - at;
      const double u = std::min(1.0, std::abs(d) / (reach * 1.0001));
      const double t = 1 - u * u * u, weight = t * t * t;
      w += weight;
      wx += weight * d;
      wy += weight * pairs[i].second;
      wxx += weight * d * d;
      wxy += weight * d * pairs[i].second;
    }
    const double det = w * wxx - wx * wx;
    if (!(w > 0)) continue;
    out.x.push_back(at);
    out.y.push_back(det > 1e-9 * w * w * reach * reach ? (wxx * wy - wx * wxy) / det : wy / w);
  }
  return out;
}

} // namespace torvale::graphics
