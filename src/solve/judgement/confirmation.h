#pragma once
// When a fit has converged: criteria of the techniques stop iterations, they do not make a result.

#include "solve/judgement/judgement.h"
#include "solve/start/point_selection.h"

#include <memory>

namespace torvale::solve {

// FitEnd: runs the fit's technique, judges the point at which it stops, and goes on from there (trust region, scaled
// coordinates, factors of G) while -2 log L falls by gain_allowed, within the fit's MAXITER, MAXFUNC and MAXTIME.
// A criterion that the user gave and that stopped the fit keeps its code.
inline constexpr int most_refits = 2; // with more quadrature points

class FitEnd {
public:
  explicit FitEnd(model::NX& n) : n_(n) {}
  ~FitEnd(); // the optimizer's block no longer borrows its scales
  FitEnd(const FitEnd&) = delete;
  FitEnd& operator=(const FitEnd&) = delete;

  // Stage 2 of the optimizer; stage 1 has returned 0. Leaves the record at the end point, evaluated, with its Hessian;
  // outcome, gain and what the tests found in n.verdict. Returns the termination code: code_no_progress where no
  // minimum could be confirmed.
  int run();

  // Whether the minimum stands with more points in the integrals, where they change enough to matter
  // (docs/convergence.md); call after check_points. Returns the termination code: another where it does not, unless the
  // program gave QPOINTS=.
  int question_integrals(int code);

  // What has been found out about the number of points.
  PointsAsked& points_asked() { return points_asked_; }

  // True when the judge measured the curvature himself; the covariance of the estimates and the null space then come
  // from there.
  bool measured() const { return accurate_ && judgement_.measured; }
  const Judgement& judgement() const { return judgement_; }
  const FitCoordinates& coordinates() const { return *coordinates_; }

private:
  // technique_run.cpp
  void set_scales();
  int run_technique();
  void ask_for_sharp_end();
  bool takes_more_points(int code);
  void form_covariance();
  bool technique_goes_on(int code, double start);
  bool quickly_confirmed();
  // confirmation.cpp
  void assess();
  double first_scale(int i) const;
  Judgement judge_here();
  void measure_by_size();
  void ask_by_parameters();
  bool go_on();
  bool newton_step();
  void leave_saddle();
  bool sharp() const;
  bool sharpen();
  void settle(int code);
  bool stopped() const;
  bool doubtful(int code) const;
  void begin_again(int code, bool spread);
  bool try_without_effects();
  void take_turns();
  void fall_on(int code);
  void move_to(const std::vector<double>& x);
  // fit_outcome.cpp
  bool beyond_edge() const;
  bool back_to_edge();
  void to_the_edge();
  bool question_ridges();
  int finish(int code);

  model::NX& n_;
  std::unique_ptr<FitCoordinates> coordinates_;
  Judgement judgement_;
  bool accurate_ = false;
  bool falling_ = false;                 // the last round of the trust region gained much
  bool moved_ = false;                   // the point is not the technique's own any more
  double maxiter_ = 0.0, maxfunc_ = 0.0; // limits before they were extended
  std::vector<double> x_;                // the point
  double f_ = 0.0;                       // objective there
  std::vector<double> g_;                // gradient by the parameters
  std::vector<double> start_;            // starting values
  std::vector<double> scales_;           // of the technique's run
  PointsAsked points_asked_;
};

} // namespace torvale::solve
