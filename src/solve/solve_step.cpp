#include "solve/solve_step.h"
#include "solve/course/course.h"

#include "evaluation/likelihood_programs.h"
#include "host/messages/names/fit.h"
#include "host/messages/names/labels.h"
#include "host/messages/names/optimization.h"
#include "host/messages/names/starting_values.h"
#include "host/messages/names/statements.h"
#include "integration/failure_report.h"
#include "integration/objective.h"
#include "matrix/packed_kernels.h"
#include "model/bound_unit.h"
#include "optimizer/optimizer.h"
#include "solve/fit_hessian.h"
#include "solve/judgement/fit_verdict.h"
#include "solve/singular_effects.h"
#include "solve/start/point_selection.h"
#include "solve/start/start_metric.h"
#include "solve/start/starting_grid.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>

namespace torvale::solve {

using model::NX;
using optimizer::COVSTR;
using optimizer::MINSTR;

namespace {

constexpr double largest = std::numeric_limits<double>::max();

void start_problem(NX& n)
{
  MINSTR& str = *n.str;
  forget_fit(n);
  n.covstr->nobs = static_cast<double>(n.store->nobsu);
  n.dograd = str.fidi == 0;
  str.covstr = n.covstr.get();
  n.covstr->ushes = n.fdh == 0 && str.fidi == 0 && str.cfdh == 0 ? fit_hessian : nullptr;
  std::copy(n.parm.begin(), n.parm.end(), str.x);
  str.continues = 0;
  str.metric_follows = metric_follows(n) ? 1 : 0;
  str.tbig = 0;
  str.stop = 0;
  std::fill(std::begin(str.toln) + 11, std::end(str.toln), 0L);
}

// More zero pivots than active constraints explain, or negative ones: the user must know.
void CheckEigVals(NX& n)
{
  const MINSTR& str = *n.str;
  const COVSTR& cov = *n.covstr;
  const double zeros = cov.projected.present ? cov.projected.det[4] : cov.hessian.det[4];
  const double fixed = static_cast<double>(str.nalc + str.nabc);
  const auto& record = cov.projected.present ? cov.projected : cov.hessian;
  if (!record.present) return;
  if (zeros > (cov.projected.present ? 0.0 : fixed))
    n.host->log().xpmlog(message::more_zero_eigenvalues{.count = zeros});
  if (record.det[3] > 0)
    n.host->log().xpmlog(message::negative_eigenvalues{
        .matrix =
            host::xpmstr(cov.projected.present ? label::final_projected_hessian_matrix : label::final_hessian_matrix),
        .count = record.det[3]});
}

// Whether the objective at x is what it is at the estimates.
bool as_good(NX& n, const std::vector<double>& x)
{
  const double before = n.objfun;
  const bool failed = n.failed;
  n.parm = x;
  n.parmlast.clear();
  n.dograd = false;
  const bool good = integration::tvllike(n) == 0 && !n.failed && std::isfinite(n.objfun) &&
                    2.0 * std::abs(n.objfun - n.fval) <= 0.01 * gain_allowed;
  n.parmlast.clear();
  n.failed = failed;
  n.objfun = before;
  return good;
}

// An estimate at an active bound, within its tolerance, is put on it, where that costs nothing. The tolerance grows
// with ipre, which the library raises while it makes a start feasible; more than a factor 100 would move estimates
// visibly.
void snap_to_bounds(NX& n)
{
  MINSTR& str = *n.str;
  if (str.bounds == 0) return;
  const double eps = str.ceps * std::pow(10.0, std::min(str.ipre, 2));
  const std::vector<double> free(str.x, str.x + n.nparm);
  std::vector<double> x(free);
  for (int i = 0; i < n.nparm; ++i) {
    double& at = x[static_cast<std::size_t>(i)];
    const double unit = model::bound_unit(n.parmstr[static_cast<std::size_t>(i)]);
    if (str.lb[i] > -largest && str.iabc[i] == 1 && std::abs(at - str.lb[i]) < (std::abs(str.lb[i]) + unit) * eps)
      at = str.lb[i];
    if (str.ub[i] < largest && str.iabc[i] == -1 && std::abs(str.ub[i] - at) < (std::abs(str.ub[i]) + unit) * eps)
      at = str.ub[i];
  }
  if (x != free && as_good(n, x)) std::copy(x.begin(), x.end(), str.x);
}

// Without analytic derivatives the gradient that is reported comes by central differences, whatever the technique went
// by.
void difference_gradient_at_end(MINSTR& str)
{
  const double crit = str.crit;
  if (str.usgrd != nullptr)
    str.usgrd(&str);
  else if (optimizer::znlpfg2(&str) != 0)
    std::fill_n(str.grad, str.nvar, host::missing);
  str.crit = crit;
}

void read_matrices(NX& n)
{
  const COVSTR& cov = *n.covstr;
  if (cov.hessian.present) n.hessmat = cov.hessian.elements;
  if (cov.covariance.present) n.covmat = cov.covariance.elements;
  const auto& record = cov.covariance.present ? cov.covariance : cov.hessian;
  std::copy(std::begin(record.det), std::end(record.det), std::begin(n.det));
}

// The sandwich C M C, with M the sum of outer products of the subjects' gradients at the estimates.
void robust_covariance(NX& n)
{
  const int np = n.nparm;
  n.converged = true;
  n.dograd = evaluation::can_evaluate(n).gradient;
  n.parmlast.clear();
  n.havemeat = false;
  if (n.dograd) integration::tvllike(n);
  if (n.covmat.empty() || integration::form_meat(n) != 0) {
    n.host->log().xpmlog(message::no_robust_covariance);
    n.raise(4);
    return;
  }
  std::vector<double> work(static_cast<std::size_t>(np) * static_cast<std::size_t>(np));
  matrix::zmxsss(n.covmat.data(), n.meat.data(), np, work.data());
  n.covmat = n.meat;
  for (int i = 0; i < np; ++i) {
    const double d = n.covmat[static_cast<std::size_t>(i) * static_cast<std::size_t>(i + 3) / 2];
    n.str->ster[i] = d > 0.0 ? std::sqrt(d) : host::missing;
  }
}

void degrees_of_freedom(NX& n)
{
  if (n.dfespec)
    n.dfe = n.dfe_option;
  else
    n.dfe = n.nreff() > 0 ? n.outer().nrepsub - n.outer().nr : static_cast<double>(n.store->nobsu);
}

// A variance that ended at the slack of its strict bound is worth a word.
void warn_at_slack(NX& n)
{
  for (int i = 0; i < n.nparm && !n.covmat.empty(); ++i) {
    const auto& p = n.parmstr[static_cast<std::size_t>(i)];
    if (p.applyl && p.lowbound > 0 && p.lowbound <= 2 * n.str->ceps && n.str->x[i] <= p.lowbound * (1 + 1e-6))
      n.host->log().xpmlog(message::estimate_at_bound{.name = p.parmname, .bound = p.lowbound});
  }
}

// The run's code for a failed optimization: limits leave a warning.
int failure_code(const MINSTR& str, int code)
{
  if (code == -5) return static_cast<double>(str.mini) <= str.nitr ? 1012 : 0;
  return code == -7 || code == -8 ? 4 : 1012;
}

// A variance that came out as 0, or so near that its own error tells no difference.
bool vanished(const NX& n, double variance, int parameter)
{
  constexpr double share = 1e-6; // of the standard error
  if (variance <= n.variance_floor) return true;
  const double error = parameter >= 0 ? n.str->ster[parameter] : host::missing;
  return std::isnan(error) ? variance <= n.singvar : variance <= share * error;
}

// A variance of random effects that came out as 0, or below, says that the effect is absent: its direction is dropped
// from the integral, and its standard error means nothing.
void warn_vanished_variance(NX& n, const model::REFFECT& reff)
{
  if (reff.distrtype != 0) return;
  engine::Frame frame(*n.gcmp, n.bound);
  frame.set_parameters(n.str->x);
  const std::vector<double> zero(static_cast<std::size_t>(n.programs.ne), 0.0);
  frame.set_points(zero.data(), 1, 1);
  for (const auto& subject : reff.SubInfo) {
    if (subject.badsub) continue;
    frame.set_range(subject.fvalidobs, 1);
    const auto row = static_cast<std::int32_t>(subject.fvalidobs);
    const std::int32_t lane = 0;
    if (engine::sequential(*reff.setup_value.code)) frame.reset_state(*reff.setup_value.code, 1);
    if (frame.run(*reff.setup_value.code, {1, &row, &lane, &lane}) > 2) return;
    for (int i = 0; i < reff.nr; ++i) {
      const double variance = frame.output(reff.nr + i * (i + 3) / 2)[0];
      const int parameter = variance_parameter(n, reff, i);
      if (!vanished(n, variance, parameter)) continue;
      if (parameter >= 0) n.verdict.vanished.push_back(parameter);
      n.host->log().xpmlog(
          message::variance_vanished{.name = reff.names[static_cast<std::size_t>(i)], .value = variance});
      n.raise(4);
    }
    std::vector<double> g;
    for (int k = 0; k < reff.nr * (reff.nr + 1) / 2; ++k) g.push_back(frame.output(reff.nr + k)[0]);
    warn_singular_effects(n, reff, g);
    return; // the variances of the first subject speak for all unless they depend on data
  }
}

// The fit goes on from its estimates, with the points that are in place now.
std::unique_ptr<FitEnd> refit_with_points(NX& n)
{
  MINSTR& str = *n.str;
  auto end = std::make_unique<FitEnd>(n);
  n.optimizer_messages.clear();
  n.dependencies.clear();
  const bool cut_short = n.verdict.cut_short_by_qmax;
  n.verdict = model::Verdict();
  n.verdict.cut_short_by_qmax = cut_short;
  n.dograd = str.fidi == 0;
  n.parmlast.clear();
  // The Hessian with fewer points is a good metric to begin with.
  if (const auto& hessian = n.covstr->hessian; hessian.present) {
    n.metric = hessian.elements;
    n.metric_point.assign(str.x, str.x + n.nparm);
  }
  str.continues = 1;
  n.znlprc = optimizer::znlpdrv(&str, 1, 0, 0, 0);
  if (n.znlprc == 0) n.znlprc = end->run();
  return end;
}

// How well the integrals are known at the estimates, and whether the minimum is one of theirs or of the rule's.
void question_points(NX& n, FitEnd& end)
{
  const host::StageScope stage(n.host->stages(), host::Stage::covariance);
  n.parm.assign(n.str->x, n.str->x + n.nparm);
  check_points(n, end.points_asked());
  n.znlprc = end.question_integrals(n.znlprc);
}

} // namespace

void forget_fit(NX& n)
{
  MINSTR& str = *n.str;
  n.converged = false;
  n.havemeat = false;
  n.znlprc = 0;
  n.failed_parm.clear();
  n.optimizer_messages.clear();
  n.dependencies.clear();
  n.meat.clear();
  n.covmat.clear();
  n.hessmat.clear();
  n.metric.clear();
  n.parmlast.clear();
  n.verdict = model::Verdict();
  n.covstr->hessian.present = n.covstr->projected.present = n.covstr->covariance.present = false;
  str.nitr = 0;
  str.nfct = str.ngrd = str.nhes = str.nhup = str.nlis = str.ires = str.itre = 0;
}

int tvlsolv(NX& n)
{
  MINSTR& str = *n.str;
  start_problem(n);
  const std::vector<double> start(n.parm);
  const int points = n.nqp;
  auto end = std::make_unique<FitEnd>(n);
  n.znlprc = optimizer::znlpdrv(&str, 1, 0, 0, 0);
  if (n.loglevel > 0) n.host->log().xpmlog(message::optimization_begins);
  if (n.znlprc == 0) n.znlprc = end->run();
  // (Where the confirmation has moved the fit: the technique's end has asked this already.)
  for (int refit = 0; refit < most_refits && n.znlprc > 0 && str.nvar > 0 && more_points(n, end->points_asked());
       ++refit)
    end = refit_with_points(n);
  if (n.znlprc > 0 && !n.noopt) question_points(n, *end);
  if (n.nqp != points) write_dimensions(n);
  if (n.znlprc > 0 && !n.noopt && str.nvar > 0 && str.nitr < static_cast<double>(str.mini))
    n.host->log().xpmlog(
        message::miniter_not_reached{.iterations = static_cast<long>(str.nitr), .least = static_cast<long>(str.mini)});
  // What the optimizer says of a run that a user stopped is beside the point; the driver says that it was stopped.
  if (n.znlprc < 0 && n.host->interrupted()) n.optimizer_messages.clear();
  for (auto& message : n.optimizer_messages) n.host->log().post(std::move(message));
  n.optimizer_messages.clear();
  if (n.ithis != nullptr || n.znlprc != 0) tvliter(n, 1000 + n.znlprc);
  if (n.noopt && n.znlprc >= 0) {
    n.znlprc = 1;
    str.pcrit = n.objfun;
  }
  n.fval = str.imax != 0 ? -str.crit : str.crit;
  if (n.znlprc < 0) n.raise(failure_code(str, n.znlprc));

  // From here on everything reported belongs to the point that the optimizer returned.
  n.host->stages().enter(host::Stage::covariance);
  const bool judged = n.verdict.outcome != model::FitOutcome::not_judged;
  if (n.znlprc > 0 && !judged) CheckEigVals(n);
  snap_to_bounds(n);
  n.parm.assign(str.x, str.x + n.nparm);
  if (str.fidi != 0 && n.znlprc > 0) difference_gradient_at_end(str);
  n.finalgrad.assign(str.grad, str.grad + n.nparm);
  read_matrices(n);
  n.verdict.left_start = n.parm != start;
  take_judgement(n, *end);
  write_dependencies(n);
  if (n.empirical && n.znlprc > 0) robust_covariance(n);
  n.converged = n.znlprc > 0 && !n.noopt;
  degrees_of_freedom(n);
  if (n.znlprc > 0) {
    warn_at_slack(n);
    for (const auto& reff : n.reff) warn_vanished_variance(n, reff);
  }
  missing_errors(n);
  if (judged) report_verdict(n);
  n.parm.assign(str.x, str.x + n.nparm);
  const bool at_a_limit = n.znlprc == optimizer::code_limit || n.znlprc == optimizer::code_time;
  // (Where an optimum runs away evaluations fail in the end: that is no news.)
  const bool explained = !n.verdict.separated.empty() || n.verdict.unsettled;
  if (n.znlprc < 0 && !at_a_limit && !explained && !n.failed_parm.empty() && !n.host->interrupted())
    integration::explain_failure(n, std::vector<double>(n.failed_parm));
  return n.znlprc;
}

} // namespace torvale::solve
