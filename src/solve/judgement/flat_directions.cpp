#include "matrix/eigenvalues.h"
#include "solve/judgement/curvature.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::solve {

namespace {

constexpr int most_passes = 5;    // each makes the directions better known, and so the next one's turn
constexpr int most_trials = 12;   // of an interval
constexpr double agreement = 0.2; // of the curvatures over two intervals: more is noise, or no curvature at all

// One direction after another is measured over the length that is its own. What differences over a step of a
// coordinate know of a slight direction is noise of the strong ones.
class FlatDirections {
public:
  FlatDirections(FitSurface& surface, double f, const std::vector<double>& g, Curvature& out)
      : surface_(surface), f_(f), g_(g), out_(out), columns_(out.free.size())
  {
    for (int k = 0; k < out.size(); ++k)
      if (surface.coordinates().plain(out.free[static_cast<std::size_t>(k)])) turning_.push_back(k);
  }

  void resolve()
  {
    for (int pass = 0; pass < most_passes && turn(); ++pass) {
      out_.turned = true;
      for (const int k : slight_) measure(k);
      std::erase_if(turning_, [&](int k) { return flat(k); });
      assemble();
    }
  }

private:
  static bool contains(const std::vector<int>& list, int k)
  {
    return std::find(list.begin(), list.end(), k) != list.end();
  }

  bool flat(int k) const { return out_.flat[static_cast<std::size_t>(k)] != 0; }

  // Turns the directions to the eigenvectors of their part of the Hessian; slight_: those with small eigenvalues.
  bool turn()
  {
    const auto p = turning_.size();
    std::vector<double> v(p * p), values(p), off(p);
    for (std::size_t r = 0; r < p; ++r)
      for (std::size_t c = 0; c < p; ++c) v[r * p + c] = out_.at(turning_[r], turning_[c]);
    if (p == 0 || !std::all_of(v.begin(), v.end(), [](double e) { return std::isfinite(e); })) return false;
    matrix::ztred2(static_cast<int>(p), v.data(), values.data(), off.data());
    if (matrix::ztql2(static_cast<int>(p), v.data(), values.data(), off.data(), 1) != 0) return false;
    // What noise makes of a slight eigenvalue is one to be measured, too.
    constexpr double most = 0.2;
    const double known = 10.0 * out_.accuracy;
    const double slight = std::clamp(known, surface_.analytic() ? 1e-3 : 1e-2, most);
    slight_.clear();
    for (std::size_t c = 0; c < p; ++c)
      if (std::abs(values[c]) < slight) slight_.push_back(turning_[c]);
    if (slight_.empty()) return false;
    const auto m = static_cast<std::size_t>(out_.size());
    for (std::size_t i = 0; i < m; ++i) turn_row(v, out_.basis.data() + i * m);
    for (std::size_t i = 0; i < m; ++i) turn_row(v, out_.hessian.data() + i * m);
    for (std::size_t i = 0; i < m; ++i)
      if (!contains(turning_, static_cast<int>(i)))
        for (const int k : turning_) out_.at(k, static_cast<int>(i)) = out_.at(static_cast<int>(i), k);
    for (std::size_t r = 0; r < p; ++r)
      for (std::size_t c = 0; c < p; ++c) out_.at(turning_[r], turning_[c]) = r == c ? values[r] : 0.0;
    return true;
  }

  // row := row V over the turning elements.
  void turn_row(const std::vector<double>& v, double* row) const
  {
    const auto p = turning_.size();
    std::vector<double> old(p);
    for (std::size_t c = 0; c < p; ++c) old[c] = row[turning_[c]];
    for (std::size_t c = 0; c < p; ++c) {
      double sum = 0.0;
      for (std::size_t r = 0; r < p; ++r) sum += old[r] * v[r * p + c];
      row[turning_[c]] = sum;
    }
  }

  // Direction k by all coordinates.
  std::vector<double> vector(int k) const
  {
    std::vector<double> d(g_.size(), 0.0);
    for (int i = 0; i < out_.size(); ++i)
      d[static_cast<std::size_t>(out_.free[static_cast<std::size_t>(i)])] = out_.direction(i, k);
    return d;
  }

  void stretch(int k, double factor)
  {
    for (int i = 0; i < out_.size(); ++i) {
      out_.direction(i, k) *= factor;
      out_.at(i, k) *= factor;
      out_.at(k, i) *= factor; // the diagonal element twice
    }
  }

  void measure(int k)
  {
    const auto d = vector(k);
    double length = 0.0;
    for (const double e : d) length += e * e;
    stretch(k, 1.0 / std::sqrt(length));
    double curvature = 0.0;
    const bool sound = surface_.analytic() ? by_gradients(k, curvature) : by_values(k, curvature);
    if (!sound) {
      out_.flat[static_cast<std::size_t>(k)] = 1;
      for (int i = 0; i < out_.size(); ++i) out_.at(i, k) = out_.at(k, i) = 0.0;
      return;
    }
    stretch(k, 1.0 / std::sqrt(std::abs(curvature)));
    out_.at(k, k) = std::copysign(1.0, curvature);
  }

  static double dot(const std::vector<double>& a, const std::vector<double>& b)
  {
    double sum = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i) sum += a[i] * b[i];
    return sum;
  }

  static bool agree(double a, double b) { return a != 0.0 && std::abs(a - b) <= agreement * std::abs(a); }

  // The interval over which the curvature is that of `step` standard errors; curvature_over(h, value) is false where
  // an evaluation fails. True when twice and half the interval tell the same.
  template <class Over> bool find_interval(int k, double step, Over curvature_over, double& curvature)
  {
    double h = step / std::sqrt(std::max(std::abs(out_.at(k, k)), 1e-16));
    double fails = std::numeric_limits<double>::infinity();
    bool found = false;
    for (int trial = 0; trial < most_trials && !found && h <= step * longest_direction; ++trial) {
      if (!curvature_over(h, curvature)) {
        fails = h;
        h *= 0.1;
        continue;
      }
      const double ratio = std::sqrt(std::abs(curvature)) * h / step;
      found = (ratio > 0.2 && ratio < 5.0) || (ratio < 1.0 && 8.0 * h > fails);
      if (!found) h = std::min(h * (ratio > 0.0 ? std::clamp(1.0 / ratio, 1e-4, 1e3) : 1e3), 0.25 * fails);
    }
    double wide = 0.0, narrow = 0.0;
    return found && curvature_over(2.0 * h, wide) && curvature_over(0.5 * h, narrow) && agree(curvature, wide) &&
           agree(curvature, narrow) && curvature_over(h, curvature);
  }

  bool by_gradients(int k, double& curvature)
  {
    const auto d = vector(k);
    auto& column = columns_[static_cast<std::size_t>(k)];
    return find_interval(
        k, out_.step,
        [&](double h, double& value) {
          if (!gradient_along(surface_, d, h, g_.data(), column)) return false;
          value = dot(column, d);
          return std::isfinite(value);
        },
        curvature);
  }

  // f(a x + b y) - f(0)
  bool change(const std::vector<double>& x, double a, const std::vector<double>& y, double b, double& value)
  {
    std::vector<double> t(x.size());
    for (std::size_t i = 0; i < t.size(); ++i) t[i] = a * x[i] + b * y[i];
    const bool good = surface_.value(t.data(), value);
    value -= f_;
    return good;
  }

  bool by_values(int k, double& curvature)
  {
    const auto d = vector(k);
    return find_interval(
        k, value_step,
        [&](double h, double& value) {
          double up = 0.0, down = 0.0;
          if (!change(d, h, d, 0.0, up) || !change(d, -h, d, 0.0, down)) return false;
          value = (up + down) / (h * h);
          return true;
        },
        curvature);
  }

  double mixed_by_values(int k, int l)
  {
    constexpr double w = value_step;
    const auto x = vector(k), y = vector(l);
    double pp = 0.0, pm = 0.0, mp = 0.0, mm = 0.0;
    if (!change(x, w, y, w, pp) || !change(x, -w, y, -w, mm) || !change(x, w, y, -w, pm) || !change(x, -w, y, w, mp))
      return out_.at(k, l);
    return ((pp - pm) - (mp - mm)) / (4.0 * w * w);
  }

  // The rows and columns of the slight directions, which by now have their lengths. Of two estimates that of the
  // longer interval counts.
  void assemble()
  {
    const int m = out_.size();
    std::vector<double> row(static_cast<std::size_t>(m));
    for (const int k : slight_) {
      if (flat(k)) continue;
      const auto d = vector(k);
      for (int l = 0; l < m; ++l) {
        if (l == k || flat(l)) continue;
        const bool both = contains(slight_, l);
        if (both && l > k) continue;
        double value = 0.0;
        if (surface_.analytic()) {
          value = dot(columns_[static_cast<std::size_t>(k)], vector(l)) * length_of(k);
          if (both) value = 0.5 * (value + dot(columns_[static_cast<std::size_t>(l)], d) * length_of(l));
        } else {
          value = mixed_by_values(k, l);
        }
        out_.at(k, l) = out_.at(l, k) = value;
      }
    }
  }

  // What a direction was stretched by after its column was measured along its unit vector.
  double length_of(int k) const
  {
    double square = 0.0;
    for (int i = 0; i < out_.size(); ++i) square += out_.direction(i, k) * out_.direction(i, k);
    return std::sqrt(square);
  }

  FitSurface& surface_;
  double f_;
  const std::vector<double>& g_;
  Curvature& out_;
  std::vector<int> turning_;                 // plain coordinates, but those found flat
  std::vector<int> slight_;                  // of this pass
  std::vector<std::vector<double>> columns_; // derivatives of the gradient along unit vectors
};

} // namespace

void resolve_flat_directions(FitSurface& surface, double f, const std::vector<double>& g, Curvature& out)
{
  FlatDirections(surface, f, g, out).resolve();
}

} // namespace torvale::solve
