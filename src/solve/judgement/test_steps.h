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
  bool rises_along(int k, double a) { return rises(along(k, a)); }
  bool rises_of(int coordinate, double a) { return rises(of(coordinate, a)); }
  bool rises_by(const std::vector<double>& way, double a) { return rises(by(way, a)); }
  // Whether the last step stayed inside the bounds.
  bool inside() const { return surface_.coordinates().inside(t_.data()); }

  // Whether nothing rises on the way out, at the longest of the steps a, a/2, a/4, ... that can be evaluated; `back` is
  // what the way home, of length |a|, rises by. Near the edge of what can be evaluated a sum over points loses some of
  // them and rises for that. There an exponential's tail is told by the way home, of which the first half is flat, and
  // by shorter steps, which do not rise; a bent ridge rises by a share of the whole. Where the likelihood is at its
  // limit no way falls any more.
  template <class Change> bool flat_outward(Change change, double a, double back)
  {
    if (out_.at_limit) return true;
    constexpr int most_halvings = 20, before_the_edge = 4;
    constexpr double share = 1e-3, nothing = 1e-8;
    // (Halfway along a parabola that rises by little there is little left, too: it is a quarter.)
    const double flat = std::min(gain_allowed, 0.1 * back), none = std::min(gain_allowed, nothing * back);
    for (int halving = 0; halving <= most_halvings; ++halving) {
      double part = std::ldexp(1.0, -halving);
      const double rise = change(part * a);
      if (!(rise < fails)) continue;
      if (rise < flat || change(0.5 * part * a) < flat) return true;
      if (halving == 0 || !(change(-0.5 * a) < share * back)) return false;
      part *= 0.25;
      for (int more = 0; more < before_the_edge; ++more, part *= 0.5) {
        const double out = change(part * a);
        if (out < none && (out <= 0.0 || out < 0.5 * change(-part * a))) return true;
      }
      return false;
    }
    return false;
  }

  // A direction's coordinates with a share that counts, and one coordinate, have run away.
  void note_separated(const std::vector<double>& way);
  void note_separated(int coordinate);

private:
  double change();
  bool rises(double change);
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
