// Pictures of tables: the course of the optimization, intervals of the estimates, their correlations.

#include "host/values/text.h"
#include "host/writers/table_writers.h"
#include "report/pictures.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace torvale::report {

using graphics::Anchor;
using graphics::Axis;
using graphics::Canvas;
using graphics::fitted_text;
using graphics::Interval;
using graphics::Panel;
using host::Table;

namespace {

const Table* table_of(const host::GroupResult& group, std::string_view name)
{
  for (const Table& table : group.tables)
    if (table.name == name) return &table;
  return nullptr;
}

std::vector<double> column_of(const Table& table, std::string_view name)
{
  std::vector<double> out;
  const std::size_t at = table.column(name);
  if (at == Table::npos) return out;
  for (const auto& row : table.rows()) out.push_back(row[at].as_number());
  return out;
}

} // namespace

void history_picture(const host::GroupResult& group, Pictures& out)
{
  const Table* table = table_of(group, "IterHistory");
  if (table == nullptr || table->rows().size() < 2) return;
  const std::vector<double> iteration = column_of(*table, "Iter"), objective = column_of(*table, "NegLogLike");
  std::vector<double> gradient = column_of(*table, "MaxGrad");
  for (double& g : gradient) g = g > 0 ? std::log10(g) : host::missing;
  Interval x, y, decades;
  if (!graphics::range_of(iteration, x) || !graphics::range_of(objective, y)) return;
  const bool has_gradient = graphics::range_of(gradient, decades);
  Canvas canvas(half_width, has_gradient ? 380 : 240);
  const double height = has_gradient ? 190 : 240;
  if (has_gradient) decades = {std::floor(decades.low), std::max(std::ceil(decades.high), std::floor(decades.low) + 1)};
  Axis above = {"Negative log likelihood", graphics::widened(y, 0.06)},
       below = {"Largest gradient", decades, Axis::Ticks::powers};
  if (has_gradient)
    above.label_room = below.label_room =
        std::max(graphics::label_room(above, height), graphics::label_room(below, height));
  {
    Panel panel(canvas, {0, 0, half_width, height},
                {has_gradient ? "" : "Iteration", graphics::widened(x, 0.03), Axis::Ticks::whole}, above);
    panel.curve(iteration, objective, "one");
    panel.dots(iteration, objective);
  }
  if (has_gradient) {
    Panel panel(canvas, {0, height, half_width, height}, {"Iteration", graphics::widened(x, 0.03), Axis::Ticks::whole},
                below);
    panel.curve(iteration, gradient, "one");
    panel.dots(iteration, gradient);
  }
  const std::string caption =
      "The objective falls to a level and stays there; the largest element of the gradient, on a "
      "logarithmic scale, falls towards 0. A gradient that stays large means that the end is no minimum.";
  out.push_back(
      {"history", "Course of the optimization", caption, canvas.finish("Course of the optimization", caption)});
}

void estimates_picture(const host::GroupResult& group, Pictures& out)
{
  const Table* table = table_of(group, "ParameterEstimates");
  if (table == nullptr) return;
  const std::vector<double> estimate = column_of(*table, "Estimate"), lower = column_of(*table, "Lower"),
                            upper = column_of(*table, "Upper");
  const std::size_t rows = estimate.size();
  if (lower.size() != rows || rows == 0 || rows > 60) return;
  if (std::none_of(lower.begin(), lower.end(), [](double x) { return std::isfinite(x); })) return;

  const double row_height = 24, top = 26;
  Canvas canvas(half_width, top + row_height * static_cast<double>(rows) + 12);
  const auto words = host::formatted_cells(*table, table->column("Estimate")); // with the digits of the table
  const double left = 104, right = half_width - 96, middle = (left + right) / 2;
  // Rows have their own units, so each is drawn as shares of its largest limit: 0 stands in the middle of all.
  const graphics::Scale scale({-1, 1}, left, right);
  canvas.text(right + 10, top - 10, "Estimate", Anchor::start, "soft");
  canvas.text(middle, top - 10, "0", Anchor::middle, "soft");
  canvas.line(middle, top - 4, middle, canvas.height() - 8, "reference");
  for (std::size_t i = 0; i < rows; ++i) {
    const double y = top + row_height * (static_cast<double>(i) + 0.5);
    const std::string name = table->rows()[i][0].text() ? *table->rows()[i][0].text() : std::string();
    canvas.text(left - 10, y + 4, fitted_text(name, left - 14), Anchor::end);
    canvas.text(right + 10, y + 4, host::stripped(words[i]), Anchor::start);
    canvas.line(left, y, right, y, "grid");
    double size = std::abs(estimate[i]);
    for (const double limit : {lower[i], upper[i]})
      if (std::isfinite(limit)) size = std::max(size, std::abs(limit));
    if (!(size > 0)) size = 1;
    if (std::isfinite(lower[i]) && std::isfinite(upper[i]))
      canvas.line(scale.place(lower[i] / size), y, scale.place(upper[i] / size), y, "one thick");
    canvas.open_group("class=\"dots ink\"");
    canvas.circle(scale.place(estimate[i] / size), y, 3.6);
    canvas.close_group();
  }
  const std::string caption =
      "Estimates (dots) with their confidence intervals (bars). Each row has its own scale, from minus to "
      "plus its largest limit, so widths compare with the size of the estimate. An interval that "
      "crosses the middle includes 0; a dot alone has no standard error.";
  out.push_back({"estimates", "Estimates and intervals", caption, canvas.finish("Estimates and intervals", caption)});
}

void correlation_picture(const host::GroupResult& group, Pictures& out)
{
  // Where a fit has failed the matrix belongs to no estimates.
  if (const Table* table = table_of(group, "ParameterEstimates");
      table == nullptr || table->column("StandardError") == Table::npos)
    return;
  const auto& names = group.fit.parameters;
  const auto& c = group.fit.covariance;
  const std::size_t n = names.size();
  if (n < 2 || n > 40 || c.size() != n * (n + 1) / 2) return;
  const auto variance = [&](std::size_t i) { return c[i * (i + 3) / 2]; };
  double label = 0;
  for (const auto& name : names) label = std::max(label, std::min(96.0, graphics::text_width(name)));
  const double left = label + 12, top = 6;
  const double cell = std::min(56.0, (half_width - left - 4) / static_cast<double>(n));
  const double size = cell >= 40 ? graphics::small_font_size : 9;
  Canvas canvas(half_width, top + cell * static_cast<double>(n) + (cell > 28 ? 22 : label + 14));
  for (std::size_t i = 0; i < n; ++i) {
    const double y = top + cell * static_cast<double>(i);
    const std::string name = fitted_text(names[i], 96);
    canvas.text(left - 8, y + cell / 2 + 4, name, Anchor::end, {}, cell < 14 ? 9 : graphics::font_size);
    const double x = left + cell * static_cast<double>(i), foot = top + cell * static_cast<double>(n);
    if (cell > 28)
      canvas.text(x + cell / 2, foot + 16, fitted_text(names[i], cell - 4), Anchor::middle);
    else
      canvas.text(x + cell / 2 + 4, foot + 8, name, Anchor::end, {}, cell < 14 ? 9 : graphics::font_size, true);
    for (std::size_t j = 0; j < i; ++j) {
      const double r = c[i * (i + 1) / 2 + j] / std::sqrt(variance(i)) / std::sqrt(variance(j));
      const double cx = left + cell * static_cast<double>(j);
      const std::string words = std::isfinite(r) ? fmt::format("{:.2f}", std::abs(r) < 0.005 ? 0.0 : r) : ".";
      canvas.tooltip_rectangle(cx + 1, y + 1, cell - 2, cell - 2,
                               !std::isfinite(r) ? "none"
                               : r < 0           ? "minus"
                                                 : "plus",
                               std::isfinite(r) ? 0.06 + 0.7 * std::min(1.0, std::abs(r)) : 1.0,
                               fmt::format("{}, {}: {}", names[i], names[j], words));
      if (cell >= 30) canvas.text(cx + cell / 2, y + cell / 2 + 4, words, Anchor::middle, {}, size);
    }
    canvas.rectangle(x + 1, y + 1, cell - 2, cell - 2, "none");
  }
  const std::string caption =
      "Blue is positive, orange negative, strong colour near 1 in size. Pairs near 1 or -1 say that the data "
      "tell the two parameters apart badly; another parametrization may help.";
  out.push_back(
      {"correlation", "Correlation of the estimates", caption, canvas.finish("Correlation of the estimates", caption)});
}

} // namespace torvale::report
