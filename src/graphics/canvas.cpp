#include "graphics/canvas.h"

#include "host/values/text.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace torvale::graphics {

std::string escaped(std::string_view text)
{
  std::string out;
  for (const char c : host::valid_utf8(text)) {
    switch (c) {
    case '&':
      out += "&amp;";
      break;
    case '<':
      out += "&lt;";
      break;
    case '>':
      out += "&gt;";
      break;
    case '"':
      out += "&quot;";
      break;
    default:
      // Control characters have no place in XML.
      out += static_cast<unsigned char>(c) < 0x20 && c != '\n' && c != '\t' ? ' ' : c;
    }
  }
  return out;
}

std::string coordinate(double x)
{
  const double rounded = std::round(x * 100.0) / 100.0;
  return host::shortest(rounded == 0.0 ? 0.0 : rounded);
}

double text_width(std::string_view text, double size)
{
  double ems = 0.0;
  for (const char c : text) {
    if ((static_cast<unsigned char>(c) & 0xC0U) == 0x80U) continue; // the rest of a UTF-8 character
    if (std::string_view("ijl.,:;'|!I ()[]").find(c) != std::string_view::npos)
      ems += 0.33;
    else if (std::string_view("mwMW%@").find(c) != std::string_view::npos)
      ems += 0.9;
    else if (c >= 'A' && c <= 'Z')
      ems += 0.69;
    else
      ems += 0.57;
  }
  return ems * size;
}

std::string fitted_text(std::string_view text, double width, double size)
{
  if (text_width(text, size) <= width) return std::string(text);
  std::size_t bytes = text.size();
  const auto whole = [&](std::size_t n) { return host::cut_name(text, n); };
  while (bytes > 1 && text_width(whole(bytes), size) + 0.9 * size > width) --bytes;
  return std::string(whole(bytes)) + "…";
}

void Canvas::open_group(std::string_view attributes)
{
  body_ += fmt::format("<g {}>\n", attributes);
}

void Canvas::close_group()
{
  body_ += "</g>\n";
}

void Canvas::line(double x1, double y1, double x2, double y2, std::string_view css)
{
  body_ += fmt::format("<line class=\"{}\" x1=\"{}\" y1=\"{}\" x2=\"{}\" y2=\"{}\"/>\n", css, coordinate(x1),
                       coordinate(y1), coordinate(x2), coordinate(y2));
}

void Canvas::rectangle(double x, double y, double width, double height, std::string_view css, double opacity)
{
  body_ += fmt::format("<rect class=\"{}\" x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\"", css, coordinate(x),
                       coordinate(y), coordinate(width), coordinate(height));
  if (opacity < 1.0) body_ += fmt::format(" fill-opacity=\"{}\"", coordinate(opacity));
  body_ += "/>\n";
}

void Canvas::tooltip_rectangle(double x, double y, double width, double height, std::string_view css, double opacity,
                               std::string_view tooltip)
{
  body_ += fmt::format(
      "<rect class=\"{}\" x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" fill-opacity=\"{}\"><title>{}</title></rect>\n",
      css, coordinate(x), coordinate(y), coordinate(width), coordinate(height), coordinate(opacity), escaped(tooltip));
}

void Canvas::circle(double x, double y, double radius)
{
  body_ += fmt::format("<circle cx=\"{}\" cy=\"{}\" r=\"{}\"/>\n", coordinate(x), coordinate(y), coordinate(radius));
}

void Canvas::path(const std::vector<double>& points, std::string_view css, bool closed)
{
  std::string d;
  bool begun = false;
  for (std::size_t i = 0; i + 1 < points.size(); i += 2) {
    if (!std::isfinite(points[i]) || !std::isfinite(points[i + 1])) {
      begun = false;
      continue;
    }
    d += begun ? 'L' : 'M';
    d += coordinate(points[i]) + ' ' + coordinate(points[i + 1]);
    begun = true;
  }
  if (d.empty()) return;
  body_ += fmt::format("<path class=\"{}\" d=\"{}{}\"/>\n", css, d, closed ? "Z" : "");
}

void Canvas::text(double x, double y, std::string_view words, Anchor anchor, std::string_view css, double size,
                  bool turned)
{
  if (words.empty()) return;
  static constexpr std::string_view names[] = {"", " text-anchor=\"middle\"", " text-anchor=\"end\""};
  body_ += fmt::format("<text x=\"{}\" y=\"{}\"{}", coordinate(x), coordinate(y), names[static_cast<int>(anchor)]);
  if (!css.empty()) body_ += fmt::format(" class=\"{}\"", css);
  if (size != font_size) body_ += fmt::format(" font-size=\"{}\"", coordinate(size));
  if (turned) body_ += fmt::format(" transform=\"rotate(-90 {} {})\"", coordinate(x), coordinate(y));
  body_ += fmt::format(">{}</text>\n", escaped(words));

  const double w = text_width(words, size), h = size;
  const double before = anchor == Anchor::start ? 0.0 : anchor == Anchor::middle ? w / 2 : w;
  if (turned)
    boxes_.push_back({x - 0.8 * h, y - (w - before), h, w, std::string(words)});
  else
    boxes_.push_back({x - before, y - 0.8 * h, w, h, std::string(words)});
}

std::string Canvas::finish(std::string_view title, std::string_view description) const
{
  return fmt::format("<svg class=\"figure\" viewBox=\"0 0 {0} {1}\" width=\"{0}\" height=\"{1}\" "
                     "role=\"img\" font-size=\"{2}\">\n<title>{3}</title>\n<desc>{4}</desc>\n{5}</svg>\n",
                     coordinate(width_), coordinate(height_), coordinate(font_size), escaped(title),
                     escaped(description), body_);
}

// Blue, vermilion and green of the Okabe-Ito palette, which colour-blind readers tell apart; lighter ones on dark
// paper.
std::string_view figure_style()
{
  return ".figure{--ink:#222;--soft:#6b6b6b;--rule:#d9d9d9;--paper:#fff;--one:#0072b2;--two:#d55e00;--three:#00845f;--"
         "four:#b04c8b;"
         "font-family:system-ui,-apple-system,\"Segoe UI\",\"Helvetica Neue\",Arial,sans-serif}"
         ".figure text{fill:var(--ink)}.figure text.soft{fill:var(--soft)}.figure text.head{font-weight:600}"
         ".figure text.inverse{fill:var(--paper)}"
         ".figure line,.figure path{fill:none;stroke-width:1}"
         ".figure .axis{stroke:var(--soft)}.figure .grid{stroke:var(--rule)}.figure "
         ".frame{fill:none;stroke:var(--rule)}"
         ".figure .reference{stroke:var(--soft);stroke-dasharray:4 3}"
         ".figure .one{stroke:var(--one)}.figure .two{stroke:var(--two)}.figure .three{stroke:var(--three)}.figure "
         ".four{stroke:var(--four)}"
         ".figure path.one,.figure path.two,.figure path.three{stroke-width:1.6;stroke-linejoin:round}"
         ".figure path.two{stroke-dasharray:5 3}.figure "
         "path.chain{stroke-width:1;stroke-dasharray:none;stroke-opacity:.75}.figure line.thick{stroke-width:3}"
         ".figure .dots{fill:var(--one);fill-opacity:.55}.figure .dots.ink{fill:var(--ink);fill-opacity:.75}"
         ".figure .dots.two{fill:var(--two);stroke:none}"
         ".figure .bar{fill:var(--one);fill-opacity:.35;stroke:var(--paper);stroke-width:.5}"
         ".figure path.area{fill:var(--one);fill-opacity:.13;stroke:none}"
         ".figure .plus{fill:var(--one)}.figure .minus{fill:var(--two)}.figure .none{fill:var(--rule)}"
         "@media(prefers-color-scheme:dark){.figure{--ink:#e4e4e4;--soft:#a3a3a3;--rule:#3d4146;--paper:#17191c;"
         "--one:#56b4e9;--two:#f0a04b;--three:#3fc79a;--four:#e39ac8}}"
         "@media "
         "print{.figure{--ink:#000;--soft:#555;--rule:#ccc;--paper:#fff;--one:#0072b2;--two:#d55e00;--three:#00845f;--"
         "four:#b04c8b}}";
}

std::string standalone(std::string_view svg)
{
  const std::size_t end = svg.find('>');
  std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  out += "<svg xmlns=\"http://www.w3.org/2000/svg\"";
  out += svg.substr(4, end - 3);
  out += "\n<style>";
  out += figure_style();
  out += "</style>\n<rect width=\"100%\" height=\"100%\" style=\"fill:var(--paper)\"/>";
  out += svg.substr(end + 1);
  return out;
}

} // namespace torvale::graphics
