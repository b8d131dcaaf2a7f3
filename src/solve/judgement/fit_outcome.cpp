#include "host/messages/names/fit.h"
#include "host/messages/names/optimizer.h"
#include "optimizer/messages/messages.h"
#include "optimizer/optimizer.h"
#include "solve/judgement/confirmation.h"
#include "solve/judgement/fit_codes.h"
#include "solve/judgement/unseen_directions.h"
#include "solve/start/point_selection.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace torvale::solve {

using model::FitOutcome;
using optimizer::MINSTR;

// A technique without bounds may end behind the edge of G, by rounding.
bool FitEnd::beyond_edge() const
{
  const auto variances = coordinates_->edge_diagonals();
  return std::any_of(variances.begin(), variances.end(), [&](int i) { return x_[static_cast<std::size_t>(i)] < 0.0; });
}

// From there the point that the objective has taken it for. True when it is another.
bool FitEnd::back_to_edge()
{
  const FitCoordinates c(n_, x_.data());
  const auto variances = c.edge_diagonals();
  const auto negative = [&](int i) { return x_[static_cast<std::size_t>(i)] < 0.0; };
  if (std::none_of(variances.begin(), variances.end(), negative)) return false;
  const std::vector<double> origin(x_.size(), 0.0);
  c.parameters(origin.data(), x_.data());
  return true;
}

// A direction in which G all but vanishes vanishes, where that costs nothing.
void FitEnd::to_the_edge()
{
  const std::vector<double> origin(x_.size(), 0.0);
  std::vector<double> t(origin);
  bool any = beyond_edge();
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
  verdict.accuracy = std::max(2e-14 * std::max(1.0, std::abs(2.0 * f_)), 2.0 * judgement_.curvature.noise);
  verdict.indefinite = judgement_.indefinite;
  verdict.separated = judgement_.separated;
  const bool minimum = judgement_.minimum();
  const host::StageScope stage(n_.host->stages(), host::Stage::covariance);
  if (minimum && (moved_ || beyond_edge())) to_the_edge();
  if (moved_) {
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
    code = code_of_failure(n_, maxiter_, maxfunc_);
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

// What no subject sees is not identified, whatever the points in use make of it. True when there is such a direction.
bool FitEnd::question_ridges()
{
  auto& verdict = n_.verdict;
  const int finer = finer_points(n_, n_.nqp);
  const bool exact = std::abs(verdict.quadrature_change) <= verdict.accuracy;
  if (exact || n_.str->fidi != 0 || !judgement_.null.empty() || !affordable_points(n_, n_.nqp, finer)) return false;
  judgement_.unseen = unseen_directions(n_, {n_.str->x, n_.str->x + n_.nparm}, finer);
  if (judgement_.unseen.empty()) return false;
  accurate_ = true;
  verdict.outcome = FitOutcome::confirmed_singular;
  return true;
}

// A sum over points has minima of its own where integrands are steeper than the points are dense. A change of the
// objective by more points that is more than a fiftieth of what a standard error's step raised it by can make such a
// minimum: the steps are tried once more, with more points.
int FitEnd::question_integrals(int code)
{
  auto& verdict = n_.verdict;
  const bool minimum = verdict.outcome == FitOutcome::confirmed || verdict.outcome == FitOutcome::confirmed_singular;
  if (!minimum || !judgement_.measured || coordinates_ == nullptr || std::isnan(verdict.quadrature_change)) return code;
  const bool with_gradient = n_.dograd;
  const double at_estimates = n_.objfun;
  const bool ridge = question_ridges();
  n_.parm.assign(n_.str->x, n_.str->x + n_.nparm);
  n_.dograd = with_gradient;
  n_.objfun = at_estimates;
  if (ridge) return code; // along which no step has to rise
  // Points that the user chose stay in any case, and are asked only where the integrals of the subjects are far from
  // settled. One point is the integrand's own mode, and no grid.
  constexpr double far = 1e-3; // in -2 log L, a subject
  const double change = std::abs(verdict.quadrature_change);
  const bool own_choice = n_.nqpspec && (n_.nqp == 1 || change < far * n_.outer().nrepsub);
  const bool harmless = own_choice || change <= 0.02 * least_rise(judgement_);
  if (harmless && !verdict.cut_short_by_qmax) return code;
  const int in_use = n_.nqp, finer = finer_points(n_, in_use);
  auto rises = judgement_.rises;
  FitSurface surface(n_, *coordinates_);
  std::optional<double> at_origin = n_.str->crit + 0.5 * verdict.quadrature_change;
  // Where QMAX= came before the sums had settled they are refined twice.
  for (int points = finer, left = verdict.cut_short_by_qmax ? 2 : 1; left > 0 && !verdict.unsettled; --left) {
    if (!affordable_points(n_, in_use, points)) break;
    take_points(n_, points);
    verdict.unsettled = !rises_stand(surface, rises, std::exchange(at_origin, std::nullopt));
    points = finer_points(n_, points);
  }
  take_points(n_, in_use);
  n_.parm.assign(n_.str->x, n_.str->x + n_.nparm);
  n_.dograd = with_gradient;
  n_.objfun = at_estimates;
  if (!verdict.unsettled) return code;
  n_.host->log().xpmlog(message::minimum_of_the_points{.points = finer, .before = in_use});
  n_.raise(4);
  if (n_.nqpspec) return code; // the sum over these points is what was asked for
  verdict.outcome = FitOutcome::not_minimum;
  n_.optimizer_messages.clear();
  return n_.str->rcod = optimizer::code_no_progress;
}

} // namespace torvale::solve
