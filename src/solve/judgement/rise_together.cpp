#include "solve/judgement/rise_together.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

namespace {

constexpr double enough = 0.5;    // of the slope that a coordinate has alone, promised by the joint step
constexpr double agreement = 0.2; // of the same: what slopes at its ends may differ by from the promise
constexpr std::size_t few = 3;    // so many are as cheaply tried one by one

class JointSteps {
public:
  JointSteps(FitSurface& surface, const Curvature& curvature, const double* g)
      : surface_(surface), curvature_(curvature), g_(g), t_(static_cast<std::size_t>(surface.coordinates().size())),
        slopes_(t_.size())
  {
  }

  // Those that a step of all of them leaves open are tried again, in halves where it decided little.
  void decide(const std::vector<int>& asked)
  {
    if (asked.size() < few) return;
    choose_signs(asked);
    std::vector<char> good(asked.size(), 1);
    for (std::size_t k = 0; k < asked.size(); ++k) good[k] = promised(asked[k]) * sign(asked[k]) >= enough;
    for (const double side : {1.0, -1.0}) {
      if (!move(asked, side)) good.assign(asked.size(), 0);
      if (std::find(good.begin(), good.end(), 1) == good.end()) break;
      for (std::size_t k = 0; k < asked.size(); ++k) good[k] = good[k] != 0 && as_promised(asked[k], side);
    }
    std::vector<int> open;
    for (std::size_t k = 0; k < asked.size(); ++k) (good[k] != 0 ? rising_ : open).push_back(asked[k]);
    if (2 * open.size() <= asked.size()) return decide(open);
    const auto half = open.begin() + static_cast<std::ptrdiff_t>(open.size() / 2);
    decide({open.begin(), half});
    decide({half, open.end()});
  }

  std::vector<int> rising() const { return rising_; }

private:
  std::size_t place(int i) const { return static_cast<std::size_t>(curvature_.free[static_cast<std::size_t>(i)]); }
  double sign(int i) const { return step_[static_cast<std::size_t>(i)]; }

  // One after another, each to the side to which those before it take its slope.
  void choose_signs(const std::vector<int>& asked)
  {
    step_.assign(curvature_.free.size(), 0.0);
    for (const int i : asked) step_[static_cast<std::size_t>(i)] = promised(i) < 0.0 ? -1.0 : 1.0;
  }

  // The change of coordinate i's slope over the joint step.
  double promised(int i) const
  {
    double sum = 0.0;
    for (int k = 0; k < curvature_.size(); ++k) sum += curvature_.at(i, k) * step_[static_cast<std::size_t>(k)];
    return sum;
  }

  bool move(const std::vector<int>& asked, double side)
  {
    std::fill(t_.begin(), t_.end(), 0.0);
    for (const int i : asked) t_[place(i)] = side * sign(i);
    double f = 0.0;
    return surface_.gradient(t_.data(), f, slopes_.data());
  }

  bool as_promised(int i, double side) const
  {
    const double change = slopes_[place(i)] - g_[place(i)];
    return std::abs(change - side * promised(i)) <= agreement;
  }

  FitSurface& surface_;
  const Curvature& curvature_;
  const double* g_;
  std::vector<double> step_; // of the free coordinates: 1, -1 or 0
  std::vector<double> t_, slopes_;
  std::vector<int> rising_;
};

} // namespace

std::vector<int> rise_together(FitSurface& surface, const Curvature& curvature, const double* g,
                               const std::vector<int>& asked)
{
  // Turned directions have no Hessian by coordinates, and gradients by differences cost more than single steps.
  if (curvature.turned || !surface.analytic()) return {};
  JointSteps steps(surface, curvature, g);
  steps.decide(asked);
  return steps.rising();
}

} // namespace torvale::solve
