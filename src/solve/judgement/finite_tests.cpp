#include "solve/judgement/rise_together.h"
#include "solve/judgement/test_steps.h"

#include <cmath>

namespace torvale::solve {

namespace {

class FiniteTests {
public:
  FiniteTests(FitSurface& surface, double f, const double* g, Judgement& out)
      : surface_(surface), c_(surface.coordinates()), g_(g), out_(out), steps_(surface, f, out)
  {
  }

  void null_directions()
  {
    for (const int k : out_.null) {
      for (const double a : {0.1, -0.1, 1.0, -1.0}) steps_.along(k, a);
      if (out_.better.empty()) runaway(k);
    }
  }

  void curved_directions()
  {
    for (int k = steps_.size() - 1; k >= 0; --k) {
      const double value = out_.eigenvalues[static_cast<std::size_t>(k)];
      if (!(value > out_.tolerance)) continue;
      const double error = 1.0 / std::sqrt(value);
      const bool rises = steps_.rises_along(k, error) && steps_.rises_along(k, -error);
      for (int i = 0; i < steps_.size() && !rises; ++i)
        if (steps_.share(i, k) > 0.3) steps_.note_separated(steps_.coordinate(i));
      if (!out_.curvature.turned) break; // a turned direction has the others' curvature
    }
  }

  // A parameter whose own error is larger than it is: one that runs away does so with its error ahead of it.
  void small_parameters()
  {
    std::vector<int> suspects;
    for (int i = 0; i < steps_.size(); ++i) {
      const int j = steps_.coordinate(i);
      if (c_.scale(j) > c_.own_size(j) && steps_.own(i) >= 0.5) suspects.push_back(i);
    }
    const auto cleared = rise_together(surface_, out_.curvature, g_, suspects);
    for (const int i : suspects) {
      if (std::find(cleared.begin(), cleared.end(), i) != cleared.end()) continue;
      const int j = steps_.coordinate(i);
      if (!steps_.rises_of(j, 1.0) || !steps_.rises_of(j, -1.0) || beyond_curvature(i)) steps_.note_separated(j);
    }
  }

  TestSteps& steps() { return steps_; }

private:
  // A direction that is flat here, flat further out, and rises on the way back: its parameters have run away.
  void runaway(int k)
  {
    int most = -1;
    for (int i = 0; i < steps_.size(); ++i)
      if (most < 0 || std::abs(steps_.vector(i, k)) > std::abs(steps_.vector(most, k))) most = i;
    const int j = steps_.coordinate(most);
    const double home = -std::copysign(c_.own_size(j), c_.origin(j)) / (c_.scale(j) * steps_.vector(most, k)); // to 0
    const bool usable = home != 0.0 && std::isfinite(home) && j != c_.logarithm();
    const double back = usable ? steps_.along(k, home) : 0.0;
    const bool whole = back >= far_rise && back < TestSteps::fails && steps_.inside() &&
                       steps_.flat_outward([&](double a) { return steps_.along(k, a); }, -home, back);
    for (int i = 0; i < steps_.size(); ++i) {
      const int own = steps_.coordinate(i);
      if (steps_.share(i, k) > 0.3 && (whole || runs_away(own))) steps_.note_separated(own);
    }
  }

  // The way out may end before a standard error, where an evaluation fails, and then tells nothing. On the tail of an
  // exponential the way back to 0 rises far more than slope and curvature promise, and the way out does not rise.
  bool beyond_curvature(int i)
  {
    const int j = steps_.coordinate(i);
    const double home = way_home(j);
    const double promised = std::abs(steps_.own(i)) * home * home + 2.0 * std::abs(g_[j] * home);
    return home != 0.0 && steps_.of(j, home) > 10.0 * promised && runs_away(j);
  }

  // Coordinate j alone rises on the way to 0, and not on the way out.
  bool runs_away(int j)
  {
    const double home = way_home(j), back = home != 0.0 ? steps_.of(j, home) : 0.0;
    return back >= gain_allowed && back < TestSteps::fails &&
           steps_.flat_outward([&](double a) { return steps_.of(j, a); }, -home, back);
  }

  double way_home(int j) const
  {
    if (j == c_.logarithm()) return 0.0; // which has no home
    return std::clamp(-std::copysign(c_.own_size(j), c_.origin(j)) / c_.scale(j), c_.lower(j), c_.upper(j));
  }

  FitSurface& surface_;
  const FitCoordinates& c_;
  const double* g_;
  Judgement& out_;
  TestSteps steps_;
};

} // namespace

void finite_tests(FitSurface& surface, double f, const double* g, Judgement& out)
{
  FiniteTests tests(surface, f, g, out);
  tests.null_directions();
  if (!out.better.empty()) return;
  tests.curved_directions();
  tests.small_parameters();
  if (out.better.empty() && out.separated.empty()) runaway_tests(tests.steps(), surface.coordinates(), f, g, out);
}

double least_rise(const Judgement& judged)
{
  double least = TestSteps::fails;
  for (const auto& rise : judged.rises) least = std::min(least, rise.by);
  return least;
}

bool rises_stand(FitSurface& refined, std::vector<Judgement::Rise>& rises, std::optional<double> at_origin)
{
  const std::vector<double> origin(static_cast<std::size_t>(refined.coordinates().size()), 0.0);
  double f = 0.0;
  if (!at_origin) {
    if (!refined.value(origin.data(), f)) return true;
    at_origin = f;
  }
  bool stand = true;
  for (auto& rise : rises) {
    if (!refined.value(rise.t.data(), f)) continue;
    const double before = rise.by;
    rise.by = 2.0 * (f - *at_origin);
    stand = stand && rise.by - std::abs(rise.by - before) >= gain_allowed;
  }
  return stand;
}

} // namespace torvale::solve
