#pragma once
// When a fit has converged: criteria of the techniques stop iterations, they do not make a result.

#include "solve/judgement/judgement.h"
#include "solve/start/point_selection.h"

#include <memory>

namespace torvale::solve {

inline constexpr int most_refits = 2; // with more quadrature points

// FitEnd: runs the fit's technique, judges the point at which it stops, and goes on from there (trust region, scaled
// coordinates, factors of G) while -2 log L falls by gain_allowed, within the fit's MAXITER, MAXFUNC and MAXTIME.
// A criterion that the user gave and that stopped the fit keeps its code. The stages are listed in fit_end.cpp.
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
  // A stage is a member that tells what comes after it: the next one; the outcome, as nothing is left to look for; or
  // nothing, as there is no point to judge.
  enum class Then { next, outcome, nothing };
  using Stage = Then (FitEnd::*)();
  static const Stage stages[];

  // fit_end.cpp
  Then technique();
  Then point_of_technique();
  Then clear_minimum();
  Then more_iterations();
  Then rounds();
  Then without_effects();
  Then while_it_falls();
  Then from_the_start();
  Then from_spread_start();
  bool ended_by_user() const;
  void tell_what_was_gained();
  // technique_run.cpp
  void set_scales();
  int run_technique();
  void ask_for_sharp_end();
  bool takes_more_points(int code);
  void form_covariance();
  bool technique_goes_on(int code, double start);
  // quick_confirmation.cpp
  bool quickly_confirmed();
  // confirmation.cpp
  void assess();
  double first_scale(int i) const;
  Judgement judge_here();
  void measure_by_size();
  void ask_by_parameters();
  bool sharp() const;
  void settle();
  bool stopped() const;
  bool doubtful() const;
  // going_on.cpp
  void move_to(const std::vector<double>& x);
  bool newton_step();
  void leave_saddle();
  bool go_on();
  bool sharpen();
  // other_ways.cpp
  void fall_on();
  void take_turns();
  bool try_without_effects();
  void begin_again(const std::vector<double>& start);
  // fit_outcome.cpp
  bool beyond_edge() const;
  bool back_to_edge();
  void to_the_edge();
  void finish();
  // questioned_integrals.cpp
  bool question_ridges();

  model::NX& n_;
  int code_ = 0; // of the technique, in the end of the fit
  std::unique_ptr<FitCoordinates> coordinates_;
  Judgement judgement_;
  bool accurate_ = false;
  bool evaluated_ = false;                      // the technique has left a point with value and gradient
  bool falling_ = false;                        // the last round of the trust region gained much
  bool moved_ = false;                          // the point is not the technique's own any more
  double maxiter_ = 0.0, maxfunc_ = 0.0;        // limits before they were extended
  std::vector<double> x_;                       // the point
  double f_ = 0.0;                              // objective there
  std::vector<double> g_;                       // gradient by the parameters
  double f_technique_ = 0.0, iterations_ = 0.0; // objective and iterations of the technique
  std::vector<double> start_;                   // starting values
  std::vector<double> scales_;                  // of the technique's run
  PointsAsked points_asked_;
};

// What a round gains, in -2 log L, that makes it worth to go on beyond a default limit.
inline constexpr double much = 1.0;

} // namespace torvale::solve
