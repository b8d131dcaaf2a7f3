// How often counts occur, and how often the model expects them.

#include "report/pictures.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace torvale::report {

using graphics::Axis;
using graphics::Canvas;
using graphics::Interval;
using graphics::Panel;

// A rootogram that hangs from the curve of the model (Tukey 1977; Kleiber and Zeileis 2016): roots of frequencies have
// nearly the same variance, 1/4, whatever the frequency.
void frequency_picture(const inference::PictureData& data, Pictures& out)
{
  const auto& f = data.frequencies;
  const std::size_t bins = f.observed.size();
  if (bins < 3) return;
  std::vector<double> edges, middle, expected, foot, ends = {-1.3, 0};
  for (std::size_t k = 0; k < bins; ++k) {
    edges.push_back(f.first - 0.5 + static_cast<double>(k) * f.width);
    middle.push_back(edges.back() + f.width / 2);
    expected.push_back(std::sqrt(f.expected[k]));
    foot.push_back(expected.back() - std::sqrt(f.observed[k]));
  }
  edges.push_back(edges.back() + f.width);
  ends.insert(ends.end(), expected.begin(), expected.end());
  ends.insert(ends.end(), foot.begin(), foot.end());
  Interval y;
  if (!graphics::range_of(ends, y)) return;
  Canvas canvas(half_width, 380);
  {
    Panel p(canvas, {0, 0, half_width, 380},
            {data.response, graphics::widened({edges.front(), edges.back()}, 0.02), Axis::Ticks::whole},
            {"Root of the number of records", graphics::widened(y, 0.04)});
    p.bars(edges, foot, expected);
    p.horizontal(0, "axis");
    p.horizontal(-1);
    p.horizontal(1);
    p.curve(middle, expected, "two");
    p.dots(middle, expected, "two");
  }
  const double last = f.first + f.width * static_cast<double>(bins - 1);
  std::string caption =
      "The dashed line is the root of the number of records that the model expects at each count; bars, the roots of "
      "the "
      "observed numbers, hang from it. A bar that reaches below 0 is a count that occurs more often than expected, one "
      "that ends above 0 a rarer one; about one in twenty ends outside the outer lines when the model is right.";
  if (f.width > 1) caption += fmt::format(" A bar holds {} counts.", f.width);
  if (f.first > 0) caption += fmt::format(" The first holds all below {}.", f.first + f.width);
  caption += fmt::format(" The last holds all from {} on.", last);
  if (!data.records.individual.empty()) caption += " Expected at each subject's own effects.";
  caption += thinning_note(data.frequency_step, data.records.response.size());
  out.push_back({"frequencies", "Frequencies of counts", caption, canvas.finish("Frequencies of counts", caption)});
}

} // namespace torvale::report
