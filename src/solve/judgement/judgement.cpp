#include "solve/judgement/judgement.h"

#include "matrix/eigenvalues.h"
#include "model/distribution_labels.h"
#include "solve/judgement/test_steps.h"
#include "solve/judgement/valleys.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

namespace {

// The spectrum of the Hessian, and the gain that it promises.
class Spectrum {
public:
  Spectrum(FitSurface& surface, double f, const double* g, Judgement& out) : surface_(surface), f_(f), g_(g), out_(out)
  {
  }

  void judge(double least_asked = -1.0)
  {
    out_.allowed = std::max({gain_allowed, 10.0 * evaluation_noise(2.0 * f_), 20.0 * out_.curvature.noise});
    out_.at_limit = model::has_probabilities(surface_.run().disttype) && 2.0 * f_ <= gain_allowed;
    if (!decompose()) return;
    out_.measured = true;
    if (drowned()) return;
    sort_eigenvalues();
    reduction();
    if (out_.indefinite || out_.gain > out_.allowed) return; // no minimum; the rest would only cost
    if (m() > 0 && out_.eigenvalues.back() < least_asked) return;
    measure_valleys(surface_, out_);
    if (!out_.better.empty()) return;
    finite_tests(surface_, f_, g_, out_);
  }

private:
  int m() const { return out_.curvature.size(); }
  double vector(int i, int k) const { return out_.directions[static_cast<std::size_t>(i * m() + k)]; }

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
      out_.separated.push_back(scale);
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
    out_.tolerance = std::max(null_curvature, 10.0 * out_.curvature.accuracy);
    // Noise makes the coordinates' own differences coarse; turned directions have been tried over several lengths.
    if (out_.curvature.turned && out_.curvature.noise > 0.0) out_.tolerance = std::min(out_.tolerance, 0.05);
    for (int k = 0; k < m(); ++k) {
      const double value = out_.eigenvalues[static_cast<std::size_t>(k)];
      if (value > out_.tolerance && length(k) < longest_direction * std::sqrt(value)) continue;
      if (value < -std::max(out_.tolerance, 1e-4))
        out_.indefinite = true;
      else
        out_.note_null(k);
    }
  }

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
    out_.doubtful_curvature = (least < 0.1 && slope > 0.1 * least) || bent() > 0.1 * least;
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

  FitSurface& surface_;
  double f_;
  const double* g_;
  Judgement& out_;
};

} // namespace

std::vector<double> Judgement::newton_step(const std::vector<double>& g) const
{
  const auto m = static_cast<std::size_t>(curvature.size());
  std::vector<double> step(g.size(), 0.0);
  for (std::size_t k = 0; k < m; ++k) {
    if (!(eigenvalues[k] > tolerance)) continue;
    double slope = 0.0;
    for (std::size_t i = 0; i < m; ++i) slope += directions[i * m + k] * g[static_cast<std::size_t>(curvature.free[i])];
    for (std::size_t i = 0; i < m; ++i)
      step[static_cast<std::size_t>(curvature.free[i])] -= slope / eigenvalues[k] * directions[i * m + k];
  }
  return step;
}

void Judgement::note_null(int k)
{
  const int m = curvature.size();
  double square = 0.0;
  for (int i = 0; i < m; ++i) square += std::pow(directions[static_cast<std::size_t>(i * m + k)], 2);
  for (int i = 0; i < m; ++i) directions[static_cast<std::size_t>(i * m + k)] /= std::sqrt(square);
  eigenvalues[static_cast<std::size_t>(k)] = 0.0;
  null.push_back(k);
}

std::vector<int> free_coordinates(const FitCoordinates& c, const double* g)
{
  std::vector<int> free;
  for (int i = 0; i < c.size(); ++i) {
    const bool held = (c.at_lower(i) && g[i] >= 0.0) || (c.at_upper(i) && g[i] <= 0.0);
    if (!c.fixed(i) && !held) free.push_back(i);
  }
  return free;
}

Judgement judge_given(FitSurface& surface, Curvature curvature, double f, const double* g, double least)
{
  Judgement out;
  out.curvature = std::move(curvature);
  Spectrum(surface, f, g, out).judge(least);
  return out;
}

Judgement judge(FitSurface& surface, double f, const double* g)
{
  Judgement out;
  std::vector<double> by_unit(g, g + surface.coordinates().size());
  if (measure(surface, free_coordinates(surface.coordinates(), g), f, by_unit, out.curvature))
    Spectrum(surface, f, by_unit.data(), out).judge();
  return out;
}

} // namespace torvale::solve
