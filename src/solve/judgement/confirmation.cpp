#include "solve/judgement/confirmation.h"

#include "host/messages/names/fit.h"
#include "host/messages/names/optimizer.h"
#include "integration/objective.h"
#include "optimizer/messages/messages.h"
#include "optimizer/optimizer.h"
#include "solve/judgement/continuation.h"
#include "solve/judgement/fit_codes.h"
#include "solve/judgement/fresh_start.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace torvale::solve {

using model::FitOutcome;
using model::NX;
using optimizer::MINSTR;

namespace {

constexpr double most_lengths = 100.0; // of a parameter in its unit
constexpr int most_restarts = 4;       // of the technique
constexpr int most_rounds = 12;        // of the trust region
constexpr int most_sharpened = 6;      // times that a minimum in doubt is looked for anew
constexpr int most_extensions = 3;     // of default limits, while a round gains `much` in -2 log L
constexpr double much = 1.0;

} // namespace

// A run that carries an approximation of the Hessian stops early where the true one promises more than GCONV
// allows: it goes on with the true one as its metric, as long as that pays.
bool FitEnd::technique_goes_on(int code, double start)
{
  MINSTR& str = *n_.str;
  const bool unsure = code == optimizer::code_gconv || code == optimizer::code_no_progress ||
                      code == optimizer::code_absgconv || code == optimizer::code_fconv;
  if (!unsure || !approximates_hessian(str.tech) || given_by_user(n_, code) || limits_reached(str)) return false;
  if (!quickly_confirmed()) return false;
  const double promised = 0.5 * judgement_.gain; // in the objective
  const double allowed = 0.5 * std::max(std::abs(str.crit), str.fsiz) * str.gtol;
  if (!(promised > allowed && start - str.crit > 0.1 * promised)) return false;
  n_.metric = n_.covstr->hessian.elements;
  n_.metric_point.assign(str.x, str.x + n_.nparm);
  return true;
}

// The Hessian that the covariance needs anyway, where it leaves no doubt: definite by far, G away from its edge.
bool FitEnd::quickly_confirmed()
{
  const host::StageScope stage(n_.host->stages(), host::Stage::covariance);
  const MINSTR& str = *n_.str;
  const auto& hessian = n_.covstr->hessian;
  if (!hessian.present || str.hfrm == 2) return false;
  auto c = std::make_unique<FitCoordinates>(n_, str.x, false);
  const FitCoordinates factors(n_, str.x);
  if (factors.near_edge(1e-6)) return false;
  Curvature curvature;
  curvature.accuracy = 1e-6;
  curvature.free = free_coordinates(*c, str.grad);
  const auto h = [&](int i, int j) {
    return hessian
        .elements[static_cast<std::size_t>(i) * static_cast<std::size_t>(i + 1) / 2 + static_cast<std::size_t>(j)];
  };
  // Whether a variance is held by its bound, or merely stands there, shows in the coordinates of the factor.
  for (const int i : factors.edge_diagonals())
    if (std::find(curvature.free.begin(), curvature.free.end(), i) == curvature.free.end() && !factors.fixed(i))
      return false;
  std::vector<double> g(str.grad, str.grad + n_.nparm);
  for (const int i : curvature.free) {
    if (!(h(i, i) > 0)) return false;
    c->set_scale(i, 1.0 / std::sqrt(h(i, i)));
    g[static_cast<std::size_t>(i)] *= c->scale(i);
    const bool variance = factors.in_factor(i) && factors.variance(i);
    if (variance && str.x[i] < 0.2 * c->scale(i)) return false;
  }
  const int m = curvature.size();
  curvature.hessian.resize(static_cast<std::size_t>(m * m));
  for (int r = 0; r < m; ++r)
    for (int k = 0; k < m; ++k) {
      const int i = curvature.free[static_cast<std::size_t>(r)], j = curvature.free[static_cast<std::size_t>(k)];
      curvature.hessian[static_cast<std::size_t>(r * m + k)] =
          h(std::max(i, j), std::min(i, j)) * c->scale(i) * c->scale(j);
    }
  curvature.unturned();
  FitSurface surface(n_, *c);
  Judgement found = judge_given(surface, std::move(curvature), str.crit, g.data());
  if (!found.minimum() || !found.null.empty() || (m > 0 && found.eigenvalues.back() < 1e-2)) return false;
  judgement_ = std::move(found);
  coordinates_ = std::move(c);
  return true;
}

void FitEnd::assess()
{
  const host::StageScope stage(n_.host->stages(), host::Stage::covariance);
  accurate_ = true;
  const auto before = std::move(coordinates_);
  coordinates_ = std::make_unique<FitCoordinates>(n_, x_.data());
  if (before != nullptr)
    for (int i = 0; i < n_.nparm; ++i)
      if (before->same_kind(*coordinates_, i)) coordinates_->set_scale(i, before->scale(i));
  FitSurface surface(n_, *coordinates_);
  std::vector<double> g(x_.size());
  const std::vector<double> origin(x_.size(), 0.0);
  coordinates_->gradient(origin.data(), g_.data(), g.data());
  judgement_ = judge(surface, f_, g.data());
  judgement_.bend.resize(x_.size() * x_.size());
  if (!coordinates_->bend(g_.data(), judgement_.bend.data())) judgement_.bend.clear();
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

// One more round of the trust region. False when it did not lower -2 log L by what counts.
bool FitEnd::go_on()
{
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

FitEnd::~FitEnd()
{
  if (n_.str->scale == scales_.data()) n_.str->scale = nullptr;
}

// What a parameter changes of the likelihood of a subject (an observation without random effects) is its unit.
void FitEnd::set_scales()
{
  MINSTR& str = *n_.str;
  std::vector<double> products;
  str.scale = nullptr;
  if (str.fidi != 0 || integration::outer_products(n_, products) != 0) return;
  scales_.assign(static_cast<std::size_t>(n_.nparm), 1.0);
  for (std::size_t i = 0; i < scales_.size(); ++i) {
    const double d = products[i * (i + 3) / 2];
    if (d > 0.0 && std::isfinite(d)) scales_[i] = 1.0 / std::sqrt(d);
    // Far from its optimum a parameter may seem to matter to nothing: no unit is much longer than the parameter itself.
    if (str.x[i] != 0.0) scales_[i] = std::min(scales_[i], most_lengths * std::abs(str.x[i]));
  }
  str.scale = scales_.data();
}

int FitEnd::run()
{
  MINSTR& str = *n_.str;
  start_.assign(str.x, str.x + n_.nparm);
  set_scales();
  int code = 0;
  const int load = str.load;
  for (int restart = 0;; ++restart) {
    n_.optimizer_messages.clear();
    n_.dependencies.clear();
    const double start = str.crit;
    {
      const host::StageScope stage(n_.host->stages(), host::Stage::optimizer); // it ends with the covariance
      code = optimizer::znlpdrv(&str, 2, 0, 0, 0);
    }
    judgement_ = Judgement();
    if (restart == most_restarts || n_.nparm == 0 || n_.host->interrupted() || !technique_goes_on(code, start)) break;
    str.continues = 1;
    str.load = 1;
  }
  str.load = load;
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
  if (evaluated && (judgement_.measured || quickly_confirmed())) return finish(code);
  const double f_technique = f_, iterations = str.nitr;
  const double maxi = str.maxi, maxf = str.maxf;
  extend_default_limits(n_);
  settle(code);
  for (int more = 0; more < most_extensions && falling_ && out_of_iterations(n_); ++more) {
    extend_default_limits(n_);
    settle(code);
  }
  if (doubtful(code)) {
    extend_default_limits(n_);
    if (!stopped() && start_again()) settle(code);
  }
  code = finish(code);
  str.maxi = maxi;
  str.maxf = maxf;
  if (str.nitr > iterations && 2.0 * (f_technique - f_) >= gain_allowed)
    n_.host->log().xpmlog(message::confirmation_lowered_objective{
        .iterations = static_cast<long>(str.nitr - iterations), .from = 2.0 * f_technique, .to = 2.0 * f_});
  return code;
}

// Rounds of judging and going on, until a minimum is confirmed or nothing is gained.
void FitEnd::settle(int code)
{
  int sharpened = 0;
  double first = 0.0; // objective before that
  for (int round = 0;; ++round) {
    assess();
    if (given_by_user(n_, code)) return;
    const bool spent = stopped() || round == most_rounds;
    if (judgement_.minimum()) {
      if (sharpened == 0) first = f_;
      if (!judgement_.doubtful_curvature) return;
      const bool last = spent || sharpened == most_sharpened;
      judgement_.creeps = last && 2.0 * (first - f_) >= gain_allowed;
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
         !n_.host->interrupted();
}

// True when a run from the starting values leads to a better point.
bool FitEnd::start_again()
{
  double f = 0.0;
  std::vector<double> x;
  if (!fresh_start(n_, start_, scales_, x, f) || 2.0 * (f_ - f) < gain_allowed) return false;
  coordinates_.reset();
  move_to(x);
  return true;
}

// A direction in which G all but vanishes vanishes, where that costs nothing.
void FitEnd::to_the_edge()
{
  const std::vector<double> origin(x_.size(), 0.0);
  std::vector<double> t(origin);
  bool any = false;
  for (const int i : coordinates_->edge_diagonals()) {
    const double at_zero = -coordinates_->origin(i) / coordinates_->scale(i);
    if (at_zero == 0.0 || std::abs(at_zero) > 0.1 || at_zero < coordinates_->lower(i)) continue;
    t[static_cast<std::size_t>(i)] = at_zero;
    any = true;
  }
  if (!any) return;
  FitSurface surface(n_, *coordinates_);
  double f = 0.0;
  if (!surface.value(t.data(), f) || 2.0 * (f - f_) > 0.01 * gain_allowed) return;
  std::vector<double> x(x_.size());
  coordinates_->parameters(t.data(), x.data());
  const double before = f_;
  const auto old = x_;
  move_to(x);
  if (2.0 * (f_ - before) > 0.1 * gain_allowed) move_to(old);
}

int FitEnd::finish(int code)
{
  MINSTR& str = *n_.str;
  auto& verdict = n_.verdict;
  verdict.gain = judgement_.measured ? judgement_.gain : host::missing;
  verdict.accuracy = 2e-14 * std::max(1.0, std::abs(2.0 * f_));
  verdict.indefinite = judgement_.indefinite;
  verdict.separated = judgement_.separated;
  const bool minimum = judgement_.minimum();
  if (moved_) {
    const host::StageScope stage(n_.host->stages(), host::Stage::covariance);
    if (minimum) to_the_edge();
    // Stage 2 without a technique: the point evaluated once more, its Hessian, its active bounds.
    const int tech = std::exchange(str.tech, static_cast<int>(optimizer::NONE));
    std::copy(x_.begin(), x_.end(), str.x);
    n_.optimizer_messages.clear();
    n_.dependencies.clear();
    n_.dograd = str.fidi == 0;
    str.continues = 1;
    str.scale = nullptr; // the units of the start say nothing here
    if (optimizer::znlpdrv(&str, 1, 0, 0, 0) == 0) optimizer::znlpdrv(&str, 2, 0, 0, 0);
    str.tech = tech;
  }
  const bool by_user = given_by_user(n_, code);
  if (minimum)
    verdict.outcome = judgement_.null.empty() ? FitOutcome::confirmed : FitOutcome::confirmed_singular;
  else if (by_user)
    verdict.outcome = FitOutcome::user_criterion;
  else if (!judgement_.measured && met_criterion(code))
    verdict.outcome = FitOutcome::unconfirmed;
  else
    verdict.outcome = FitOutcome::not_minimum;
  if (verdict.outcome == FitOutcome::not_minimum)
    code = code_of_failure(n_);
  else if (moved_ || !met_criterion(code)) {
    code = optimizer::code_gconv;
    n_.optimizer_messages.clear();
    add_message(n_, status_message::criterion_met, optimizer::severity_note, {static_cast<double>(code)});
  }
  // The library's words on the size of a gradient and on singular matrices: the judge has better ones.
  std::erase_if(n_.optimizer_messages, [](const host::Message& m) {
    using namespace status_message;
    constexpr host::MessageCode left_out[] = {
        gradient_not_small,       one_singular_direction,  singular_hessian_dependencies,
        singular_hessian_inverse, two_singular_directions, singular_directions,
        negative_variances};
    return std::any_of(std::begin(left_out), std::end(left_out),
                       [&](host::MessageCode c) { return m.group == c.group && m.number == c.number; });
  });
  str.rcod = code;
  return code;
}

} // namespace torvale::solve
