#include "solve/judgement/fit_end.h"

#include "host/messages/names/optimizer.h"
#include "optimizer/messages/messages.h"
#include "optimizer/optimizer.h"
#include "solve/judgement/fit_codes.h"

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

void FitEnd::finish()
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
  const bool by_user = ended_by_user();
  if (minimum)
    verdict.outcome = judgement_.null.empty() ? FitOutcome::confirmed : FitOutcome::confirmed_singular;
  else if (by_user)
    verdict.outcome = FitOutcome::user_criterion;
  else if (!judgement_.measured && met_criterion(code_))
    verdict.outcome = FitOutcome::unconfirmed;
  else
    verdict.outcome = FitOutcome::not_minimum;
  if (verdict.outcome == FitOutcome::not_minimum)
    code_ = code_of_failure(n_, maxiter_, maxfunc_);
  else if (moved_ || !met_criterion(code_)) {
    code_ = optimizer::code_gconv;
    n_.optimizer_messages.clear();
    add_message(n_, status_message::criterion_met, optimizer::severity_note, {static_cast<double>(code_)});
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
  str.rcod = code_;
}

} // namespace torvale::solve
