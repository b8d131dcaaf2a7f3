#include "run/driver.h"

#include "data/data_pass.h"
#include "data/starting_values.h"
#include "host/messages/names/fit.h"
#include "inference/outputs/estimates_output.h"
#include "inference/outputs/fit_outputs.h"
#include "inference/outputs/method_outputs.h"
#include "inference/pictures/picture_data.h"
#include "inference/tables/tables.h"
#include "inference/tables/verdict.h"
#include "integration/objective.h"
#include "parallel/worker_pool.h"
#include "report/fit_pictures.h"
#include "run/exit_codes.h"
#include "run/statements/advice.h"
#include "run/statements/statement_processing.h"
#include "solve/solve_step.h"
#include "solve/start/starting_grid.h"

#include <algorithm>
#include <new>
#include <utility>

namespace torvale::run {

using model::NX;

namespace {

// The exit code of a fit that stands, by what its judge found.
int exit_of_outcome(const NX& n)
{
  using model::FitOutcome;
  if (n.covmat.empty()) return exit_no_covariance;
  switch (n.verdict.outcome) {
  case FitOutcome::confirmed_singular:
  case FitOutcome::unconfirmed:
    return exit_no_covariance;
  case FitOutcome::not_judged: {
    // With negative eigenvalues there is a matrix, but no covariance (message 272 has said so).
    const auto& hessian = n.covstr->projected.present ? n.covstr->projected : n.covstr->hessian;
    return hessian.det[3] > 0 ? exit_no_covariance : exit_clean;
  }
  default:
    return exit_clean;
  }
}

// The tables and expressions of a fit; its exit code.
int report_fit(NX& n)
{
  if (n.znlprc > 0 && n.nparm > 0 && n.covmat.empty()) {
    n.host->log().xpmlog(message::no_covariance);
    n.raise(4);
  }
  inference::warn_of_standard_errors(n);
  inference::write_verdict(n);
  inference::write_fit_tables(n);
  inference::write_estimates_output(n);
  if (n.znlprc <= 0) return exit_not_converged;
  int exit_code = n.nparm == 0 ? exit_clean : exit_of_outcome(n);
  inference::write_points(n);
  if (inference::write_importance_sampling(n) > 2 || inference::write_subject_gradients(n) != 0)
    exit_code = exit_program;
  if (!n.covmat.empty()) {
    if (!n.contrasts.empty() && inference::tvlcont(n) != 0) exit_code = exit_program;
    if (!n.estimates.empty() && inference::tvlesti(n) != 0) exit_code = exit_program;
  }
  if (inference::write_fit_outputs(n) != 0) exit_code = exit_program;
  return exit_code;
}

// The pictures of the group, for whoever writes a report.
void draw_pictures(NX& n, const sampling::SampleDraws& sample)
{
  host::GroupResult& group = n.host->group();
  inference::PictureData data;
  const bool evaluated = n.znlprc > 0 && inference::picture_data(n, data) == 0;
  group.pictures = report::fit_pictures(group, evaluated ? &data : nullptr, sample);
}

int run_group(NX& n)
{
  solve::forget_fit(n);
  host::StageClock& stages = n.host->stages();
  stages.enter(host::Stage::data_pass);
  n.host->progress({.stage = "reading data"});
  advise_on_response(n);
  if (data::load_group_values(n) != 0 || data::tvlenvt(n) != 0 || data::tvldata(n) != 0) return exit_data;
  integration::forget_modes(n);
  n.host->progress({.stage = "starting values"});
  stages.enter(host::Stage::starting_values);
  if (solve::tvlparm(n) != 0) {
    n.verdict.outcome = model::FitOutcome::not_evaluated;
    n.parmstart = n.parm;
    inference::write_verdict(n);
    return exit_no_start;
  }
  if (n.host->interrupted()) return exit_interrupted;
  n.parmstart = n.parm;
  stages.enter(host::Stage::optimizer);
  solve::tvlsolv(n);
  stages.enter(host::Stage::report);
  int exit_code = report_fit(n);
  sampling::SampleDraws sample;
  // Where the objective has a value, whether or not the fit converged.
  const bool sampled = n.sampling.mcmc != nullptr && n.fval < model::failure_objective && !n.host->interrupted();
  if (sampled && run_sampler(n, n.pictures ? &sample : nullptr) != 0)
    exit_code = worse_exit(exit_code, exit_not_converged);
  if (n.pictures && !n.host->interrupted()) draw_pictures(n, sample);
  return n.host->interrupted() ? exit_interrupted : exit_code;
}

StepOutcome run_groups(NX& n, host::ByGroups& groups)
{
  StepOutcome outcome;
  n.by_groups = &groups;
  const int step_code = n.tvlrc; // warnings of the statements belong to the step
  while (groups.xbynext() && !n.host->interrupted()) {
    n.group = static_cast<int>(groups.current_number());
    n.rows = groups.current();
    n.tvlrc = 0;
    n.host->begin_group(groups.values(groups.current_number()));
    int exit_code = exit_clean;
    try {
      exit_code = run_group(n);
    } catch (const host::HostExit& end) {
      n.raise(end.return_code);
      exit_code = exit_program;
    } catch (const std::bad_alloc&) {
      n.host->log().xpmlog(message::out_of_memory);
      n.raise(1016);
      exit_code = exit_internal;
    }
    if (n.ithis != nullptr) n.host->tables().close(*std::exchange(n.ithis, nullptr));
    n.host->end_group(n.tvlrc);
    outcome.return_code = std::max(outcome.return_code, n.tvlrc);
    outcome.exit_code = worse_exit(outcome.exit_code, exit_code);
  }
  outcome.return_code = std::max(outcome.return_code, step_code);
  n.tvlrc = outcome.return_code;
  return outcome;
}

} // namespace

StepOutcome hsttorvl(NX& n)
{
  StepOutcome outcome;
  try {
    tvlinit(n);
    advise_on_program(n);
    n.starting_tables = [](NX& run) {
      inference::starting_tables(run);
      return 0;
    };
    n.host->stages().enter(host::Stage::data_pass);
    // Data that are not in the order of their BY variables have no groups: nothing is fitted, nothing shown.
    host::ByGroups groups;
    if (groups.build(*n.fid, n.bylist, n.notsorted, n.host->log()) != 0) {
      outcome = {1012, exit_data};
    } else {
      parallel::tvltinit(n);
      tvlspec(n);
      outcome = run_groups(n, groups);
    }
  } catch (const host::HostExit& end) {
    outcome.return_code = std::max(n.tvlrc, end.return_code);
    outcome.exit_code = end.return_code == 1008 ? exit_data : end.return_code == 1016 ? exit_internal : exit_program;
  } catch (const std::bad_alloc&) {
    n.host->log().xpmlog(message::out_of_memory);
    outcome = {1016, exit_internal};
  }
  parallel::KillThreads(n);
  return outcome;
}

} // namespace torvale::run
