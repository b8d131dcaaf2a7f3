#include "solve/judgement/fresh_start.h"

#include "solve/judgement/continuation.h"

namespace torvale::solve {

bool fresh_start(model::NX& n, const std::vector<double>& start, const std::vector<double>& scales,
                 std::vector<double>& x, double& f)
{
  constexpr double first_radius = 0.5; // of the parameters
  FitCoordinates c(n, start.data());
  for (int i = 0; i < c.size(); ++i) {
    const double size = c.own_size(i);
    const auto k = static_cast<std::size_t>(i);
    c.set_scale(i, size > 0.0 ? size : k < scales.size() ? scales[k] : 1.0);
  }
  FitSurface surface(n, c);
  const std::vector<double> origin(start.size(), 0.0);
  return surface.value(origin.data(), f) && continue_fit(surface, origin, f, x, f, nullptr, first_radius);
}

} // namespace torvale::solve
