#include "solve/judgement/judgement.h"

#include "matrix/eigenvalues.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::solve {

namespace {

constexpr double largest = std::numeric_limits<double>::max();
constexpr double far_rise = 1e-2; // in -2 log L, on the way back of what has run away; a bent ridge rises less

// Relative noise of an evaluation, of which the sums over subjects are the larger part.
double noise(double f)
{
  return 2e-14 * std::max(1.0, std::abs(f));
}

class Tests {
public:
  Tests(FitSurface& surface, double f, const double* g, Judgement& out)
      : surface_(surface), f_(f), g_(g), out_(out), t_(static_cast<std::size_t>(surface.coordinates().size()))
  {
  }

  void run()
  {
    out_.allowed = std::max({gain_allowed, 10.0 * noise(2.0 * f_), 20.0 * out_.curvature.noise});
    if (!decompose()) return;
    out_.measured = true;
    if (drowned()) return;
    sort_eigenvalues();
    reduction();
    if (out_.indefinite || out_.gain > out_.allowed) return; // no minimum; the rest would only cost
    null_directions();
    if (out_.better.empty()) curved_directions();
  }

private:
  int m() const { return out_.curvature.size(); }
  double vector(int i, int k) const { return out_.directions[static_cast<std::size_t>(i * m() + k)]; }

  // The part that coordinate i has in direction k.
  double share(int i, int k) const { return std::abs(vector(i, k)) / length(k); }
  double length(int k) const
  {
    double square = 0.0;
    for (int i = 0; i < m(); ++i) square += vector(i, k) * vector(i, k);
    return std::sqrt(square);
  }

  bool decompose()
  {
    const auto size = static_cast<std::size_t>(m());
    out_.directions = out_.curvature.hessian;
    out_.eigenvalues.assign(size, 0.0);
    if (m() == 0) return true;
    if (!std::all_of(out_.directions.begin(), out_.directions.end(), [](double v) { return std::isfinite(v); }))
      return false;
    std::vector<double> off(size);
    matrix::ztred2(m(), out_.directions.data(), out_.eigenvalues.data(), off.data());
    if (matrix::ztql2(m(), out_.directions.data(), out_.eigenvalues.data(), off.data(), 1) != 0) return false;
    if (out_.curvature.turned) by_coordinates();
    return true;
  }

  // Where rounding changes -2 log L by a standard error's worth there is nothing to judge. A normal response that is
  // fitted exactly comes to this: its variance falls as far as rounding lets it.
  bool drowned()
  {
    constexpr double most = 0.5;
    if (!(2.0 * out_.curvature.noise > most)) return false;
    if (const int scale = surface_.coordinates().logarithm(); scale >= 0)
      note_separated(scale);
    else
      out_.measured = false;
    return true;
  }

  // Eigenvectors are by the directions of the curvature.
  void by_coordinates()
  {
    const std::vector<double> v(out_.directions);
    const auto size = static_cast<std::size_t>(m());
    for (std::size_t i = 0; i < size; ++i)
      for (std::size_t k = 0; k < size; ++k) {
        double sum = 0.0;
        for (std::size_t j = 0; j < size; ++j) sum += out_.curvature.basis[i * size + j] * v[j * size + k];
        out_.directions[i * size + k] = sum;
      }
  }

  void sort_eigenvalues()
  {
    // A curvature so slight that it gives less than the allowed gain over the coordinate's own unit is none.
    out_.tolerance = std::max(1e-8, 10.0 * out_.curvature.accuracy);
    // Noise makes the coordinates' own differences coarse; turned directions have been tried over several lengths.
    if (out_.curvature.turned && out_.curvature.noise > 0.0) out_.tolerance = std::min(out_.tolerance, 0.05);
    for (int k = 0; k < m(); ++k) {
      const double value = out_.eigenvalues[static_cast<std::size_t>(k)];
      if (value > out_.tolerance && length(k) < longest_direction * std::sqrt(value)) continue;
      if (value < -std::max(out_.tolerance, 1e-4))
        out_.indefinite = true;
      else
        out_.null.push_back(k);
    }
    for (const int k : out_.null) {
      out_.eigenvalues[static_cast<std::size_t>(k)] = 0.0;
      const double unit = 1.0 / length(k);
      for (int i = 0; i < m(); ++i) out_.directions[static_cast<std::size_t>(i * m() + k)] *= unit;
    }
  }

  double own(int i) const { return out_.curvature.own[static_cast<std::size_t>(i)]; }

  double along(int k) const
  {
    double slope = 0.0;
    for (int i = 0; i < m(); ++i) slope += vector(i, k) * g_[out_.curvature.free[static_cast<std::size_t>(i)]];
    return slope;
  }

  void reduction()
  {
    out_.gain = 0.0;
    double slope = 0.0, least = 1.0;
    for (int k = 0; k < m(); ++k) {
      const double value = out_.eigenvalues[static_cast<std::size_t>(k)];
      slope = std::max(slope, std::abs(along(k)));
      if (!(value > out_.tolerance)) continue;
      least = std::min(least, value);
      out_.gain += along(k) * along(k) / value;
    }
    out_.doubtful_curvature = (least < 1e-2 && slope > 0.1 * least) || bent() > 0.1 * least;
  }

  // The largest share of a curvature that is the slope by a parameter in its logarithm, or in its root.
  double bent() const
  {
    const FitCoordinates& c = surface_.coordinates();
    double most = 0.0;
    for (const int i : out_.curvature.free)
      if ((c.in_factor(i) || i == c.logarithm()) && c.own_size(i) > 0.0)
        most = std::max(most, std::abs(g_[i]) * c.scale(i) / c.own_size(i));
    return most;
  }

  // Change of -2 log L from 0 to a times eigenvector k, or a times coordinate i; largest when the way ends before.
  double change_along(int k, double a)
  {
    std::fill(t_.begin(), t_.end(), 0.0);
    for (int i = 0; i < m(); ++i)
      t_[static_cast<std::size_t>(out_.curvature.free[static_cast<std::size_t>(i)])] = a * vector(i, k);
    return change();
  }
  double change_of(int coordinate, double a)
  {
    std::fill(t_.begin(), t_.end(), 0.0);
    t_[static_cast<std::size_t>(coordinate)] = a;
    return change();
  }
  double change()
  {
    double f = 0.0;
    if (!surface_.value(t_.data(), f)) return largest;
    const double rise = 2.0 * (f - f_);
    if (rise < -out_.allowed && -rise > out_.lower_by) {
      out_.lower_by = -rise;
      out_.better = t_;
    }
    return rise;
  }

  // Whether a step raises -2 log L by what counts. At 0 the root of a variance meets its mirror image: a bound.
  bool rises_along(int k, double a)
  {
    const double rise = change_along(k, a);
    return rise >= gain_allowed || past_zero();
  }
  bool rises_of(int coordinate, double a)
  {
    const double rise = change_of(coordinate, a);
    return rise >= gain_allowed || past_zero();
  }
  bool past_zero() const
  {
    const FitCoordinates& c = surface_.coordinates();
    for (const int i : c.edge_diagonals()) {
      const double there = c.origin(i) + c.scale(i) * t_[static_cast<std::size_t>(i)];
      if (c.origin(i) * there < 0.0) return true;
    }
    return false;
  }

  void null_directions()
  {
    for (const int k : out_.null) {
      for (const double a : {0.1, -0.1, 1.0, -1.0}) change_along(k, a);
      if (out_.better.empty()) runaway(k);
    }
  }

  // A direction that is flat here, flat further out, and rises on the way back: its parameters have run away.
  void runaway(int k)
  {
    const FitCoordinates& c = surface_.coordinates();
    int most = -1;
    for (int i = 0; i < m(); ++i)
      if (most < 0 || std::abs(vector(i, k)) > std::abs(vector(most, k))) most = i;
    const int j = out_.curvature.free[static_cast<std::size_t>(most)];
    const double home = -std::copysign(c.own_size(j), c.origin(j)) / (c.scale(j) * vector(most, k)); // to 0
    const bool whole = home != 0.0 && std::isfinite(home) && j != c.logarithm() && change_along(k, home) >= far_rise &&
                       c.inside(t_.data()) &&
                       outward([&](double a) { return change_along(k, a); }, -home) < gain_allowed;
    for (int i = 0; i < m(); ++i) {
      const int own = out_.curvature.free[static_cast<std::size_t>(i)];
      if (share(i, k) > 0.3 && (whole || runs_away(own))) note_separated(own);
    }
  }

  void curved_directions()
  {
    for (int k = m() - 1; k >= 0; --k) {
      const double value = out_.eigenvalues[static_cast<std::size_t>(k)];
      if (!(value > out_.tolerance)) continue;
      const double error = 1.0 / std::sqrt(value);
      const bool rises = rises_along(k, error) && rises_along(k, -error);
      for (int i = 0; i < m() && !rises; ++i)
        if (share(i, k) > 0.3) note_separated(out_.curvature.free[static_cast<std::size_t>(i)]);
      if (!out_.curvature.turned) break; // a turned direction has the others' curvature
    }
    // A parameter whose own error is larger than it is: one that runs away does so with its error ahead of it.
    const FitCoordinates& c = surface_.coordinates();
    for (int i = 0; i < m(); ++i) {
      const int j = out_.curvature.free[static_cast<std::size_t>(i)];
      if (c.scale(j) <= c.own_size(j) || own(i) < 0.5) continue;
      if (!rises_of(j, 1.0) || !rises_of(j, -1.0) || beyond_curvature(i)) note_separated(j);
    }
  }

  // The way out may end before a standard error, where an evaluation fails, and then tells nothing. On the tail of an
  // exponential the way back to 0 rises far more than slope and curvature promise, and the way out does not rise.
  bool beyond_curvature(int i)
  {
    const int j = out_.curvature.free[static_cast<std::size_t>(i)];
    const double home = way_home(j);
    const double promised = std::abs(own(i)) * home * home + 2.0 * std::abs(g_[j] * home);
    return home != 0.0 && change_of(j, home) > 10.0 * promised && runs_away(j);
  }

  // Coordinate j alone rises on the way to 0, and not on the way out.
  bool runs_away(int j)
  {
    const double home = way_home(j);
    return home != 0.0 && change_of(j, home) >= gain_allowed &&
           outward([&](double a) { return change_of(j, a); }, -home) < gain_allowed;
  }

  double way_home(int j) const
  {
    const FitCoordinates& c = surface_.coordinates();
    if (j == c.logarithm()) return 0.0; // which has no home
    return std::clamp(-std::copysign(c.own_size(j), c.origin(j)) / c.scale(j), c.lower(j), c.upper(j));
  }

  // The change at the longest of the steps a, a/2, a/4, ... that can be evaluated, or at half of that, where the edge
  // is no longer felt; largest when none of them can.
  template <class Change> double outward(Change change, double a)
  {
    constexpr int most_halvings = 20;
    for (int halving = 0; halving <= most_halvings; ++halving, a *= 0.5)
      if (const double rise = change(a); rise < largest) return std::min(rise, change(0.5 * a));
    return largest;
  }

  void note_separated(int coordinate)
  {
    if (std::find(out_.separated.begin(), out_.separated.end(), coordinate) == out_.separated.end())
      out_.separated.push_back(coordinate);
  }

  FitSurface& surface_;
  double f_;
  const double* g_;
  Judgement& out_;
  std::vector<double> t_;
};

} // namespace

std::vector<int> free_coordinates(const FitCoordinates& c, const double* g)
{
  std::vector<int> free;
  for (int i = 0; i < c.size(); ++i) {
    const bool held = (c.at_lower(i) && g[i] >= 0.0) || (c.at_upper(i) && g[i] <= 0.0);
    if (!c.fixed(i) && !held) free.push_back(i);
  }
  return free;
}

Judgement judge_given(FitSurface& surface, Curvature curvature, double f, const double* g)
{
  Judgement out;
  out.curvature = std::move(curvature);
  Tests(surface, f, g, out).run();
  return out;
}

Judgement judge(FitSurface& surface, double f, const double* g)
{
  Judgement out;
  std::vector<double> by_unit(g, g + surface.coordinates().size());
  if (measure(surface, free_coordinates(surface.coordinates(), g), f, by_unit, out.curvature))
    Tests(surface, f, by_unit.data(), out).run();
  return out;
}

} // namespace torvale::solve
