#include "solve/judgement/fit_end.h"

#include "integration/objective.h"
#include "solve/judgement/continuation.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

void FitEnd::move_to(const std::vector<double>& x)
{
  x_ = x;
  moved_ = true;
  // Strict bounds of variances that the factor has passed.
  for (int i = 0; i < n_.nparm; ++i) {
    const auto& p = n_.parmstr[static_cast<std::size_t>(i)];
    if (p.applyl) x_[static_cast<std::size_t>(i)] = std::max(x_[static_cast<std::size_t>(i)], p.lowbound);
    if (p.applyh) x_[static_cast<std::size_t>(i)] = std::min(x_[static_cast<std::size_t>(i)], p.highbound);
  }
  FitCoordinates here(n_, x_.data(), false);
  FitSurface surface(n_, here);
  const std::vector<double> origin(x_.size(), 0.0);
  g_.resize(x_.size());
  if (coordinates_ != nullptr && !surface.analytic())
    for (int i = 0; i < n_.nparm; ++i)
      if (!coordinates_->in_factor(i)) here.set_scale(i, coordinates_->scale(i));
  if (!surface.gradient(origin.data(), f_, g_.data())) return;
  for (std::size_t i = 0; i < x_.size(); ++i) g_[i] /= here.scale(static_cast<int>(i));
  integration::accept_modes(n_);
}

// Where evaluations are noisy the trust region's own differences, over short intervals, are noise: the judge's Hessian
// is the better one, and its Newton step tells whether there is something to gain.
bool FitEnd::newton_step()
{
  const bool worth = judgement_.measured && !judgement_.indefinite && judgement_.gain > judgement_.allowed;
  if (!worth || !(judgement_.curvature.noise > 0.0)) return false;
  FitSurface surface(n_, *coordinates_);
  const std::vector<double> origin(x_.size(), 0.0);
  std::vector<double> g(x_.size()), x(x_.size()), t(x_.size());
  coordinates_->gradient(origin.data(), g_.data(), g.data());
  const auto step = judgement_.newton_step(g);
  constexpr double least = 0.25; // of what the step promises
  for (double length = 1.0; length > 0.1; length *= 0.5) {
    for (std::size_t i = 0; i < x.size(); ++i) t[i] = length * step[i];
    double f = 0.0;
    if (!surface.value(t.data(), f) || 2.0 * (f_ - f) < least * length * judgement_.gain) continue;
    coordinates_->parameters(t.data(), x.data());
    move_to(x);
    return true;
  }
  return false;
}

// At a saddle with next to no gradient a trust region would end at once: a step along the direction that falls comes
// first.
void FitEnd::leave_saddle()
{
  if (!judgement_.indefinite || !judgement_.better.empty() || judgement_.gain > sharp_gain) return;
  FitSurface surface(n_, *coordinates_);
  const auto m = static_cast<std::size_t>(judgement_.curvature.size());
  std::vector<double> t(x_.size(), 0.0);
  // (What a fourth power ends falls most at one length, and rises at twice that.)
  for (const double length : {1.0, -1.0, 0.3, -0.3, 0.1, -0.1, 0.03, -0.03, 0.01, -0.01}) {
    for (std::size_t i = 0; i < m; ++i)
      t[static_cast<std::size_t>(judgement_.curvature.free[i])] = length * judgement_.directions[i * m + m - 1];
    double f = 0.0;
    if (!surface.value(t.data(), f) || 2.0 * (f_ - f) < judgement_.allowed) continue;
    judgement_.better = t;
    judgement_.lower_by = 2.0 * (f_ - f);
    return;
  }
}

// One more round of the trust region. False when it did not lower -2 log L by what counts.
bool FitEnd::go_on()
{
  if (newton_step()) return true;
  leave_saddle();
  FitSurface surface(n_, *coordinates_);
  const bool jump = !judgement_.better.empty();
  const std::vector<double> start = jump ? judgement_.better : std::vector<double>(x_.size(), 0.0);
  const double f_start = jump ? f_ - 0.5 * judgement_.lower_by : f_;
  const double before = f_;
  std::vector<double> x(x_.size());
  double f = 0.0;
  if (!continue_fit(surface, start, f_start, x, f, &judgement_.curvature)) {
    if (!jump) return false;
    coordinates_->parameters(start.data(), x.data());
  }
  move_to(x);
  falling_ = 2.0 * (before - f_) >= much;
  return 2.0 * (before - f_) >= gain_allowed;
}

// The minimum to more digits. False when there are none to be had.
bool FitEnd::sharpen()
{
  FitSurface surface(n_, *coordinates_);
  const std::vector<double> origin(x_.size(), 0.0);
  std::vector<double> x;
  double f = 0.0;
  if (!continue_fit(surface, origin, f_, x, f, &judgement_.curvature)) return false;
  move_to(x);
  return true;
}

} // namespace torvale::solve
