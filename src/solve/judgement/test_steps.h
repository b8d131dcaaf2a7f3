#pragma once
// Finite steps from a point that is judged: what differences cannot see.

#include "solve/judgement/judgement.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace torvale::solve {

// Relative noise of an evaluation, of which the sums over subjects are the larger part.
double evaluation_noise(double f);

// What the way back of what has run away rises by at least, in -2 log L; a bent ridge rises less.
inline constexpr double far_rise = 1e-2;

// TestSteps: changes of -2 log L along directions of a judgement (by its free coordinates) and along coordinates. A
// point that is lower by more than the judgement allows is noted there as better.
class TestSteps {
public:
  static constexpr double fails = std::numeric_limits<double>::max(); // change where the way has ended

  TestSteps(FitSurface& surface, double f, Judgement& out)
      : surface_(surface), f_(f), out_(out), t_(static_cast<std::size_t>(surface.coordinates().size()))
  {
  }

  int size() const { return out_.curvature.size(); }
  int coordinate(int i) const { return out_.curvature.free[static_cast<std::size_t>(i)]; }
  double own(int i) const { return out_.curvature.own[static_cast<std::size_t>(i)]; }
  double vector(int i, int k) const { return out_.directions[static_cast<std::size_t>(i * size() + k)]; }
  double length(int k) const;
  double share(int i, int k) const { return std::abs(vector(i, k)) / length(k); } // of free coordinate i in direction k

  // Change of -2 log L after a times eigenvector k, a times a coordinate, a times a way of all free coordinates; fails
  // where the model cannot be evaluated.
  double along(int k, double a);
  double of(int coordinate, double a);
  double by(const std::vector<double>& way, double a);

  // Whether such a step raises -2 log L by what counts. At 0 the root of a variance meets its mirror image: a bound.
  bool rises_along(int k, double a) { return along(k, a) >= gain_allowed || past_zero(); }
  bool rises_of(int coordinate, double a) { return of(coordinate, a) >= gain_allowed || past_zero(); }
  bool rises_by(const std::vector<double>& way, double a) { return by(way, a) >= gain_allowed || past_zero(); }
  // Whether the last step stayed inside the bounds.
  bool inside() const { return surface_.coordinates().inside(t_.data()); }

  // The change at the longest of the steps a, a/2, a/4, ... that can be evaluated, or at half of that, where the edge
  // is no longer felt; fails when none of them can.
  template <class Change> double outward(Change change, double a)
  {
    constexpr int most_halvings = 20;
    for (int halving = 0; halving <= most_halvings; ++halving, a *= 0.5)
      if (const double rise = change(a); rise < fails) return std::min(rise, change(0.5 * a));
    return fails;
  }

  // A direction's coordinates with a share that counts, and one coordinate, have run away.
  void note_separated(const std::vector<double>& way);
  void note_separated(int coordinate);

private:
  double change();
  bool past_zero() const;

  FitSurface& surface_;
  double f_;
  Judgement& out_;
  std::vector<double> t_;
};

// finite_tests: null directions that fall, directions and parameters that do not rise within a standard error, at the
// judgement's own Hessian; g is the gradient by t. Adds to out.better and out.separated.
void finite_tests(FitSurface& surface, double f, const double* g, Judgement& out);

// runaway_tests: estimates that have run away together, though each coordinate and each direction of the Hessian rises.
void runaway_tests(TestSteps& steps, const FitCoordinates& c, double f, const double* g, Judgement& out);

} // namespace torvale::solve
