#include "solve/judgement/by_turns.h"

#include "solve/judgement/continuation.h"

#include <algorithm>

namespace torvale::solve {

using model::NX;

namespace {

// From x to a better point, by the coordinates that are not held. False when there is none.
bool turn(NX& n, FitCoordinates& c, std::vector<double>& x, double& f)
{
  constexpr double first_radius = 0.5; // of the parameters
  for (int i = 0; i < c.size(); ++i) c.set_scale(i, c.own_size(i) > 0.0 ? c.own_size(i) : 1.0);
  FitSurface surface(n, c);
  const std::vector<double> origin(x.size(), 0.0);
  return continue_fit(surface, origin, f, x, f, nullptr, first_radius);
}

} // namespace

bool by_turns(NX& n, std::vector<double>& x, double& f)
{
  constexpr int most_turns = 12;
  const double start = f;
  const int variance = FitCoordinates(n, x.data()).logarithm();
  if (variance < 0) return false;
  for (int k = 0; k < most_turns; ++k) {
    const double before = f;
    FitCoordinates others(n, x.data());
    others.hold(variance);
    turn(n, others, x, f);
    FitCoordinates alone(n, x.data());
    for (int i = 0; i < alone.size(); ++i)
      if (i != variance) alone.hold(i);
    turn(n, alone, x, f);
    if (2.0 * (before - f) < gain_allowed) break;
  }
  return 2.0 * (start - f) >= gain_allowed;
}

} // namespace torvale::solve
