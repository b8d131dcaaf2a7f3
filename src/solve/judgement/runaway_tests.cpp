#include "solve/judgement/test_steps.h"

#include <cmath>
#include <numeric>

namespace torvale::solve {

namespace {

double dot(const std::vector<double>& a, const std::vector<double>& b)
{
  return std::inner_product(a.begin(), a.end(), b.begin(), 0.0);
}

void add(double a, const std::vector<double>& x, std::vector<double>& y)
{
  for (std::size_t i = 0; i < y.size(); ++i) y[i] += a * x[i];
}

// Observations that are told apart completely leave a cone of directions along which the likelihood goes on rising, all
// of them near its end. Axes and eigenvectors of the Hessian, whose largest elements are the last of the tails, lie
// outside of it and rise; the estimates themselves lie inside.
class Runaways {
public:
  Runaways(TestSteps& steps, const FitCoordinates& c, double f, const double* g, Judgement& out)
      : steps_(steps), f_(f), g_(g), out_(out), home_(static_cast<std::size_t>(steps.size()), 0.0)
  {
    for (int i = 0; i < steps.size(); ++i)
      if (const int j = steps.coordinate(i); c.plain(j)) home_[static_cast<std::size_t>(i)] = -c.origin(j) / c.scale(j);
  }

  void run()
  {
    newton_step();
    tail(home_);
    if (!out_.null.empty()) tail(null_part());
  }

private:
  double slope(const std::vector<double>& way) const
  {
    double sum = 0.0;
    for (int i = 0; i < steps_.size(); ++i) sum += way[static_cast<std::size_t>(i)] * g_[steps_.coordinate(i)];
    return sum;
  }

  // On the tail of an exponential the Newton step is one length of the tail; a standard error, however many of these,
  // does not rise.
  void newton_step()
  {
    if (!(out_.gain > evaluation_noise(2.0 * f_))) return; // rounding alone gives the direction
    std::vector<double> step(home_.size(), 0.0), v(step);
    for (int k = 0; k < steps_.size(); ++k) {
      const double value = out_.eigenvalues[static_cast<std::size_t>(k)];
      if (!(value > out_.tolerance)) continue;
      for (int i = 0; i < steps_.size(); ++i) v[static_cast<std::size_t>(i)] = steps_.vector(i, k);
      add(-slope(v) / value / std::sqrt(out_.gain), v, step);
    }
    if (!steps_.rises_by(step, 1.0)) steps_.note_separated(step);
  }

  // Home are all parameters at 0. Where the way back rises far more than slope and curvature promise, and as far on
  // nothing does, the estimates stand on a tail.
  void tail(const std::vector<double>& way)
  {
    if (dot(way, way) == 0.0 || promised(way) > most_of_a_tail) return;
    const auto change = [&](double a) { return steps_.by(way, a); };
    const double back = change(1.0);
    if (!(back < TestSteps::fails && back >= far_rise && back > 10.0 * promised(way))) return;
    if (steps_.flat_outward(change, -1.0, back)) steps_.note_separated(way);
  }

  // At x lengths of an exponential's tail its curvature promises x**2 times what is left of it: 0.1 at most where that
  // is below what counts. What is promised more rises on the way out, too.
  static constexpr double most_of_a_tail = 1.0;

  // Turned directions are not orthogonal: there the slope alone promises.
  double promised(const std::vector<double>& way) const
  {
    double sum = 2.0 * std::abs(slope(way));
    for (int k = 0; k < steps_.size() && !out_.curvature.turned; ++k) {
      double part = 0.0;
      for (int i = 0; i < steps_.size(); ++i) part += steps_.vector(i, k) * way[static_cast<std::size_t>(i)];
      sum += std::max(out_.eigenvalues[static_cast<std::size_t>(k)], 0.0) * part * part;
    }
    return sum;
  }

  // The way home inside the null space: what is identified stays as it is.
  std::vector<double> null_part() const
  {
    std::vector<double> way(home_.size(), 0.0);
    std::vector<std::vector<double>> orthonormal; // by Gram and Schmidt
    for (const int k : out_.null) {
      std::vector<double> v(home_.size());
      for (int i = 0; i < steps_.size(); ++i) v[static_cast<std::size_t>(i)] = steps_.vector(i, k);
      for (const auto& u : orthonormal) add(-dot(u, v), u, v);
      const double size = std::sqrt(dot(v, v));
      if (!(size > 1e-6)) continue;
      for (double& e : v) e /= size;
      add(dot(v, home_), v, way);
      orthonormal.push_back(std::move(v));
    }
    // A coordinate that nothing depends on may be so long that rounding of its part is a long way.
    const double length = std::sqrt(dot(home_, home_));
    for (std::size_t i = 0; i < way.size(); ++i)
      if (std::abs(way[i] - home_[i]) <= 1e-9 * length) way[i] = home_[i];
    return way;
  }

  TestSteps& steps_;
  double f_;
  const double* g_;
  Judgement& out_;
  std::vector<double> home_; // by the free coordinates; 0 where a coordinate has none
};

} // namespace

void runaway_tests(TestSteps& steps, const FitCoordinates& c, double f, const double* g, Judgement& out)
{
  Runaways(steps, c, f, g, out).run();
}

} // namespace torvale::solve
