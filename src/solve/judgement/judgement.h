#pragma once
// Is a point a minimum of the objective? The tests of a fit's end, in coordinates that know no units.

#include "solve/judgement/curvature.h"

#include <optional>
#include <vector>

namespace torvale::solve {

// What is asked of a minimum. Values of the objective count as -2 log L, twice the objective.
inline constexpr double gain_allowed = 1e-4;
// What a fit that no criterion of the user's has stopped goes on for: estimates within a thousandth of their standard
// errors, so that the digits printed do not depend on how the minimum was reached.
inline constexpr double sharp_gain = 1e-6;
// A curvature at unit diagonal that is none.
inline constexpr double null_curvature = 1e-8;

// Judgement: what the tests found at t = 0 of the coordinates.
struct Judgement {
  bool measured = false; // there is a Hessian
  Curvature curvature;
  std::vector<double> eigenvalues; // of the Hessian at unit diagonal, descending
  std::vector<double> directions;  // m x m by the free coordinates; column k has eigenvalue k as its curvature
  double tolerance = 0.0;          // eigenvalues within it are 0
  double gain = 0.0;               // g' H^-1 g off the null space, in -2 log L
  std::vector<double> bend;        // FitCoordinates::bend at the point, by all coordinates; empty when there is none
  bool indefinite = false;         // a negative eigenvalue
  // A curvature that may be no more than the slope along a bent ridge: the point is not near enough to its minimum to
  // tell.
  bool doubtful_curvature = false;
  // The likelihood of counts is 1 but for gain_allowed, the most that probabilities come to: nothing is left to gain.
  bool at_limit = false;
  bool creeps = false;   // looked for anew it has gained more than is allowed, bit by bit, and is in doubt still
  std::vector<int> null; // eigenvalues that are 0
  std::vector<std::vector<double>> unseen; // ridges of random effects, by the parameters, that the Hessian may not show
  std::vector<int> separated; // coordinates along which the objective does not rise within a standard error
  struct Rise {
    std::vector<double> t;
    double by = 0.0; // in -2 log L
  };
  std::vector<Rise> rises;    // steps of a standard error that had to rise, and did
  std::vector<double> better; // t of a point that a test met and that is lower by more than gain_allowed; or empty
  double lower_by = 0.0;      // its gain in -2 log L

  bool minimum() const
  {
    return measured && !indefinite && !creeps && gain <= allowed && separated.empty() && better.empty();
  }
  // Estimates that have run away as far as counts: where they stop on their way is chance.
  bool ran_to_limit() const { return at_limit && !separated.empty(); }
  double allowed = gain_allowed; // gain_allowed, or ten times the evaluation's noise

  // The Newton step off the null space, by all coordinates; g is the gradient by t.
  std::vector<double> newton_step(const std::vector<double>& g) const;
  // Direction k is flat: its eigenvalue becomes 0, its length 1.
  void note_null(int k);
};

// free_coordinates: those that no bound fixes, and not those at a bound that the gradient g (by t) presses on.
std::vector<int> free_coordinates(const FitCoordinates& c, const double* g);

// judge: measures the curvature at t = 0, where the objective is f and its gradient g, and tests:
//   no negative eigenvalue; g' H^-1 g small; null directions do not fall by finite steps; along the flattest other
//   direction (all, where the coordinates had to be turned), and along parameters whose error exceeds them, one
//   standard error either way raises the objective.
Judgement judge(FitSurface& surface, double f, const double* g);

// least_rise: the least of what the steps of a standard error raised -2 log L by.
double least_rise(const Judgement& judged);

// rises_stand: whether the steps of `rises` rise on a surface that has a finer rule for its integrals, by more than the
// two rules differ: what one refinement changes another may change again. True where the surface cannot be evaluated.
// The rises become those of this surface. at_origin: its value at t = 0, where that is known.
bool rises_stand(FitSurface& refined, std::vector<Judgement::Rise>& rises, std::optional<double> at_origin);

// judge_given: the same with a Hessian that is there already. Where an eigenvalue is below `least` no steps are tried:
// the point is to be judged otherwise.
Judgement judge_given(FitSurface& surface, Curvature curvature, double f, const double* g, double least = -1.0);

} // namespace torvale::solve
