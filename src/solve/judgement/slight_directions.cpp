#include "solve/judgement/slight_directions.h"

#include "solve/judgement/test_steps.h"
#include "solve/start/point_selection.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

using model::NX;

namespace {

constexpr double slight = 0.5; // curvature at unit diagonal
// What a rule of integration makes of a ridge is not far from what another rule changes.
constexpr double of_the_points = 100.0;
constexpr double left = 0.25; // share of it that more points leave: less is no curvature of the data's

// A way from x by the parameters, and back: both ends inside, variances no more than halved.
class Way {
public:
  Way(NX& n, const std::vector<double>& x, std::vector<double> step)
      : n_(n), here_(n, x.data(), false), step_(std::move(step)), length_{longest(x, 1.0), -longest(x, -1.0)}
  {
  }

  // What a curvature of one changes along it.
  double promised() const { return length_[0] * length_[0] + length_[1] * length_[1]; }

  // What -2 log L changes along it, both sides together; a negative number where it cannot be evaluated.
  double change()
  {
    FitSurface surface(n_, here_);
    std::vector<double> t(step_.size(), 0.0);
    double sum = 0.0, f = 0.0, there = 0.0;
    if (!surface.value(t.data(), f)) return -1.0;
    for (const double length : length_) {
      for (std::size_t i = 0; i < t.size(); ++i) t[i] = length * step_[i];
      if (!surface.value(t.data(), there)) return -1.0;
      sum += 2.0 * std::abs(there - f);
    }
    noise_ = 10.0 * evaluation_noise(2.0 * f);
    return sum;
  }

  double noise() const { return noise_; } // of the last change

private:
  double longest(const std::vector<double>& x, double side) const
  {
    const FitCoordinates bent(n_, x.data());
    double most = 1.0;
    for (std::size_t i = 0; i < x.size(); ++i) {
      const int k = static_cast<int>(i);
      const double move = side * step_[i], size = std::abs(move);
      if (size == 0.0) continue;
      most = std::min(most, (move < 0.0 ? -here_.lower(k) : here_.upper(k)) / size);
      if (move < 0.0 && (k == bent.logarithm() || bent.variance(k))) most = std::min(most, 0.5 * x[i] / size);
    }
    return most;
  }

  NX& n_;
  FitCoordinates here_;
  std::vector<double> step_;
  double length_[2]; // of the two sides
  double noise_ = 0.0;
};

// A standard error along direction k, by the parameters.
std::vector<double> standard_error(const FitCoordinates& c, const Judgement& judged, int k)
{
  const auto np = static_cast<std::size_t>(c.size()), m = static_cast<std::size_t>(judged.curvature.size());
  std::vector<double> jacobian(np * np), step(np, 0.0);
  const std::vector<double> origin(np, 0.0);
  c.jacobian(origin.data(), jacobian.data());
  const double length = 1.0 / std::sqrt(std::abs(judged.eigenvalues[static_cast<std::size_t>(k)]));
  for (std::size_t i = 0; i < np; ++i)
    for (std::size_t r = 0; r < m; ++r)
      step[i] += jacobian[i * np + static_cast<std::size_t>(judged.curvature.free[r])] * length *
                 judged.directions[r * m + static_cast<std::size_t>(k)];
  return step;
}

} // namespace

std::vector<int> ridges_of_the_points(NX& n, const FitCoordinates& c, const Judgement& judged,
                                      const std::vector<double>& x, int finer, double change)
{
  std::vector<int> ridges;
  const int in_use = n.nqp;
  for (int k = 0; k < judged.curvature.size(); ++k) {
    const double value = std::abs(judged.eigenvalues[static_cast<std::size_t>(k)]);
    if (!(value > judged.tolerance) || value > slight) continue;
    Way way(n, x, standard_error(c, judged, k));
    if (way.promised() > of_the_points * change) continue;
    const double now = way.change(), noise = way.noise();
    if (!(now > noise)) continue;
    take_points(n, finer);
    const double then = way.change();
    take_points(n, in_use);
    if (then >= 0.0 && then < left * now) ridges.push_back(k);
  }
  return ridges;
}

std::vector<double> along_the_ridge(NX& n, const std::vector<double>& x, double f, int finer)
{
  const FitCoordinates c(n, x.data());
  const auto variances = c.edge_diagonals();
  const auto at = [&](int i) { return x[static_cast<std::size_t>(i)]; };
  const auto vanished = [&](int i) { return at(i) <= std::max(n.parmstr[static_cast<std::size_t>(i)].lowbound, 0.0); };
  const auto largest =
      std::max_element(variances.begin(), variances.end(), [&](int i, int j) { return at(i) < at(j); });
  if (largest == variances.end() || vanished(*largest)) return {};
  FitCoordinates here(n, x.data(), false);
  FitSurface surface(n, here);
  const int in_use = n.nqp;
  const double change = n.verdict.quadrature_change, noise = 10.0 * evaluation_noise(2.0 * f);
  for (const int i : variances) {
    if (!vanished(i)) continue;
    std::vector<double> t(x.size(), 0.0), there(x.size());
    t[static_cast<std::size_t>(i)] = 0.5 * at(*largest);
    t[static_cast<std::size_t>(*largest)] = -0.5 * at(*largest);
    double value = 0.0, refined = 0.0;
    if (!surface.value(t.data(), value)) continue;
    take_points(n, finer);
    const bool good = surface.value(t.data(), refined);
    take_points(n, in_use);
    const double now = 2.0 * std::abs(value - f), then = std::abs(2.0 * (refined - f) - change);
    if (!good || !(now > noise) || now > of_the_points * std::abs(change) || then > left * now) continue;
    here.parameters(t.data(), there.data());
    return there;
  }
  return {};
}

} // namespace torvale::solve
