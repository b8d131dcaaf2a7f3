#include "solve/judgement/slight_directions.h"

#include "solve/judgement/test_steps.h"
#include "solve/start/point_selection.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

using model::NX;

namespace {

constexpr double slight = 0.5; // curvature at unit diagonal
constexpr double left = 0.25;  // share of it that more points leave: less is no curvature of the data's

// A way from x by the parameters, and back: both ends inside, variances no more than halved.
class Way {
public:
  Way(NX& n, const std::vector<double>& x, std::vector<double> step)
      : n_(n), here_(n, x.data(), false), step_(std::move(step))
  {
    const FitCoordinates bent(n, x.data());
    double longest = 1.0;
    for (std::size_t i = 0; i < x.size(); ++i) {
      const int k = static_cast<int>(i);
      const double size = std::abs(step_[i]);
      if (size == 0.0) continue;
      longest = std::min(longest, std::min(-here_.lower(k), here_.upper(k)) / size);
      if (k == bent.logarithm() || bent.variance(k)) longest = std::min(longest, 0.5 * x[i] / size);
    }
    for (double& s : step_) s *= longest;
    promised_ = 2.0 * longest * longest;
  }

  // What a curvature of one rises by along it.
  double promised() const { return promised_; }

  // What -2 log L rises by along it, both sides together; a negative number where it cannot be evaluated.
  double rise()
  {
    FitSurface surface(n_, here_);
    double sum = 0.0, f = 0.0;
    std::vector<double> t(step_.size());
    for (const double side : {1.0, -1.0, 0.0}) {
      for (std::size_t i = 0; i < t.size(); ++i) t[i] = side * step_[i];
      if (!surface.value(t.data(), f)) return -1.0;
      sum += side == 0.0 ? -4.0 * f : 2.0 * f;
    }
    noise_ = 10.0 * evaluation_noise(2.0 * f);
    return sum;
  }

  double noise() const { return noise_; } // of the last rise

private:
  NX& n_;
  FitCoordinates here_;
  std::vector<double> step_;
  double promised_ = 0.0, noise_ = 0.0;
};

// A standard error along direction k, by the parameters.
std::vector<double> standard_error(const FitCoordinates& c, const Judgement& judged, int k)
{
  const auto np = static_cast<std::size_t>(c.size()), m = static_cast<std::size_t>(judged.curvature.size());
  std::vector<double> jacobian(np * np), step(np, 0.0);
  const std::vector<double> origin(np, 0.0);
  c.jacobian(origin.data(), jacobian.data());
  const double length = 1.0 / std::sqrt(judged.eigenvalues[static_cast<std::size_t>(k)]);
  for (std::size_t i = 0; i < np; ++i)
    for (std::size_t r = 0; r < m; ++r)
      step[i] += jacobian[i * np + static_cast<std::size_t>(judged.curvature.free[r])] * length *
                 judged.directions[r * m + static_cast<std::size_t>(k)];
  return step;
}

} // namespace

std::vector<int> ridges_of_the_points(NX& n, const FitCoordinates& c, const Judgement& judged,
                                      const std::vector<double>& x, int finer)
{
  std::vector<int> ridges;
  // What a rule of integration makes of a ridge is not far from what another rule changes.
  constexpr double of_the_points = 20.0;
  const int in_use = n.nqp;
  for (int k = 0; k < judged.curvature.size(); ++k) {
    const double value = judged.eigenvalues[static_cast<std::size_t>(k)];
    if (!(value > judged.tolerance) || value > slight) continue;
    Way way(n, x, standard_error(c, judged, k));
    if (way.promised() > of_the_points * std::abs(n.verdict.quadrature_change)) continue;
    const double now = way.rise(), noise = way.noise();
    if (!(now > noise)) continue;
    take_points(n, finer);
    const double then = way.rise();
    take_points(n, in_use);
    if (then >= -noise && then < left * now) ridges.push_back(k);
  }
  return ridges;
}

} // namespace torvale::solve
