#include "solve/judgement/curvature.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::solve {

void Curvature::unturned()
{
  const int m = size();
  basis.assign(hessian.size(), 0.0);
  flat.assign(free.size(), 0);
  own.resize(free.size());
  for (int k = 0; k < m; ++k) {
    direction(k, k) = 1.0;
    own[static_cast<std::size_t>(k)] = at(k, k);
  }
}

bool gradient_along(FitSurface& surface, const std::vector<double>& d, double h, const double* g0,
                    std::vector<double>& column)
{
  const std::size_t np = d.size();
  std::vector<double> t(np), other(np);
  column.resize(np);
  double f = 0.0;
  const auto at = [&](double step, std::vector<double>& g) {
    for (std::size_t i = 0; i < np; ++i) t[i] = step * d[i];
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

namespace {

// In an element of a factor of G the objective is a quartic where the parameter has a parabola, and in a logarithm it
// is an exponential. Where the interval is not small beside the element the quotient over twice the interval takes the
// error of order h^2 away.
void without_quartic(FitSurface& surface, int i, const std::vector<double>& d, double h, const double* g0,
                     std::vector<double>& column)
{
  const FitCoordinates& c = surface.coordinates();
  if (!(c.in_factor(i) || i == c.logarithm()) || h * c.scale(i) < 5e-5 * c.own_size(i)) return;
  std::vector<double> wide;
  if (!gradient_along(surface, d, 2.0 * h, g0, wide)) return;
  const double before = column[static_cast<std::size_t>(i)];
  for (std::size_t j = 0; j < column.size(); ++j) column[j] = (4.0 * column[j] - wide[j]) / 3.0;
  // A quartic and nothing else (a ridge of two variances): what is left is its sixth power, of either sign.
  constexpr double left = 0.01;
  if (std::abs(column[static_cast<std::size_t>(i)]) < left * std::abs(before))
    std::fill(column.begin(), column.end(), 0.0);
}

// A step that changes the parameter by a few units in its last place, or not at all.
bool no_step(const FitCoordinates& c, int i, double h)
{
  constexpr double few = 8.0 * std::numeric_limits<double>::epsilon();
  return c.plain(i) && h * c.scale(i) < few * c.own_size(i);
}

// Finds the scale of coordinate i: its interval is right when the curvature over it is that of `step` standard
// errors, or when a longer one fails. column receives the derivative by the coordinate in its final scale.
bool measure_coordinate(FitSurface& surface, int i, double step, const double* g0, std::vector<double>& column)
{
  constexpr int most_trials = 12;
  std::vector<double> d(static_cast<std::size_t>(surface.coordinates().size()), 0.0);
  d[static_cast<std::size_t>(i)] = 1.0;
  double h = step, fails = std::numeric_limits<double>::infinity();
  double too_short = 0.0, too_long = fails;
  for (int trial = 0; trial < most_trials; ++trial) {
    if (std::isfinite(fails) && no_step(surface.coordinates(), i, h)) {       // whatever can be told apart fails
      surface.coordinates().set_scale(i, surface.coordinates().scale(i) * h); // which noise_of will tell
      column.assign(d.size(), 0.0);
      return true;
    }
    if (!gradient_along(surface, d, h, g0, column)) {
      fails = h;
      h *= 0.1;
      continue;
    }
    const double curvature = std::abs(column[static_cast<std::size_t>(i)]);
    const double ratio = std::sqrt(curvature) * h / step; // 1 when right
    if (ratio > 0.1 && ratio < 10.0) {
      // What a variance is may matter little; its logarithm is an exponential all the same, and its root a square.
      const FitCoordinates& c = surface.coordinates();
      const bool bent = i == c.logarithm() || (c.in_factor(i) && c.own_size(i) > 1e-5 * c.scale(i));
      const double longest = 0.02 * c.own_size(i) / c.scale(i);
      if (bent && h > longest) {
        h = longest;
        if (!gradient_along(surface, d, h, g0, column)) return false;
      }
      without_quartic(surface, i, d, h, g0, column);
      return true;
    }
    if (ratio < 1e-6 && h > 0.1) return true; // no curvature to speak of
    if (ratio < 1.0 && 20.0 * h > fails) return true;
    (ratio < 1.0 ? too_short : too_long) = h;
    const bool by_turns = surface.coordinates().in_factor(i) && too_short > 0.0 && std::isfinite(too_long);
    if (trial + 1 < most_trials && by_turns)
      h = std::sqrt(too_short * too_long); // of a quartic the one step leads to the other, and back
    else if (trial + 1 < most_trials)
      h = std::min(h * (ratio > 0.0 ? std::clamp(1.0 / ratio, 1e-4, 1e3) : 1e3), 0.5 * fails);
  }
  return !column.empty() && std::isfinite(column[static_cast<std::size_t>(i)]);
}

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

bool measure_by_gradients(FitSurface& surface, const double* g, Curvature& out)
{
  const auto m = out.free.size();
  std::vector<double> column;
  for (std::size_t k = 0; k < m; ++k) {
    if (!measure_coordinate(surface, out.free[k], out.step, g, column)) return false;
    for (std::size_t l = 0; l < m; ++l) out.hessian[k * m + l] = column[static_cast<std::size_t>(out.free[l])];
  }
  // A column that was cleared clears its row.
  for (std::size_t k = 0; k < m; ++k) {
    const auto row = out.hessian.begin() + static_cast<std::ptrdiff_t>(k * m);
    if (std::any_of(row, row + static_cast<std::ptrdiff_t>(m), [](double v) { return v != 0.0; })) continue;
    for (std::size_t l = 0; l < m; ++l) out.hessian[l * m + k] = 0.0;
  }
  out.accuracy = 1e-10;
  to_unit_diagonal(surface.coordinates(), out);
  return true;
}

// Second differences of values, over value_step standard errors.
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
      d = (up + down) / (value_step * value_step);
      const double size = std::sqrt(std::abs(d));
      if (size > 0.3 && size < 3.0) return true;
      if (size < 1e-5 && c.scale(i) > 10.0) return true;
      c.set_scale(i, c.scale(i) * (size > 0.0 ? std::clamp(1.0 / size, 1e-3, 1e3) : 1e3));
    }
    return std::isfinite(d);
  }

  bool mixed(int i, int j, double& d)
  {
    constexpr double w = value_step;
    double pp = 0.0, pm = 0.0, mp = 0.0, mm = 0.0;
    if (!at(i, w, j, w, pp) || !at(i, -w, j, -w, mm) || !at(i, w, j, -w, pm) || !at(i, -w, j, w, mp)) return false;
    d = ((pp - pm) - (mp - mm)) / (4.0 * w * w);
    return true;
  }

private:
  bool both(int i, double& up, double& down)
  {
    return at(i, value_step, i, value_step, up) && at(i, -value_step, i, -value_step, down);
  }

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

// What differences of the objective over `step` along coordinate i have beyond curvature: second ones, but where a step
// has curvature itself, fourth ones. 0 where it cannot be evaluated.
double noise_along(FitSurface& surface, int i, double step, double f)
{
  constexpr double short_step = 1e-4,
                   fourth = 0.146; // the share of a fourth difference that counts as much as a second's
  std::vector<double> t(static_cast<std::size_t>(surface.coordinates().size()), 0.0);
  double beside[4] = {}; // changes at -2, -1, 1, 2 steps
  const int reach = step < short_step ? 1 : 2;
  for (int k = -reach; k <= reach; ++k) {
    if (k == 0) continue;
    t[static_cast<std::size_t>(i)] = k * step;
    double& change = beside[k < 0 ? k + 2 : k + 1];
    if (!surface.value(t.data(), change)) return 0.0;
    change -= f;
  }
  const double second = beside[1] + beside[2];
  return reach == 1 ? 0.5 * std::abs(second) - step * step : fourth * std::abs(beside[0] + beside[3] - 4.0 * second);
}

// What second differences of the objective have beyond curvature, over the shortest steps that a parameter can make
// well; 1 where a standard error is no more than a few units in its last place, and every step is rounding.
double noise_of(FitSurface& surface, const std::vector<int>& free, double f)
{
  constexpr int most = 3; // coordinates looked at
  constexpr double unit = std::numeric_limits<double>::epsilon(), many = 64.0, shortest = 1e-6;
  const FitCoordinates& c = surface.coordinates();
  for (const int i : free)
    if (no_step(c, i, 1.0)) return 1.0;
  double noise = 0.0;
  int looked_at = 0;
  for (const int i : free) {
    // (Factors of G have an edge near which evaluations differ by more than rounding.)
    if (!c.plain(i) || ++looked_at > most) continue;
    const double own = c.own_size(i) / c.scale(i); // in standard errors; far below 1 where the parameter has run away
    const double step = own > 0.0 ? std::min(std::max(shortest, many * unit * own), shortest * own) : shortest;
    noise = std::max(noise, noise_along(surface, i, step, f));
  }
  return noise;
}

} // namespace

bool measure(FitSurface& surface, const std::vector<int>& free, double f, std::vector<double>& g, Curvature& out)
{
  FitCoordinates& c = surface.coordinates();
  const FitCoordinates before = c;
  out.free = free;
  out.hessian.assign(free.size() * free.size(), 0.0);
  out.step = gradient_step;
  if (!(surface.analytic() ? measure_by_gradients(surface, g.data(), out) : measure_by_values(surface, f, out)))
    return false;
  // What rounding adds to gradients drowns their differences over a short step.
  constexpr double noticeable = 1e-8, longest = 0.5;
  out.noise = noise_of(surface, free, f);
  if (out.noise <= noticeable) out.noise = 0.0;
  if (surface.analytic() && out.noise > 0.0) {
    std::vector<double> by_scale(g);
    for (int i = 0; i < c.size(); ++i) by_scale[static_cast<std::size_t>(i)] *= c.scale(i) / before.scale(i);
    out.step = std::min(std::cbrt(out.noise), longest);
    if (!measure_by_gradients(surface, by_scale.data(), out)) return false;
    // Over the short step rounding may have made the scales, too, and these the noise.
    out.noise = std::min(out.noise, noise_of(surface, free, f));
  }
  for (int i = 0; i < c.size(); ++i) g[static_cast<std::size_t>(i)] *= c.scale(i) / before.scale(i);
  out.unturned();
  resolve_flat_directions(surface, f, g, out);
  return true;
}

} // namespace torvale::solve
