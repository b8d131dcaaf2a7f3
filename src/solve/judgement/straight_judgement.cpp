#include "solve/judgement/straight_judgement.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

using model::NX;

namespace {

constexpr double inside = 2e-3;                         // standard errors from an end
constexpr double pressed = 0.5 * gain_allowed / inside; // slope over a standard error that makes it count

bool contains(const std::vector<int>& list, int i)
{
  return std::find(list.begin(), list.end(), i) != list.end();
}

// A variance below a fifth of its standard error, as its root or its logarithm has it.
bool small_variance(const FitCoordinates& c, int i)
{
  if (i == c.logarithm()) return c.scale(i) > 5.0;
  return c.variance(i) && c.own_size(i) < 0.45 * c.scale(i);
}

class AtTheEnds {
public:
  AtTheEnds(NX& n, const FitCoordinates& c, const std::vector<int>& ends, const std::vector<double>& x, double f)
      : n_(n), x_(x), f_(f), ends_(ends), held_(x.size(), 0)
  {
    straight_ = std::make_unique<FitCoordinates>(straight_at(x));
    // (A standard error that is rounding beside its parameter says that derivatives at the point are: they begin anew.)
    constexpr double rounding = 1e-10;
    for (int i = 0; i < c.size(); ++i) {
      const bool known = c.bent(i) || c.scale(i) > rounding * c.own_size(i);
      straight_->set_scale(i, known ? most_scale(c, i) : straight_->short_scale(i));
      rounding_ = rounding_ || !known;
    }
  }

  StraightJudgement judge()
  {
    for (int i = 0; i < straight_->size(); ++i)
      if (!straight_->fixed(i)) find_scale(i);
    // A length at the end, where gradients may be rounding, is not the last word.
    Curvature curvature;
    std::vector<double> g;
    for (int pass = 0; pass < passes; ++pass)
      if (!step_inside(g) || !measure_here(g, curvature)) return {};
    hold(g);
    if (!step_inside(g) || 2.0 * (here_ - f_) > gain_allowed || !measure_here(g, curvature)) return {};
    FitSurface surface(n_, *straight_);
    StraightJudgement out;
    out.judgement = judge_given(surface, std::move(curvature), here_, g.data());
    if (!level(out.judgement, g)) return {};
    out.coordinates = std::move(straight_);
    out.rounding = rounding_;
    return out;
  }

private:
  static constexpr int passes = 2;

  // Straight coordinates at x. What stands where evaluations end, stands at a bound.
  FitCoordinates straight_at(const std::vector<double>& x) const
  {
    auto c = FitCoordinates::straight(n_, x.data());
    const auto judged = FitCoordinates(n_, x_.data(), false);
    for (const int i : ends_) c.end_at(judged, i);
    return c;
  }

  // Whether null directions have no slope: one that has is not flat, it ends at its bound.
  static bool level(const Judgement& judged, const std::vector<double>& g)
  {
    const auto m = static_cast<std::size_t>(judged.curvature.size());
    return std::all_of(judged.null.begin(), judged.null.end(), [&](int k) {
      double slope = 0.0;
      for (std::size_t i = 0; i < m; ++i)
        slope += judged.directions[i * m + static_cast<std::size_t>(k)] *
                 g[static_cast<std::size_t>(judged.curvature.free[i])];
      return 2.0 * std::abs(slope) < gain_allowed;
    });
  }

  // The longest that a standard error of the bent coordinates may come to: of a root near 0 either its square or its
  // slope tells, and what is small beside its error stands at its end.
  double most_scale(const FitCoordinates& c, int i) const
  {
    const double scale = c.scale(i), own = straight_->own_size(i);
    double most = scale;
    if (c.in_factor(i)) most = scale * std::max(scale, 2.0 * c.own_size(i));
    if (i == c.logarithm()) most = scale * own;
    return small_variance(c, i) ? std::max(most, own / inside) : most;
  }

  bool costs_nothing(int i)
  {
    FitSurface surface(n_, *straight_);
    std::vector<double> t(x_.size(), 0.0);
    t[static_cast<std::size_t>(i)] = -straight_->lower(i) < inside ? inside : -inside;
    double f = 0.0;
    return surface.value(t.data(), f) && 2.0 * std::abs(f - f_) <= gain_allowed;
  }

  // At an end the scale is the longest one over which a step inside costs nothing: gradients there may be rounding,
  // values are not.
  void find_scale(int i)
  {
    constexpr int most = 16, most_longer = 40;
    constexpr double factor = 10.0;
    const auto at_an_end = [&] { return std::min(-straight_->lower(i), straight_->upper(i)) < inside; };
    int shorter = 0, longer = 0;
    while (at_an_end() && !costs_nothing(i) && ++shorter < most) straight_->set_scale(i, straight_->scale(i) / factor);
    if (shorter > 0 || !at_an_end()) return;
    while (costs_nothing(i) && ++longer < most_longer) straight_->set_scale(i, straight_->scale(i) * factor);
    straight_->set_scale(i, straight_->scale(i) / factor);
  }

  // The point with all that is not held inside its ends, and the gradient by t there.
  bool step_inside(std::vector<double>& g)
  {
    const FitCoordinates before = *straight_;
    std::vector<double> x(x_);
    const FitCoordinates at_x = straight_at(x_);
    for (int i = 0; i < before.size(); ++i) {
      if (before.fixed(i) || held_[static_cast<std::size_t>(i)] != 0) continue;
      const double scale = before.scale(i), below = -at_x.lower(i), above = at_x.upper(i);
      if (below < inside * scale) x[static_cast<std::size_t>(i)] += std::min(inside * scale - below, 0.5 * above);
      if (above < inside * scale) x[static_cast<std::size_t>(i)] -= std::min(inside * scale - above, 0.5 * below);
    }
    *straight_ = straight_at(x);
    for (int i = 0; i < before.size(); ++i) straight_->set_scale(i, before.scale(i));
    FitSurface surface(n_, *straight_);
    const std::vector<double> origin(x.size(), 0.0);
    g.resize(x.size());
    return surface.gradient(origin.data(), here_, g.data());
  }

  bool measure_here(std::vector<double>& g, Curvature& curvature)
  {
    std::vector<int> free;
    for (int i = 0; i < straight_->size(); ++i)
      if (!straight_->fixed(i) && held_[static_cast<std::size_t>(i)] == 0) free.push_back(i);
    FitSurface surface(n_, *straight_);
    return measure(surface, free, here_, g, curvature);
  }

  void hold(const std::vector<double>& g)
  {
    for (std::size_t i = 0; i < x_.size(); ++i) {
      const int k = static_cast<int>(i);
      const bool low = g[i] >= pressed && -straight_->lower(k) <= 2.0 * inside;
      const bool high = -g[i] >= pressed && straight_->upper(k) <= 2.0 * inside;
      held_[i] = !contains(ends_, k) && (low || high);
    }
  }

  NX& n_;
  const std::vector<double>& x_;
  double f_, here_ = 0.0;
  std::vector<int> ends_; // that no bound may state
  std::unique_ptr<FitCoordinates> straight_;
  std::vector<char> held_;
  bool rounding_ = false;
};

bool at_an_end(const FitCoordinates& c, const Judgement& judged)
{
  const auto diagonals = c.edge_diagonals();
  if ((judged.doubtful_curvature || !judged.null.empty()) && (!diagonals.empty() || c.logarithm() >= 0)) return true;
  for (int i = 0; i < c.size(); ++i) {
    if (c.fixed(i)) continue;
    if (!contains(judged.curvature.free, i)) return true;
    if (small_variance(c, i)) return true;
  }
  return false;
}

} // namespace

std::vector<int> ends_at_zero(FitSurface& surface, const std::vector<int>& free)
{
  constexpr double close = 1e-2;
  const FitCoordinates& c = surface.coordinates();
  std::vector<double> t(static_cast<std::size_t>(c.size()), 0.0);
  std::vector<int> ends;
  for (const int i : free) {
    if (c.bent(i) || c.own_size(i) >= close * c.scale(i)) continue;
    double& ti = t[static_cast<std::size_t>(i)];
    ti = -std::copysign(2.0 * close, c.origin(i));
    double f = 0.0;
    if (!surface.value(t.data(), f)) ends.push_back(i);
    ti = 0.0;
  }
  return ends;
}

StraightJudgement judge_straight(NX& n, FitCoordinates& c, const Judgement& judged, const std::vector<double>& x,
                                 double f)
{
  constexpr double near = 100.0, edge = 1e-4;
  if (!judged.measured || judged.gain > near * judged.allowed || c.near_joint_edge(edge)) return {};
  FitSurface surface(n, c);
  const auto ends = ends_at_zero(surface, judged.curvature.free);
  if (ends.empty() && !at_an_end(c, judged)) return {};
  return AtTheEnds(n, c, ends, x, f).judge();
}

} // namespace torvale::solve
