#include "solve/judgement/fit_end.h"

#include "host/messages/names/fit.h"
#include "optimizer/optimizer.h"
#include "solve/judgement/unseen_directions.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace torvale::solve {

using model::FitOutcome;

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
