#include "solve/judgement/vanished_variance.h"

#include "solve/judgement/estimate_covariance.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace torvale::solve {

using model::NX;

namespace {

// One effect left out.
class Trial {
public:
  // covariance: of the parameters at x, dense. effect: row and column of G.
  Trial(NX& n, const std::vector<double>& x, std::vector<double> covariance, const std::vector<int>& effect)
      : n_(n), x_(x), covariance_(std::move(covariance)), effect_(effect)
  {
    for (const int i : effect_) set_to_zero(static_cast<std::size_t>(i));
    stay_inside(x);
  }

  // True when the objective there, or where steps in the metric of the covariance lead, is below `target`. They end
  // where they bring too little to get there.
  bool below(double target)
  {
    constexpr int most_steps = 12;
    constexpr double shorter = 0.25, nothing = 1e-8;
    std::vector<double> g(x_.size()), next(x_.size());
    if (!evaluate(x_, target, g)) return false;
    double length = 1.0;
    for (int step = 0; step < most_steps && hope(g) > std::max(f_ - target, nothing); ++step) {
      const double before = f_;
      const auto from = x_;
      const auto slope = g;
      move(slope, length);
      if (evaluate(x_, target, g) && f_ < before) continue;
      f_ = before;
      x_ = from;
      g = slope;
      length *= shorter;
    }
    return f_ < target;
  }

  const std::vector<double>& point() const { return x_; }
  double objective() const { return f_; }

private:
  double& covariance(std::size_t i, std::size_t j) { return covariance_[i * x_.size() + j]; }

  // Parameter s at 0, the others where they are expected given that. Their covariance becomes the conditional one.
  void set_to_zero(std::size_t s)
  {
    const double own = covariance(s, s);
    std::vector<double> share(x_.size(), 0.0);
    for (std::size_t i = 0; i < share.size() && own > 0.0; ++i) share[i] = covariance(i, s) / own;
    for (std::size_t i = 0; i < share.size(); ++i) {
      x_[i] -= share[i] * x_[s];
      for (std::size_t k = 0; k < share.size(); ++k) covariance(i, k) -= share[i] * share[k] * own;
    }
    for (std::size_t i = 0; i < share.size(); ++i) covariance(i, s) = covariance(s, i) = 0.0;
    x_[s] = 0.0;
  }

  // What the parameters are expected at knows nothing of bounds; other variances keep a part of what they were.
  void stay_inside(const std::vector<double>& estimates)
  {
    constexpr double part = 0.1;
    const FitCoordinates bent(n_, estimates.data());
    for (std::size_t i = 0; i < x_.size(); ++i) {
      const auto& p = n_.parmstr[i];
      const int k = static_cast<int>(i);
      const bool left_out = std::find(effect_.begin(), effect_.end(), k) != effect_.end();
      if (!left_out && (k == bent.logarithm() || bent.variance(k))) x_[i] = std::max(x_[i], part * estimates[i]);
      if (p.applyl) x_[i] = std::max(x_[i], p.lowbound);
      if (p.applyh) x_[i] = std::min(x_[i], p.highbound);
    }
  }

  // Objective and gradient at x. Without analytic gradients one takes many evaluations.
  bool evaluate(const std::vector<double>& x, double target, std::vector<double>& g)
  {
    constexpr double far_above = 2.0; // in the objective
    FitCoordinates c(n_, x.data(), false);
    for (std::size_t i = 0; i < x.size(); ++i)
      if (const double error = standard_error(i); error > 0.0) c.set_scale(static_cast<int>(i), error);
    for (const int i : effect_) c.hold(i);
    FitSurface surface(n_, c);
    const std::vector<double> origin(x.size(), 0.0);
    if (!surface.analytic() && (!surface.value(origin.data(), f_) || f_ > target + far_above)) return false;
    if (!surface.gradient(origin.data(), f_, g.data())) return false;
    for (std::size_t i = 0; i < x.size(); ++i) g[i] /= c.scale(static_cast<int>(i));
    return true;
  }

  double standard_error(std::size_t i) { return std::sqrt(std::max(covariance(i, i), 0.0)); }

  void move(const std::vector<double>& g, double length)
  {
    const auto from = x_;
    for (std::size_t i = 0; i < g.size(); ++i)
      for (std::size_t k = 0; k < g.size(); ++k) x_[i] -= length * covariance(i, k) * g[k];
    stay_inside(from);
  }

  // What steps from here may bring: twice what the gradient and the curvature at the estimates promise, which
  // is not quite that of this place.
  double hope(const std::vector<double>& g)
  {
    constexpr double times = 2.0;
    double sum = 0.0;
    for (std::size_t i = 0; i < g.size(); ++i)
      for (std::size_t k = 0; k < g.size(); ++k) sum += g[i] * covariance(i, k) * g[k];
    return times * 0.5 * sum;
  }

  NX& n_;
  std::vector<double> x_, covariance_;
  const std::vector<int>& effect_;
  double f_ = 0.0;
};

} // namespace

std::optional<WithoutEffect> vanished_variance(NX& n, const FitCoordinates& c, const Judgement& judged,
                                               const std::vector<double>& x, double f)
{
  constexpr double wald = 1.96, zero = 1e-6; // standard errors
  const FitCoordinates bent(n, x.data());
  const auto diagonals = bent.edge_diagonals();
  if (diagonals.empty()) return std::nullopt;
  const std::size_t np = x.size();
  std::vector<double> jacobian(np * np);
  const std::vector<double> origin(np, 0.0);
  c.jacobian(origin.data(), jacobian.data());
  const auto covariance = parameter_covariance(judged, jacobian, np);
  for (const int i : diagonals) {
    const auto k = static_cast<std::size_t>(i);
    const auto effect = bent.effect(i);
    const double error = std::sqrt(std::max(covariance[k * (np + 1)], 0.0));
    if (effect.empty() || bent.fixed(i) || x[k] > wald * error || x[k] <= zero * error) continue;
    Trial trial(n, x, covariance, effect);
    if (trial.below(f - 0.5 * gain_allowed)) return WithoutEffect{i, trial.point(), trial.objective()};
  }
  return std::nullopt;
}

} // namespace torvale::solve
