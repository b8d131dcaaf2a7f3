#include "solve/fresh_start.h"

#include "solve/continuation.h"

namespace torvale::solve {

using model::NX;

namespace {

constexpr double first_radius = 0.5; // of the parameters

FitCoordinates coordinates_at(const NX& n, const std::vector<double>& x, const std::vector<double>& scales)
{
  FitCoordinates c(n, x.data());
  for (int i = 0; i < c.size(); ++i) {
    const double size = c.own_size(i);
    const auto k = static_cast<std::size_t>(i);
    c.set_scale(i, size > 0.0 ? size : k < scales.size() ? scales[k] : 1.0);
  }
  return c;
}

// From x, where the objective is f, to a better point. False when there is none.
bool go_on(NX& n, FitCoordinates& c, double radius, std::vector<double>& x, double& f)
{
  FitSurface surface(n, c);
  const std::vector<double> origin(x.size(), 0.0);
  return surface.value(origin.data(), f) && continue_fit(surface, origin, f, x, f, nullptr, radius);
}

} // namespace

bool fresh_start(NX& n, const std::vector<double>& start, const std::vector<double>& scales, bool by_turns,
                 std::vector<double>& x, double& f)
{
  constexpr int most_turns = 6;
  x = start;
  FitCoordinates c = coordinates_at(n, start, scales);
  if (!by_turns) return go_on(n, c, first_radius, x, f);
  const int variance = c.logarithm();
  if (variance < 0) return false;
  bool any = false;
  for (int turn = 0; turn < most_turns; ++turn) {
    FitCoordinates others = coordinates_at(n, x, scales);
    others.hold(variance);
    const bool moved = go_on(n, others, turn == 0 ? first_radius : 0.0, x, f);
    FitCoordinates alone = coordinates_at(n, x, scales);
    for (int i = 0; i < alone.size(); ++i)
      if (i != variance) alone.hold(i);
    const bool fitted = go_on(n, alone, first_radius, x, f);
    any = any || moved || fitted;
    if (!moved || !fitted) break;
  }
  return any;
}

} // namespace torvale::solve
