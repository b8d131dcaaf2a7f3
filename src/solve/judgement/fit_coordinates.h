#pragma once
// Coordinates in which a fit is judged and, where it must go on, is taken on.

#include "model/run_record.h"

#include <cmath>
#include <vector>

namespace torvale::solve {

// FitCoordinates: t, one per parameter, 0 at the point of expansion x. Three things make them better than the
// parameters:
//
//   scale    x_i = x_i(0) + scale_i t_i, with scales that the curvature chooses: no decision depends on units
//   factor   where the elements of a block of G are parameters themselves, their coordinates are the elements of its
//            Cholesky factor. The edge of semidefiniteness then is no edge: a variance of 0 is an interior point, at
//            which the gradient vanishes and the curvature is the one-sided derivative by the variance.
//
//   log      the variance of a normal response (the scale of a t), where it is a parameter: from far below or above its
//            value the objective is nearly linear in the logarithm, and its curvature there is positive
//
// The rows of a block are ordered by pivoting, so that the factor of a singular block ends in zero columns and its
// coordinates have no idle rotation. Bounds of variances at 0 (or at the slack of a strict bound) are left to the
// factor.
class FitCoordinates {
public:
  // factors false: scales only, no factors and no logarithm.
  FitCoordinates(const model::NX& n, const double* x, bool factors = true);

  // straight: the parameters themselves, but for scales; variances that the bent coordinates hold end at 0.
  static FitCoordinates straight(const model::NX& n, const double* x);

  int size() const { return static_cast<int>(origin_.size()); }
  double origin(int i) const { return origin_[static_cast<std::size_t>(i)]; }
  // A step of this length changes the parameter as much as it is large: its own size, 1 for a logarithm; 0 at zero.
  double own_size(int i) const { return i == logarithm_ ? 1.0 : std::abs(origin(i)); }
  bool same_kind(const FitCoordinates& c, int i) const
  {
    return in_factor(i) == c.in_factor(i) && (i == logarithm_) == (i == c.logarithm_);
  }
  double scale(int i) const { return scale_[static_cast<std::size_t>(i)]; }
  void set_scale(int i, double s) { scale_[static_cast<std::size_t>(i)] = s; }

  // first_scale: one to begin with where nothing is known.
  double first_scale(int i) const;
  // slope: what a step of coordinate i changes of parameter i, before scales; 0 at a variance of 0.
  double slope(int i) const;
  // short_scale: one that is short beside the parameter.
  double short_scale(int i) const;

  // parameters: x at t. gradient: derivatives by t from those by x. jacobian: dx/dt, dense by rows.
  void parameters(const double* t, double* x) const;
  void gradient(const double* t, const double* by_x, double* by_t) const;
  void jacobian(const double* t, double* j) const;
  // bend: what the bending of the coordinates adds to second derivatives by t at the origin, the sum over the
  // parameters of by_x times d2x/dt dt; dense. Without the blocks of G that stand on their edge: the slopes there are
  // the multipliers of that bound, whose bend belongs to the curvature along it. False when it is 0: no factor and no
  // logarithm.
  bool bend(const double* by_x, double* out) const;

  // Bounds of t; largest and -largest where there are none. fixed: the bounds leave one value.
  double lower(int i) const;
  double upper(int i) const;
  bool fixed(int i) const { return fixed_[static_cast<std::size_t>(i)] != 0; }
  bool inside(const double* t) const;
  // True when the origin stands on the bound.
  bool at_lower(int i) const;
  bool at_upper(int i) const;

  // end_at: coordinate i cannot go nearer to 0 than its parameter is at the origin of c: a bound that no program
  // states. For straight coordinates.
  void end_at(const FitCoordinates& c, int i);

  // plain: nothing but a scale; no bound, no factor, no logarithm. Such coordinates may be turned.
  bool plain(int i) const;
  // The coordinate that is a logarithm, or -1.
  int logarithm() const { return logarithm_; }
  // bent: no parameter itself, an element of a factor or a logarithm.
  bool bent(int i) const { return in_factor(i) || i == logarithm_; }
  bool in_factor(int i) const { return in_block_[static_cast<std::size_t>(i)] != 0; }
  // Factors with a diagonal element below `share` of the root of its own variance: G is near the edge there.
  bool near_edge(double share) const;
  static constexpr double edge_share = 1e-6;
  // The same of factors with more than one effect: an edge that is no bound of a parameter.
  bool near_joint_edge(double share) const;
  // Coordinates of the diagonal elements of all factors. variance: coordinate i is one of them.
  std::vector<int> edge_diagonals() const;
  bool variance(int i) const;
  // effect: of the variance `i`, all of its row and column of G; empty where a bound keeps the variance from 0. hold:
  // coordinate i stays where it is.
  std::vector<int> effect(int i) const;
  void hold(int i) { fixed_[static_cast<std::size_t>(i)] = 1; }

private:
  struct Block {
    int order = 0;
    bool reaches_zero = true;   // no bound keeps its variances from 0
    std::vector<int> parameter; // packed: the parameter of each element, rows in pivoted order
  };
  void add_blocks(const model::NX& n, const model::REFFECT& reff, const double* x);
  void add_block(const model::NX& n, const std::vector<std::vector<int>>& parameter, const std::vector<int>& effects,
                 const double* x);
  double factor(const Block& b, int r, int c, const double* t) const;
  bool on_edge(const Block& b, double share) const;
  void add_logarithm(const model::ModelLists& n);

  std::vector<double> origin_; // x, its logarithm, or the element of the factor, at t = 0
  std::vector<double> scale_;
  std::vector<double> lower_, upper_; // of x, of its logarithm, or of the element of the factor
  std::vector<char> fixed_;
  std::vector<char> in_block_;
  std::vector<Block> blocks_;
  int logarithm_ = -1; // parameter whose coordinate is its logarithm; -1 none
};

// variance_parameter: the parameter that is the variance of random effect i, or -1.
int variance_parameter(const model::NX& n, const model::REFFECT& reff, int i);

} // namespace torvale::solve
