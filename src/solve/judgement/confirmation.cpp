#include "solve/judgement/confirmation.h"

#include "host/messages/names/fit.h"
#include "host/messages/names/optimizer.h"
#include "integration/objective.h"
#include "optimizer/messages/messages.h"
#include "optimizer/optimizer.h"
#include "solve/judgement/by_turns.h"
#include "solve/judgement/continuation.h"
#include "solve/judgement/fit_codes.h"
#include "solve/judgement/fresh_start.h"
#include "solve/judgement/spread_start.h"
#include "solve/judgement/straight_judgement.h"
#include "solve/judgement/vanished_variance.h"
#include "solve/start/parameter_unit.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace torvale::solve {

using model::FitOutcome;
using model::NX;
using optimizer::MINSTR;

namespace {

constexpr int most_rounds = 12;    // of the trust region
constexpr int most_sharpened = 6;  // times that a minimum in doubt is looked for anew
constexpr int most_trials = 4;     // of vanished variances that lead to a better minimum
constexpr int most_extensions = 3; // of default limits, while a round gains `much` in -2 log L
constexpr double much = 1.0;
constexpr double ill_known = 0.05; // elements of the Hessian at unit diagonal

} // namespace

void FitEnd::assess()
{
  const host::StageScope stage(n_.host->stages(), host::Stage::covariance);
  accurate_ = true;
  const auto before = std::move(coordinates_);
  coordinates_ = std::make_unique<FitCoordinates>(n_, x_.data());
  for (int i = 0; i < n_.nparm; ++i) {
    const bool known = before != nullptr && before->same_kind(*coordinates_, i);
    coordinates_->set_scale(i, known ? before->scale(i) : first_scale(i));
  }
  judgement_ = judge_here();
  if (judgement_.curvature.accuracy > ill_known) measure_by_size();
  judgement_.bend.resize(x_.size() * x_.size());
  if (!coordinates_->bend(g_.data(), judgement_.bend.data())) judgement_.bend.clear();
  if (!judgement_.ran_to_limit()) ask_by_parameters();
}

// What the Hessian of the covariance says, where there is one: no unit of a parameter then decides how its scale is
// found.
double FitEnd::first_scale(int i) const
{
  const auto& hessian = n_.covstr->hessian;
  const auto k = static_cast<std::size_t>(i);
  const double curvature = !moved_ && hessian.present && n_.str->hfrm != 2 ? hessian.elements[k * (k + 3) / 2] : 0.0;
  const double slope = coordinates_->slope(i), own = coordinates_->own_size(i);
  const double unknown = coordinates_->first_scale(i);
  if (!(curvature > 0.0 && slope > 0.0)) return unknown;
  return std::min(1.0 / (slope * std::sqrt(curvature)), std::max(most_lengths * own, unknown));
}

Judgement FitEnd::judge_here()
{
  FitSurface surface(n_, *coordinates_);
  std::vector<double> g(x_.size());
  const std::vector<double> origin(x_.size(), 0.0);
  coordinates_->gradient(origin.data(), g_.data(), g.data());
  return judge(surface, f_, g.data());
}

// Scales of another point may be so long that differences over them know nothing of this one: once more from what the
// parameters are large. (A root that is all but 0 has no size; the start had.)
void FitEnd::measure_by_size()
{
  constexpr double none = 1e-6; // of the size at the start
  const FitCoordinates measured = *coordinates_, start(n_, start_.data());
  for (int i = 0; i < n_.nparm; ++i) {
    const bool sizeless = measured.in_factor(i) && measured.own_size(i) < none * start.own_size(i);
    coordinates_->set_scale(i, (sizeless ? start : measured).short_scale(i));
  }
  Judgement again = judge_here();
  if (again.measured && again.curvature.accuracy < judgement_.curvature.accuracy)
    judgement_ = std::move(again);
  else
    *coordinates_ = measured;
}

// A ridge that ends where the coordinates do is straight by the parameters: then these are the coordinates.
void FitEnd::ask_by_parameters()
{
  StraightJudgement found = judge_straight(n_, *coordinates_, judgement_, x_, f_);
  const Judgement& j = found.judgement;
  constexpr double well_known = 1e-3; // elements of the Hessian
  if (j.null.empty() || j.indefinite || !j.separated.empty() || j.curvature.accuracy > well_known) return;
  judgement_ = std::move(found.judgement);
  coordinates_ = std::move(found.coordinates);
}

void FitEnd::move_to(const std::vector<double>& x)
{
  x_ = x;
  moved_ = true;
  // Strict bounds of variances that the factor has passed.
  for (int i = 0; i < n_.nparm; ++i) {
    const auto& p = n_.parmstr[static_cast<std::size_t>(i)];
    if (p.applyl) x_[static_cast<std::size_t>(i)] = std::max(x_[static_cast<std::size_t>(i)], p.lowbound);
    if (p.applyh) x_[static_cast<std::size_t>(i)] = std::min(x_[static_cast<std::size_t>(i)], p.highbound);
  }
  FitCoordinates here(n_, x_.data(), false);
  FitSurface surface(n_, here);
  const std::vector<double> origin(x_.size(), 0.0);
  g_.resize(x_.size());
  if (coordinates_ != nullptr && !surface.analytic())
    for (int i = 0; i < n_.nparm; ++i)
      if (!coordinates_->in_factor(i)) here.set_scale(i, coordinates_->scale(i));
  if (!surface.gradient(origin.data(), f_, g_.data())) return;
  for (std::size_t i = 0; i < x_.size(); ++i) g_[i] /= here.scale(static_cast<int>(i));
  integration::accept_modes(n_);
}

// Where evaluations are noisy the trust region's own differences, over short intervals, are noise: the judge's Hessian
// is the better one, and its Newton step tells whether there is something to gain.
bool FitEnd::newton_step()
{
  const bool worth = judgement_.measured && !judgement_.indefinite && judgement_.gain > judgement_.allowed;
  if (!worth || !(judgement_.curvature.noise > 0.0)) return false;
  FitSurface surface(n_, *coordinates_);
  const std::vector<double> origin(x_.size(), 0.0);
  std::vector<double> g(x_.size()), x(x_.size()), t(x_.size());
  coordinates_->gradient(origin.data(), g_.data(), g.data());
  const auto step = judgement_.newton_step(g);
  constexpr double least = 0.25; // of what the step promises
  for (double length = 1.0; length > 0.1; length *= 0.5) {
    for (std::size_t i = 0; i < x.size(); ++i) t[i] = length * step[i];
    double f = 0.0;
    if (!surface.value(t.data(), f) || 2.0 * (f_ - f) < least * length * judgement_.gain) continue;
    coordinates_->parameters(t.data(), x.data());
    move_to(x);
    return true;
  }
  return false;
}

// At a saddle with next to no gradient a trust region would end at once: a step along the direction that falls comes
// first.
void FitEnd::leave_saddle()
{
  if (!judgement_.indefinite || !judgement_.better.empty() || judgement_.gain > sharp_gain) return;
  FitSurface surface(n_, *coordinates_);
  const auto m = static_cast<std::size_t>(judgement_.curvature.size());
  std::vector<double> t(x_.size(), 0.0);
  // (What a fourth power ends falls most at one length, and rises at twice that.)
  for (const double length : {1.0, -1.0, 0.3, -0.3, 0.1, -0.1, 0.03, -0.03, 0.01, -0.01}) {
    for (std::size_t i = 0; i < m; ++i)
      t[static_cast<std::size_t>(judgement_.curvature.free[i])] = length * judgement_.directions[i * m + m - 1];
    double f = 0.0;
    if (!surface.value(t.data(), f) || 2.0 * (f_ - f) < judgement_.allowed) continue;
    judgement_.better = t;
    judgement_.lower_by = 2.0 * (f_ - f);
    return;
  }
}

// One more round of the trust region. False when it did not lower -2 log L by what counts.
bool FitEnd::go_on()
{
  if (newton_step()) return true;
  leave_saddle();
  FitSurface surface(n_, *coordinates_);
  const bool jump = !judgement_.better.empty();
  const std::vector<double> start = jump ? judgement_.better : std::vector<double>(x_.size(), 0.0);
  const double f_start = jump ? f_ - 0.5 * judgement_.lower_by : f_;
  const double before = f_;
  std::vector<double> x(x_.size());
  double f = 0.0;
  if (!continue_fit(surface, start, f_start, x, f, &judgement_.curvature)) {
    if (!jump) return false;
    coordinates_->parameters(start.data(), x.data());
  }
  move_to(x);
  falling_ = 2.0 * (before - f_) >= much;
  return 2.0 * (before - f_) >= gain_allowed;
}

// Whether the digits that are printed are those of the minimum, as far as rounding lets them be.
bool FitEnd::sharp() const
{
  return !(judgement_.gain > std::max({sharp_gain, 1e-12 * std::abs(f_), 2.0 * judgement_.curvature.noise}));
}

// The minimum to more digits. False when there are none to be had.
bool FitEnd::sharpen()
{
  FitSurface surface(n_, *coordinates_);
  const std::vector<double> origin(x_.size(), 0.0);
  std::vector<double> x;
  double f = 0.0;
  if (!continue_fit(surface, origin, f_, x, f, &judgement_.curvature)) return false;
  move_to(x);
  return true;
}

int FitEnd::run()
{
  MINSTR& str = *n_.str;
  maxiter_ = str.maxi;
  maxfunc_ = str.maxf;
  start_.assign(str.x, str.x + n_.nparm);
  int code = run_technique();
  if (n_.nparm == 0 || n_.noopt || n_.host->interrupted() || str.stop != 0) return code;
  if (!met_criterion(code) && !stuck(code) && !default_limit(n_, code)) return code;

  x_.assign(str.x, str.x + n_.nparm);
  f_ = str.crit;
  g_.assign(str.grad, str.grad + n_.nparm);
  const bool evaluated =
      std::isfinite(f_) && std::all_of(g_.begin(), g_.end(), [](double v) { return std::isfinite(v); });
  if (!evaluated) {
    move_to(x_);
    if (!std::isfinite(f_) || n_.failed) return code;
  }
  if (back_to_edge()) move_to(x_);
  const bool clear = evaluated && (judgement_.measured || quickly_confirmed());
  if (clear && (given_by_user(n_, code) || (sharp() && !try_without_effects()))) return finish(code);
  const double f_technique = f_, iterations = str.nitr;
  extend_default_limits(n_);
  if (default_limit(n_, code)) take_turns();
  settle(code);
  for (int trial = 0; trial < most_trials && !given_by_user(n_, code) && try_without_effects(); ++trial) settle(code);
  fall_on(code);
  for (const bool spread : {false, true})
    if (doubtful(code)) begin_again(code, spread);
  code = finish(code);
  str.maxi = maxiter_;
  str.maxf = maxfunc_;
  if (str.nitr > iterations && 2.0 * (f_technique - f_) >= gain_allowed)
    n_.host->log().xpmlog(message::confirmation_lowered_objective{
        .iterations = static_cast<long>(str.nitr - iterations), .from = 2.0 * f_technique, .to = 2.0 * f_});
  return code;
}

// More iterations than the default limits for a fit that is still falling.
void FitEnd::fall_on(int code)
{
  for (int more = 0; more < most_extensions && falling_ && out_of_iterations(n_); ++more) {
    extend_default_limits(n_);
    take_turns();
    settle(code);
  }
}

// The residual variance and the other parameters by turns, where a fit falls slowly and for long.
void FitEnd::take_turns()
{
  const double before = f_;
  double f = f_;
  if (std::vector<double> x(x_); by_turns(n_, x, f)) move_to(x);
  falling_ = 2.0 * (before - f_) >= much;
}

// Rounds of judging and going on, until a minimum is confirmed or nothing is gained.
void FitEnd::settle(int code)
{
  int sharpened = 0;
  double first = 0.0; // objective before that
  for (int round = 0;; ++round) {
    assess();
    if (given_by_user(n_, code) || judgement_.ran_to_limit()) return;
    const bool spent = stopped() || round == most_rounds;
    if (judgement_.minimum()) {
      if (sharpened == 0) first = f_;
      const bool coarse = sharpened == 0 && !sharp();
      if (!judgement_.doubtful_curvature && !coarse) return;
      const bool last = spent || sharpened == most_sharpened;
      judgement_.creeps = last && 2.0 * (first - f_) >= judgement_.allowed;
      if (last || !sharpen()) return;
      ++sharpened;
      continue; // in new scales, which follow a bent valley better
    }
    if (spent) return;
    if (!go_on() && round > 0) {
      assess();
      return;
    }
  }
}

bool FitEnd::stopped() const
{
  return limits_reached(*n_.str) || n_.str->stop != 0 || n_.host->interrupted();
}

bool FitEnd::doubtful(int code) const
{
  return (!judgement_.minimum() || !judgement_.null.empty()) && !given_by_user(n_, code) && n_.str->stop == 0 &&
         !n_.host->interrupted() && !judgement_.ran_to_limit();
}

// True when a variance that the data hardly tell from 0 has a better minimum there: the fit is at it then.
bool FitEnd::try_without_effects()
{
  if (!judgement_.minimum() || stopped()) return false;
  const host::StageScope stage(n_.host->stages(), host::Stage::covariance);
  const auto better = vanished_variance(n_, *coordinates_, judgement_, x_, f_);
  if (!better) return false;
  n_.host->log().xpmlog(
      message::lower_without_effect{.name = n_.parmstr[static_cast<std::size_t>(better->variance)].parmname,
                                    .from = 2.0 * f_,
                                    .to = 2.0 * better->f});
  move_to(better->x);
  return true;
}

// Once more from the starting values, or where the likelihood knows the parameters from which it did not.
void FitEnd::begin_again(int code, bool spread)
{
  std::vector<double> start(start_), x;
  if (spread && !spread_start(n_, lost_parameters(n_, *coordinates_, judgement_, x_, f_), start_, start)) return;
  extend_default_limits(n_);
  double f = 0.0;
  if (stopped() || !fresh_start(n_, start, scales_, x, f) || 2.0 * (f_ - f) < gain_allowed) return;
  coordinates_.reset();
  falling_ = 2.0 * (f_ - f) >= much;
  move_to(x);
  settle(code);
  fall_on(code);
}

} // namespace torvale::solve
