#include "solve/confirmation.h"

#include "host/message_names.h"
#include "integration/objective.h"
#include "matrix/cholesky.h"
#include "optimizer/optimizer.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

using model::NX;
using optimizer::MINSTR;

namespace {

constexpr int most_restarts = 4;

// Techniques that carry an approximation of the Hessian; the others use the true one, or none at all.
bool approximates_hessian(int tech)
{
  return tech == optimizer::QUANEW || tech == optimizer::DUQUAN || tech == optimizer::DBLDOG ||
         tech == optimizer::CONGRA;
}

// Negative eigenvalues on the parameters that are free: the point is no minimum, whatever the gradient says.
bool indefinite(const NX& n)
{
  const auto& cov = *n.covstr;
  const auto& record = cov.projected.present ? cov.projected : cov.hessian;
  return record.present && record.det[3] > 0;
}

// The termination test of the trust-region run: accepted modes are committed, no history is written.
int trust_region_test(MINSTR* str, int job)
{
  NX& n = *static_cast<NX*>(str->comstr);
  if (job > 0) {
    n.parm.assign(str->x, str->x + n.nparm);
    integration::accept_modes(n);
  }
  if (n.host->interrupted()) str->stop = 1;
  return optimizer::znlptrm(str, job);
}

// A run has ended and another goes on from there: the limits hold for the whole fit.
void close_run(MINSTR& fit, const MINSTR& run)
{
  fit.past_iterations += run.nitr;
  fit.past_calls += run.nfct;
  fit.past_seconds += run.mtim;
}

bool limits_reached(const MINSTR& str)
{
  return str.past_iterations >= str.maxi || static_cast<double>(str.past_calls) >= str.maxf ||
         str.past_seconds >= str.upti;
}

// From a point with an indefinite Hessian trust-region steps lead on downhill, where a quasi-Newton metric (always
// positive definite) sees nothing to gain. They run on a record of their own; the point they reach becomes the run's.
// False when they gain nothing.
bool leave_saddle(NX& n)
{
  const MINSTR& run = *n.str;
  MINSTR region;
  optimizer::tvlopti(&region);
  region.comstr = &n;
  region.nvar = n.nparm;
  region.nreb = n.nreff();
  region.fail = model::failure_objective;
  region.tech = optimizer::TRUREG;
  region.ceps = run.ceps;
  region.gtol = run.gtol;
  region.fdig = run.fdig;
  region.past_iterations = run.past_iterations;
  region.past_calls = run.past_calls;
  region.past_seconds = run.past_seconds;
  region.maxi = std::min(run.maxi, run.past_iterations + 500);
  region.maxf = run.maxf;
  region.upti = run.upti;
  if (optimizer::tvlopta(&region) != 0) return false;
  region.bounds = run.bounds;
  std::copy_n(run.lb, n.nparm, region.lb);
  std::copy_n(run.ub, n.nparm, region.ub);
  std::copy_n(run.x, n.nparm, region.x);
  region.usfct = run.usfct;
  region.usgrd = run.usgrd;
  region.uster = trust_region_test;
  region.clock = run.clock;
  if (optimizer::tvloptc(&region) != 0) return false;
  int code = optimizer::znlpdrv(&region, 1, 0, 0, 0);
  if (code == 0) code = optimizer::znlpdrv(&region, 2, 0, 0, 0);
  close_run(*n.str, region);
  if (!(region.crit < run.crit - 1e-10 * std::max(1.0, std::abs(run.crit)))) return false;
  std::copy_n(region.x, n.nparm, n.str->x);
  n.host->log().xpmlog(message::confirmation_lowered_objective{
      .iterations = static_cast<long>(region.nitr), .from = run.crit, .to = region.crit});
  return optimizer::znlpdrv(n.str.get(), 1, 0, 0, 0) == 0;
}

} // namespace

double newton_reduction(const NX& n)
{
  const MINSTR& str = *n.str;
  const auto& hessian = n.covstr->hessian;
  if (!hessian.present) return host::missing;
  std::vector<int> free;
  for (int i = 0; i < n.nparm; ++i)
    if (str.iabc == nullptr || str.iabc[i] == 0) free.push_back(i);

  // L L' = H on the free parameters, scaled to a unit diagonal; then g' H^-1 g = |L^-1 g|^2.
  const auto m = static_cast<int>(free.size());
  std::vector<double> factor, g(static_cast<std::size_t>(m));
  const auto h = [&](int i, int j) {
    return hessian
        .elements[static_cast<std::size_t>(i) * static_cast<std::size_t>(i + 1) / 2 + static_cast<std::size_t>(j)];
  };
  for (int r = 0; r < m; ++r) {
    const int i = free[static_cast<std::size_t>(r)];
    if (!(h(i, i) > 0)) return host::missing;
    g[static_cast<std::size_t>(r)] = str.grad[i] / std::sqrt(h(i, i));
    for (int c = 0; c <= r; ++c) {
      const int j = free[static_cast<std::size_t>(c)];
      factor.push_back(h(i, j) / std::sqrt(h(i, i)) / std::sqrt(h(j, j)));
    }
    if (matrix::zchol(r, factor.data(), 1e-10) != 0) return host::missing;
  }
  matrix::zchol2(m, factor.data(), g.data());
  double reduction = 0.0;
  for (const double z : g) reduction += z * z;
  return std::isfinite(reduction) ? reduction : host::missing;
}

int optimize(NX& n, bool user_gave_gradient_test, bool user_gave_function_test)
{
  MINSTR& str = *n.str;
  const int load = str.load;
  for (int restart = 0;; ++restart) {
    n.optimizer_messages.clear();
    n.dependencies.clear();
    const double start = str.crit;
    const int code = optimizer::znlpdrv(&str, 2, 0, 0, 0);
    const bool unsure = code == optimizer::code_gconv || code == optimizer::code_no_progress ||
                        (code == optimizer::code_absgconv && !user_gave_gradient_test) ||
                        (code == optimizer::code_fconv && !user_gave_function_test);
    if (!unsure || n.nparm == 0 || !approximates_hessian(str.tech) || n.host->interrupted()) break;
    close_run(str, str);
    if (indefinite(n) && str.fidi == 0 && restart < most_restarts && !limits_reached(str) && leave_saddle(n)) {
      n.iterations_before += static_cast<long>(str.nitr);
      str.load = 1;
      continue;
    }
    const double reduction = newton_reduction(n);
    if (std::isnan(reduction)) break; // a singular Hessian speaks for itself
    const double allowed = std::max(std::abs(str.crit), str.fsiz) * str.gtol;
    if (reduction <= allowed) {
      if (code == optimizer::code_no_progress) {
        str.rcod = optimizer::code_gconv;
        n.optimizer_messages.clear();
      }
      // Message 136 judges a gradient element by its size alone; the Hessian has just judged it better.
      std::erase_if(n.optimizer_messages, [](const host::Message& m) { return m.group == 549 && m.number == 136; });
      break;
    }
    const bool gained = start - str.crit > 0.1 * reduction || restart == 0;
    if (restart == most_restarts || !gained || limits_reached(str)) break;
    n.iterations_before += static_cast<long>(str.nitr);
    str.load = 1; // go on with the true Hessian as the metric
  }
  str.load = load;
  return str.rcod;
}

} // namespace torvale::solve
