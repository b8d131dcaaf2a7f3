#include "solve/fit_surface.h"

#include "integration/objective.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::solve {

using model::NX;

FitSurface::FitSurface(NX& n, FitCoordinates& coordinates)
    : n_(n), coordinates_(coordinates), x_(static_cast<std::size_t>(coordinates.size()))
{
}

bool FitSurface::evaluate(const double* t, bool with_gradient)
{
  if (!coordinates_.inside(t) || n_.str->stop != 0) return false;
  coordinates_.parameters(t, x_.data());
  n_.parm = x_;
  n_.dograd = with_gradient;
  ++n_.str->nfct;
  if (integration::tvllike(n_) != 0 || n_.host->interrupted()) n_.str->stop = 1;
  n_.parmlast.clear();
  return n_.str->stop == 0 && !n_.failed && std::isfinite(n_.objfun) && n_.objfun < model::failure_objective;
}

bool FitSurface::value(const double* t, double& f)
{
  const bool good = evaluate(t, false);
  f = n_.objfun;
  return good;
}

bool FitSurface::gradient(const double* t, double& f, double* g)
{
  if (!analytic()) return value(t, f) && difference_gradient(t, f, g);
  const bool good = evaluate(t, true);
  f = n_.objfun;
  if (!good || !std::all_of(n_.objgrad.begin(), n_.objgrad.end(), [](double v) { return std::isfinite(v); }))
    return false;
  coordinates_.gradient(t, n_.objgrad.data(), g);
  return true;
}

// Central differences over a hundredth of a standard error; one-sided where there is one side.
bool FitSurface::difference_gradient(const double* t, double f, double* g)
{
  constexpr double h = 1e-2;
  std::vector<double> at(t, t + coordinates_.size());
  for (int i = 0; i < coordinates_.size(); ++i) {
    double& ti = at[static_cast<std::size_t>(i)];
    const double centre = ti;
    g[i] = 0.0;
    if (coordinates_.fixed(i)) continue;
    double up = 0.0, down = 0.0, far = 0.0;
    ti = centre + h;
    const bool has_up = value(at.data(), up);
    ti = centre - h;
    const bool has_down = value(at.data(), down);
    if (has_up && has_down) {
      g[i] = (up - down) / (2.0 * h);
    } else {
      if (!has_up && !has_down) return false;
      const double side = has_up ? h : -h;
      ti = centre + 2.0 * side;
      if (!value(at.data(), far)) return false;
      g[i] = (4.0 * (has_up ? up : down) - 3.0 * f - far) / (2.0 * side);
    }
    ti = centre;
  }
  return true;
}

namespace {

constexpr double interval = 1e-3; // in standard errors

// The derivative of the gradient along coordinate i, interval h: both sides, or three points of one. False when neither
// side can be evaluated.
bool along(FitSurface& surface, int i, double h, const double* g0, std::vector<double>& column)
{
  const auto np = static_cast<std::size_t>(surface.coordinates().size());
  std::vector<double> t(np, 0.0), other(np);
  double f = 0.0;
  const auto at = [&](double step, std::vector<double>& g) {
    t[static_cast<std::size_t>(i)] = step;
    return surface.gradient(t.data(), f, g.data());
  };
  const bool up = at(h, column), down = at(-h, other);
  if (up && down) {
    for (std::size_t j = 0; j < np; ++j) column[j] = (column[j] - other[j]) / (2.0 * h);
    return true;
  }
  if (!up && !down) return false;
  const double side = up ? h : -h;
  if (!up) column = other;
  if (!at(2.0 * side, other)) return false;
  for (std::size_t j = 0; j < np; ++j) column[j] = (4.0 * (column[j] - g0[j]) - (other[j] - g0[j])) / (2.0 * side);
  return true;
}

// Finds the scale of coordinate i: its interval is right when the curvature over it is that of `interval` standard
// errors, or when a longer one fails. column receives the derivative by the coordinate in its final scale.
bool measure_coordinate(FitSurface& surface, int i, const double* g0, std::vector<double>& column)
{
  constexpr int most_trials = 12;
  double h = interval, fails = std::numeric_limits<double>::infinity();
  for (int trial = 0; trial < most_trials; ++trial) {
    if (!along(surface, i, h, g0, column)) {
      fails = h;
      h *= 0.1;
      continue;
    }
    const double curvature = std::abs(column[static_cast<std::size_t>(i)]);
    const double ratio = std::sqrt(curvature) * h / interval; // 1 when right
    if (ratio > 0.1 && ratio < 10.0) return true;
    if (ratio < 1e-6 && h > 0.1) return true; // no curvature to speak of
    if (ratio < 1.0 && 20.0 * h > fails) return true;
    if (trial + 1 < most_trials)
      h = std::min(h * (ratio > 0.0 ? std::clamp(1.0 / ratio, 1e-4, 1e3) : 1e3), 0.5 * fails);
  }
  return !column.empty() && std::isfinite(column[static_cast<std::size_t>(i)]);
}

} // namespace

namespace {

// Columns to a symmetric matrix of unit diagonal; the scales take the factors up.
void to_unit_diagonal(FitCoordinates& c, Curvature& out)
{
  const auto m = out.free.size();
  std::vector<double> factor(m, 1.0);
  for (std::size_t k = 0; k < m; ++k) {
    const double d = std::abs(out.hessian[k * m + k]);
    if (d > 0.0) factor[k] = 1.0 / std::sqrt(d);
  }
  for (std::size_t k = 0; k < m; ++k)
    for (std::size_t l = 0; l <= k; ++l) {
      const double unit = factor[k] * factor[l];
      const double a = out.hessian[k * m + l] * unit, b = out.hessian[l * m + k] * unit;
      out.hessian[k * m + l] = out.hessian[l * m + k] = 0.5 * (a + b);
      out.accuracy = std::max(out.accuracy, 0.5 * std::abs(a - b));
    }
  for (std::size_t k = 0; k < m; ++k) c.set_scale(out.free[k], c.scale(out.free[k]) * factor[k]);
}

// Second differences of values, over a twentieth of a standard error.
class ValueDifferences {
public:
  ValueDifferences(FitSurface& surface, double f)
      : surface_(surface), t_(static_cast<std::size_t>(surface.coordinates().size()), 0.0), f_(f)
  {
  }

  // The curvature along coordinate i, its scale set so that it is about 1.
  bool diagonal(int i, double& d)
  {
    FitCoordinates& c = surface_.coordinates();
    for (int trial = 0; trial < 10; ++trial) {
      double up = 0.0, down = 0.0;
      if (!both(i, up, down)) {
        c.set_scale(i, 0.1 * c.scale(i));
        continue;
      }
      d = (up + down) / (width * width);
      const double size = std::sqrt(std::abs(d));
      if (size > 0.3 && size < 3.0) return true;
      if (size < 1e-5 && c.scale(i) > 10.0) return true;
      c.set_scale(i, c.scale(i) * (size > 0.0 ? std::clamp(1.0 / size, 1e-3, 1e3) : 1e3));
    }
    return std::isfinite(d);
  }

  bool mixed(int i, int j, double& d)
  {
    double pp = 0.0, pm = 0.0, mp = 0.0, mm = 0.0;
    if (!at(i, width, j, width, pp) || !at(i, -width, j, -width, mm) || !at(i, width, j, -width, pm) ||
        !at(i, -width, j, width, mp))
      return false;
    d = ((pp - pm) - (mp - mm)) / (4.0 * width * width);
    return true;
  }

private:
  static constexpr double width = 0.05;

  bool both(int i, double& up, double& down) { return at(i, width, i, width, up) && at(i, -width, i, -width, down); }

  // f(a e_i + b e_j) - f(0)
  bool at(int i, double a, int j, double b, double& change)
  {
    t_[static_cast<std::size_t>(i)] = a;
    t_[static_cast<std::size_t>(j)] = b;
    double f = 0.0;
    const bool good = surface_.value(t_.data(), f);
    t_[static_cast<std::size_t>(i)] = t_[static_cast<std::size_t>(j)] = 0.0;
    change = f - f_;
    return good;
  }

  FitSurface& surface_;
  std::vector<double> t_;
  double f_;
};

bool measure_by_values(FitSurface& surface, double f, Curvature& out)
{
  const auto m = out.free.size();
  ValueDifferences differences(surface, f);
  for (std::size_t k = 0; k < m; ++k)
    if (!differences.diagonal(out.free[k], out.hessian[k * m + k])) return false;
  for (std::size_t k = 0; k < m; ++k)
    for (std::size_t l = 0; l < k; ++l) {
      double d = 0.0;
      if (!differences.mixed(out.free[k], out.free[l], d)) return false;
      out.hessian[k * m + l] = out.hessian[l * m + k] = d;
    }
  out.accuracy = 1e-4;
  to_unit_diagonal(surface.coordinates(), out);
  return true;
}

} // namespace

bool measure(FitSurface& surface, const std::vector<int>& free, double f, const double* g, Curvature& out)
{
  const auto np = static_cast<std::size_t>(surface.coordinates().size());
  const auto m = free.size();
  out.free = free;
  out.hessian.assign(m * m, 0.0);
  out.accuracy = 1e-10;
  if (!surface.analytic()) return measure_by_values(surface, f, out);
  std::vector<double> column(np);
  for (std::size_t k = 0; k < m; ++k) {
    if (!measure_coordinate(surface, free[k], g, column)) return false;
    for (std::size_t l = 0; l < m; ++l) out.hessian[k * m + l] = column[static_cast<std::size_t>(free[l])];
  }
  to_unit_diagonal(surface.coordinates(), out);
  return true;
}

} // namespace torvale::solve
