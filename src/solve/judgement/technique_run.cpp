#include "solve/judgement/fit_end.h"

#include "integration/kept_evaluation.h"
#include "integration/objective.h"
#include "optimizer/optimizer.h"
#include "solve/course/course.h"
#include "solve/judgement/fit_codes.h"
#include "solve/start/parameter_unit.h"
#include "solve/start/point_selection.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace torvale::solve {

using optimizer::MINSTR;

namespace {

constexpr int most_restarts = 4;  // of the technique
constexpr double creeping = 0.05; // gain of an iteration, in the objective

// Whether the last iteration had an evaluation that failed because G is not positive semidefinite there: no factor has
// such elements.
bool cut_by_edge(const model::NX& n)
{
  if (n.failed_parm.size() != n.parm.size() || n.failed_iteration != n.str->nitr) return false;
  const FitCoordinates c(n, n.failed_parm.data());
  if (c.edge_diagonals().empty()) return false;
  const std::vector<double> origin(n.parm.size(), 0.0);
  std::vector<double> x(n.parm.size());
  c.parameters(origin.data(), x.data());
  constexpr double rounding = 1e-9;
  for (std::size_t i = 0; i < x.size(); ++i)
    if (std::abs(x[i] - n.failed_parm[i]) > rounding * std::abs(n.failed_parm[i])) return true;
  return false;
}

// The parameters have an edge where G stops to be semidefinite, and steps that end there become shorter and shorter. In
// factors of G there is none: from a step on that is cut there and brings little the fit goes on in these.
int nlpterm_at_edge(MINSTR* str, int job)
{
  auto& n = *static_cast<model::NX*>(str->comstr);
  const double before = n.cold;
  const int code = nlpterm(str, job);
  const bool ended = code == 0 && job > 0 && job % 2 == 1;
  return ended && before - str->crit < creeping && cut_by_edge(n) ? optimizer::code_no_progress : code;
}

} // namespace

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
  for (std::size_t i = 0; i < scales_.size(); ++i) scales_[i] = short_unit_of(products, i, str.x[i]);
  str.scale = scales_.data();
}

// GCONV is relative to the objective, what shows in the printed digits of estimates and standard errors is not: unless
// the user has said where to stop, the run goes on for that too.
void FitEnd::ask_for_sharp_end()
{
  MINSTR& str = *n_.str;
  const double size = std::max(std::abs(str.crit), str.fsiz);
  if (!given_by_user(n_, optimizer::code_gconv)) str.gtol = std::min(str.gtol, std::max(sharp_gain / size, 1e-13));
}

// The number of points is settled where the technique ends, before anything is made with them that others would have to
// be made for again.
bool FitEnd::takes_more_points(int code)
{
  if (!met_criterion(code) || n_.nparm == 0 || !chooses_points(n_)) return false;
  const host::StageScope stage(n_.host->stages(), host::Stage::covariance);
  integration::KeptEvaluation kept(n_);
  const bool more = more_points(n_, points_asked_);
  if (more) kept.forget();
  return more;
}

void FitEnd::form_covariance()
{
  const host::StageScope stage(n_.host->stages(), host::Stage::covariance);
  n_.dograd = n_.str->fidi == 0;
  optimizer::znlpdrv(n_.str.get(), 3, 0, 0, 0);
}

// The technique to its own end, and on from there with more points, or where the Hessian at the end promises more than
// it asked for.
int FitEnd::run_technique()
{
  MINSTR& str = *n_.str;
  set_scales();
  int code = 0;
  const int load = str.load;
  const double gconv = str.gtol, absgconv = str.agtl;
  const auto termination = std::exchange(str.uster, nlpterm_at_edge);
  // At once where steps are short of a Newton step by little: another one costs less than another Hessian.
  if (str.tech != static_cast<int>(optimizer::CONGRA) && approximates_hessian(str.tech)) ask_for_sharp_end();
  str.covariance_waits = 1;
  for (int restart = 0, raised = 0;;) {
    n_.optimizer_messages.clear();
    n_.dependencies.clear();
    const double start = str.crit;
    {
      const host::StageScope stage(n_.host->stages(), host::Stage::optimizer); // it ends with the covariance
      code = optimizer::znlpdrv(&str, 2, 0, 0, 0);
    }
    judgement_ = Judgement();
    if (raised < most_refits && !n_.host->interrupted() && takes_more_points(code)) {
      ++raised;
    } else {
      form_covariance();
      if (restart++ == most_restarts || n_.nparm == 0 || n_.host->interrupted() || !technique_goes_on(code, start))
        break;
    }
    str.continues = 1;
    str.load = 1;
    n_.dograd = str.fidi == 0;
    integration::nlpfunc(&str);
  }
  str.covariance_waits = 0;
  str.load = load;
  str.uster = termination;
  str.gtol = gconv;
  str.agtl = absgconv;
  return code;
}

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
  ask_for_sharp_end();
  const double allowed = 0.5 * std::max(std::abs(str.crit), str.fsiz) * str.gtol;
  if (!(promised > allowed && start - str.crit > 0.1 * promised)) return false;
  if (!given_by_user(n_, optimizer::code_absgconv)) str.agtl = 0.0; // of gradients that the run has passed
  n_.metric = n_.covstr->hessian.elements;
  n_.metric_point.assign(str.x, str.x + n_.nparm);
  return true;
}

} // namespace torvale::solve
