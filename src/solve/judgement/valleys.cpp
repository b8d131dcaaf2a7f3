#include "solve/judgement/valleys.h"

#include "solve/judgement/test_steps.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::solve {

namespace {

// The floor of the valley along a direction: at every distance the lowest point that steeper directions lead to.
class Valley {
public:
  Valley(FitSurface& surface, Judgement& out, int k)
      : surface_(surface), out_(out), k_(k), length_(length(k)), promised_(value(k) / (length_ * length_)),
        t_(static_cast<std::size_t>(surface.coordinates().size())), g_(t_.size())
  {
    for (int j = 0; j < size(); ++j)
      if (j != k && value(j) > out.tolerance && value(j) > steeper * promised_ * length(j) * length(j))
        steep_.push_back(j);
  }

  double promised() const { return promised_; }

  // The curvature of the floor, over the shortest step from 1 on that can tell what is promised. False when there is
  // none.
  bool measure(double& curvature)
  {
    double unused = 0.0;
    if (!floor_at(0.0, floor_, unused)) return false;
    const double noise = evaluation_noise(2.0 * floor_) + 2.0 * out_.curvature.noise;
    double step = std::max(1.0, std::sqrt(clear * noise / promised_));
    for (int trial = 0; trial < most_trials; ++trial, step *= shorter)
      if (promised_ * step * step >= 0.1 * clear * noise && over(step, curvature)) return true;
    return false;
  }

private:
  static constexpr double steeper = 30.0; // than the floor: a direction that leads back to it
  static constexpr double clear = 100.0;  // of the noise: a rise that can be measured well
  static constexpr double shorter = 0.3;
  static constexpr int most_trials = 4, most_corrections = 15;

  int size() const { return out_.curvature.size(); }
  double value(int k) const { return out_.eigenvalues[static_cast<std::size_t>(k)]; }
  double vector(int i, int k) const { return out_.directions[static_cast<std::size_t>(i * size() + k)]; }
  double& element(int i) { return t_[static_cast<std::size_t>(out_.curvature.free[static_cast<std::size_t>(i)])]; }

  double length(int k) const
  {
    double square = 0.0;
    for (int i = 0; i < size(); ++i) square += vector(i, k) * vector(i, k);
    return std::sqrt(square);
  }

  double slope(int k) const
  {
    double sum = 0.0;
    for (int i = 0; i < size(); ++i)
      sum += vector(i, k) * g_[static_cast<std::size_t>(out_.curvature.free[static_cast<std::size_t>(i)])];
    return sum;
  }

  // Newton steps across the valley, until what they promise is small beside the rise in question. along: the slope of
  // the floor.
  bool floor_at(double step, double& f, double& along)
  {
    std::fill(t_.begin(), t_.end(), 0.0);
    for (int i = 0; i < size(); ++i) element(i) = step * vector(i, k_) / length_;
    const double enough = 0.1 * std::min(1e-2 * promised_, null_curvature) * std::max(step * step, 1.0);
    double before = std::numeric_limits<double>::infinity();
    std::vector<double> back(steep_.size());
    for (int correction = 0; correction < most_corrections; ++correction) {
      if (!surface_.gradient(t_.data(), f, g_.data())) return false;
      along = slope(k_) / length_;
      double left = 0.0; // to gain, in -2 log L
      for (std::size_t j = 0; j < back.size(); ++j) {
        const double down = slope(steep_[j]);
        back[j] = down / value(steep_[j]);
        left += down * back[j];
      }
      if (left <= std::max(enough, evaluation_noise(2.0 * f))) return true;
      if (!(left < before)) return false;
      before = left;
      for (std::size_t j = 0; j < back.size(); ++j)
        for (int i = 0; i < size(); ++i) element(i) -= back[j] * vector(i, steep_[j]);
    }
    return false;
  }

  // What the floor rises by at a distance of `step` to one side.
  bool side(double step, double& rise, double& along)
  {
    double f = 0.0;
    if (!floor_at(step, f, along)) return false;
    rise = 2.0 * (f - floor_);
    if (rise < -out_.allowed && -rise > out_.lower_by) {
      out_.lower_by = -rise;
      out_.better = t_;
    }
    return true;
  }

  bool over(double step, double& curvature)
  {
    double up = 0.0, down = 0.0, slope_up = 0.0, slope_down = 0.0;
    const bool has_up = side(step, up, slope_up), has_down = side(-step, down, slope_down);
    if (has_up && has_down) {
      curvature = 0.5 * (up + down) / (step * step);
      return true;
    }
    if (!has_up && !has_down) return false;
    // One side alone: of a parabola the slope at its end takes the slope at its foot out. Where that rises by what
    // counts a bound holds the direction.
    const double rise = has_up ? up : down, turn = 2.0 * (has_up ? slope_up : -slope_down) * step;
    if (rise >= gain_allowed) return false;
    curvature = (turn - rise) / (step * step);
    return true;
  }

  FitSurface& surface_;
  Judgement& out_;
  int k_;
  double length_ = 1.0, promised_ = 0.0; // curvature of the unit direction, as the Hessian has it
  double floor_ = 0.0;                   // the objective on the floor, beside the point that is judged
  std::vector<int> steep_;
  std::vector<double> t_, g_;
};

// Curvature that may be none: what intervals of differences make, and what slopes do. A step as long as all that is
// left to gain changes the direction of the floor by less than `most_turn` of itself.
double doubtful(double gain)
{
  constexpr double by_intervals = 3e-4, most_turn = 10.0, most = 1e-2;
  return std::min(std::max(by_intervals, most_turn * std::sqrt(gain)), most);
}

} // namespace

void measure_valleys(FitSurface& surface, Judgement& out)
{
  constexpr double far_less = 0.1; // than promised
  if (!surface.analytic()) return;
  const double slight = doubtful(out.gain);
  for (int k = out.curvature.size() - 1; k >= 0; --k) {
    auto& value = out.eigenvalues[static_cast<std::size_t>(k)];
    if (!(value > out.tolerance)) continue;
    Valley valley(surface, out, k);
    double curvature = 0.0;
    if (valley.promised() > slight || !valley.measure(curvature)) continue;
    if (!out.better.empty()) return;
    if (curvature > far_less * valley.promised()) continue;
    if (curvature > null_curvature)
      value *= curvature / valley.promised();
    else
      out.note_null(k);
  }
}

} // namespace torvale::solve
