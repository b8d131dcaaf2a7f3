#pragma once
// Panel: a rectangle of a canvas with axes and marks in it. The caller gives data; places follow from the scales.

#include "graphics/canvas.h"
#include "graphics/scale.h"

#include <span>

namespace torvale::graphics {

struct Axis {
  std::string label; // with its unit
  Interval range;    // as shown; widen it before
  // Round numbers; whole numbers only; powers of ten, where values are their exponents.
  enum class Ticks { round, whole, powers } ticks = Ticks::round;
  std::vector<std::string> categories{}; // category k stands at k; instead of ticks
  double label_room = 0; // of an upright axis: at least so much for its tick labels, so that panels align
};

// What the tick labels of an upright axis take in a panel of that height.
double label_room(const Axis& axis, double height);

struct PanelPlace {
  double left = 0, top = 0, width = 0, height = 0; // of everything, labels included
};

class Panel {
public:
  // Draws grid, axes, tick labels and titles. compact: for small multiples, smaller type and no axis titles.
  Panel(Canvas& canvas, const PanelPlace& place, const Axis& x, const Axis& y, std::string_view heading = {},
        bool compact = false);
  ~Panel(); // ends the panel's group
  Panel(const Panel&) = delete;
  Panel& operator=(const Panel&) = delete;

  const Scale& x() const { return x_; }
  const Scale& y() const { return y_; }

  // Marks outside the ranges and pairs with missing values are left out.
  void dots(std::span<const double> x, std::span<const double> y, std::string_view css = {});
  void curve(std::span<const double> x, std::span<const double> y, std::string_view css);
  void band(std::span<const double> x, std::span<const double> low, std::span<const double> high);
  void bars(std::span<const double> edges, std::span<const double> heights); // one edge more than heights; from 0
  // The same between two heights each.
  void bars(std::span<const double> edges, std::span<const double> low, std::span<const double> high);
  void vertical(double x, std::string_view css = "reference");            // a line over the whole height
  void horizontal(double y, std::string_view css = "reference");          // and over the whole width
  void diagonal();                                                        // y = x
  void interval(double x, double low, double high, std::string_view css); // an upright interval

private:
  void x_axis(const Axis& axis, double size);
  void y_axis(const Axis& axis, const Ticks& ticks, double size);

  Canvas& canvas_;
  Scale x_, y_;
};

// Counts of the finite values in `bins` bins of equal width over their range; densities integrate to 1.
struct Histogram {
  std::vector<double> edges;
  std::vector<double> density;
};
Histogram histogram(std::span<const double> values);

// Running mean for the eye: values of y by x in about `windows` overlapping windows of equal counts, weighted by the
// tricube of the distance (a local line; Cleveland 1979 without the robust step). Empty with fewer than 20 pairs or 8
// places.
struct Smooth {
  std::vector<double> x, y;
};
Smooth smooth_line(std::span<const double> x, std::span<const double> y);

} // namespace torvale::graphics
