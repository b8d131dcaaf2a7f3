#pragma once
// Canvas: one picture as SVG. Colours are classes, so that a page (or figure_style) decides them for light and dark.

#include <string>
#include <string_view>
#include <vector>

namespace torvale::graphics {

// A text put on the canvas, for tests of overlap. Left, top, width and height in the picture's units.
struct Box {
  double x, y, width, height;
  std::string text;
};

enum class Anchor { start, middle, end };

inline constexpr double font_size = 12.0;
inline constexpr double small_font_size = 10.5;

// Width of a text in the sans-serif faces of today's systems, from the advance widths of their common letters; a few
// per cent on the wide side.
double text_width(std::string_view text, double size = font_size);
// The text cut to a width, with an ellipsis where something is missing.
std::string fitted_text(std::string_view text, double width, double size = font_size);

class Canvas {
public:
  Canvas(double width, double height) : width_(width), height_(height) {}

  double width() const { return width_; }
  double height() const { return height_; }

  void open_group(std::string_view attributes); // attributes as they stand in SVG, escaped by the caller
  void close_group();
  void line(double x1, double y1, double x2, double y2, std::string_view css);
  void rectangle(double x, double y, double width, double height, std::string_view css, double opacity = 1.0);
  void circle(double x, double y, double radius);
  // Points x0 y0 x1 y1 ...; a pair with a missing value breaks the line. closed: an area.
  void path(const std::vector<double>& points, std::string_view css, bool closed = false);
  // The baseline of the text begins, is centred or ends at x, y. Turned: read upwards.
  void text(double x, double y, std::string_view words, Anchor anchor = Anchor::start, std::string_view css = {},
            double size = font_size, bool turned = false);
  void tooltip_rectangle(double x, double y, double width, double height, std::string_view css, double opacity,
                         std::string_view tooltip);

  const std::vector<Box>& boxes() const { return boxes_; }
  // The picture: <svg>, for a page, with role, title and description for readers who do not see it.
  std::string finish(std::string_view title, std::string_view description) const;

private:
  double width_, height_;
  std::string body_;
  std::vector<Box> boxes_;
};

// Text for SVG and HTML: markup escaped, bytes that are not UTF-8 replaced.
std::string escaped(std::string_view text);
// A coordinate: at most two decimals, no trailing zeros.
std::string coordinate(double x);

// The style of a picture that stands alone in a file; a page has the same rules in its own style.
std::string_view figure_style();
// A finished picture as a file: with its name space and style.
std::string standalone(std::string_view svg);

} // namespace torvale::graphics
