#pragma once

#include <cstdint>
#include <vector>

namespace torvale::test {

// A generated problem with bounds and linear rows: a quadratic (positive definite, badly conditioned, or a little
// indefinite within bounds), ridge functions of random combinations of the parameters, and curved valleys. Value,
// gradient and Hessian are written out, so that a point can be judged by exact derivatives.
struct GeneratedProblem {
  struct Term {
    int kind; // 0 softplus, 1 quartic, 2 cosh, 3 bounded t^2/(1 + t^2), 4 valley (a'x - (b'x)^2)^2
    double weight, shift;
    std::vector<double> a, b;
  };
  struct Row {
    std::vector<double> a;
    double right_side;
    bool equality;
  };

  explicit GeneratedProblem(std::uint32_t seed);

  double value(const std::vector<double>& x) const;
  std::vector<double> gradient(const std::vector<double>& x) const;
  std::vector<double> hessian(const std::vector<double>& x) const; // n times n

  int n = 0;
  std::vector<double> start, lower, upper; // bounds always given, +-largest for none
  std::vector<Row> rows;                   // equalities first
  std::vector<double> quadratic, centre;
  std::vector<Term> terms;
};

// What exact derivatives say of a point. The multipliers of the constraints at their limit are found by nonnegative
// least squares, in no way as the optimizer finds its own.
struct Verdict {
  double violation; // of the constraints, relative to their size
  double gradient;  // largest element of what the multipliers leave of the gradient
  double gain;      // what a Newton step within the constraints still promises; infinite where the gradient has a
                    // component along a direction of no or negative curvature
};

// interval: that of forward differences relative to 1 + |x|, 0 for exact gradients. What such differences cannot see
// of a slope, the interval times the curvature along the parameters, does not count as gain.
Verdict judge(const GeneratedProblem& problem, const std::vector<double>& x, double interval = 0.0);

} // namespace torvale::test
