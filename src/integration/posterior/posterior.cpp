#include "integration/posterior/posterior.h"

#include "host/values/missing.h"
#include "integration/nests/nest_batch.h"
#include "integration/posterior/posterior_work.h"
#include "integration/subjects/integrator.h"
#include "modes/nest_search.h"
#include "parallel/worker_pool.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <tuple>

namespace torvale::integration {

using model::ModelLists;
using model::NX;
using model::TVLThreadCtx;

namespace {

class PosteriorLoop {
public:
  PosteriorLoop(NX& n, Posterior& out) : n_(n), out_(out)
  {
    for (auto& ctx : n.ctx) {
      ctx->frame->set_parameters(n.parm.data());
      ctx->batch.prior_loaded = false;
      for (auto& level : ctx->nests.level) level.prior_loaded = false;
      if (n.method == 4 || (n.method == 1 && !n.lb)) continue;
      work_.push_back(n.method == 3   ? sampled_posterior(n, *ctx)
                      : n.nreff() > 1 ? nest_posterior(n, *ctx)
                                      : mode_posterior(n, *ctx));
    }
  }

  void operator()(int context, long item)
  {
    if (ended_.load(std::memory_order_relaxed) != 0) return;
    TVLThreadCtx& ctx = *n_.ctx[static_cast<std::size_t>(context)];
    if (const int rc = batch(ctx, context, n_.batches[static_cast<std::size_t>(item)]); rc > 2)
      ended_.store(rc, std::memory_order_relaxed);
  }

  int ended() const { return ended_.load(); }

private:
  int batch(TVLThreadCtx& ctx, int context, const model::Batch& batch)
  {
    take_batch(n_, ctx, batch);
    if (n_.method == 4) return support_posteriors(n_, ctx, out_);
    if (n_.method == 1 && !n_.lb) return linear_posteriors(n_, ctx, out_);
    return work_[static_cast<std::size_t>(context)]->run(out_);
  }

  NX& n_;
  Posterior& out_;
  std::vector<std::unique_ptr<PosteriorWork>> work_; // per context
  std::atomic<int> ended_{0};
};

int run_posterior(NX& n, Posterior& out)
{
  const std::size_t subjects = n.leaf().SubInfo.size(), np = static_cast<std::size_t>(n.nparm);
  out.nr = n.programs.ne;
  const auto nr = static_cast<std::size_t>(out.nr);
  out.estimate.assign(subjects * nr, host::missing);
  out.covariance.assign(subjects * (nr * (nr + 1) / 2), host::missing);
  out.derivative.assign(subjects * nr * np, host::missing);
  // The mean of support points is 0.
  out.mean.assign(subjects * nr, n.method == 4 ? 0.0 : host::missing);
  out.mean_by.assign(subjects * nr * np, n.method == 4 ? 0.0 : host::missing);
  out.prior.assign(subjects * (nr * (nr + 1) / 2), host::missing);
  out.points = n.method == 4 ? support_size(n.leaf()) : 0;
  const auto points = static_cast<std::size_t>(out.points);
  out.probability.assign(subjects * points, host::missing);
  out.probability_by.assign(subjects * points * np, host::missing);
  out.known.assign(subjects, 0);
  PosteriorLoop loop(n, out);
  const auto items = static_cast<long>(n.batches.size());
  if (n.workers != nullptr)
    n.workers->run(items, loop);
  else
    for (long item = 0; item < items; ++item) loop(0, item);
  return loop.ended();
}

// How the posterior mean of subject s, effect e follows parameter j: differences of fourth order over 2h on both sides,
// of second order from above where a bound is near.
int difference_means(NX& n, Posterior& out)
{
  const auto np = static_cast<std::size_t>(n.nparm), nr = static_cast<std::size_t>(out.nr);
  const std::vector<double> at = n.parm;
  int rc = 0;
  for (std::size_t j = 0; j < np && rc <= 2; ++j) {
    const double error = n.str != nullptr && n.str->ster != nullptr ? n.str->ster[j] : host::missing;
    const double unit = error > 0.0 && std::isfinite(error) ? error : 0.1 * std::max(std::abs(at[j]), 0.1);
    const bool bounded = j < n.parmstr.size() && n.parmstr[j].applyl && at[j] - 0.02 * unit <= n.parmstr[j].lowbound;
    const double h = bounded ? 1e-3 * unit : 1e-2 * unit;
    std::vector<double> slope(out.estimate.size(), 0.0);
    const auto add = [&](double steps, double factor) {
      Posterior moved;
      n.parm = at;
      n.parm[j] += steps * h;
      if (rc <= 2) rc = run_posterior(n, moved);
      for (std::size_t k = 0; k < slope.size() && rc <= 2; ++k) slope[k] += factor / h * moved.estimate[k];
    };
    if (bounded) {
      add(0.0, -1.5);
      add(1.0, 2.0);
      add(2.0, -0.5);
    } else {
      add(-2.0, 1.0 / 12.0);
      add(-1.0, -2.0 / 3.0);
      add(1.0, 2.0 / 3.0);
      add(2.0, -1.0 / 12.0);
    }
    for (std::size_t k = 0; k < slope.size(); ++k) out.derivative[k / nr * nr * np + k % nr * np + j] = slope[k];
  }
  n.parm = at;
  return rc;
}

} // namespace

int find_posterior(NX& n, Posterior& out)
{
  const int rc = run_posterior(n, out);
  return rc > 2 || n.method != 3 ? rc : difference_means(n, out);
}

int find_rounds(NX& n, std::vector<model::RoundEffect>& rounds)
{
  rounds.clear();
  if (!n.ebiter || n.nreff() < 2) return 0;
  TVLThreadCtx& ctx = *n.ctx[0];
  ctx.frame->set_parameters(n.parm.data());
  for (auto& level : ctx.nests.level) level.prior_loaded = false;
  const auto accepted = n.ebes_known;
  std::fill(n.ebes_known.begin(), n.ebes_known.end(), static_cast<char>(0));
  ctx.nests.rounds = &rounds;
  int rc = 0;
  for (std::size_t k = 0; k < n.batches.size() && rc <= 2; ++k) {
    take_batch(n, ctx, n.batches[k]);
    take_nests(n, ctx);
    rc = load_nest_priors(n, ctx);
    if (rc <= 2) rc = modes::nest_search(n, ctx);
  }
  ctx.nests.rounds = nullptr;
  n.ebes_known = accepted;
  std::sort(rounds.begin(), rounds.end(), [](const auto& a, const auto& b) {
    return std::tuple(a.round, -a.level, a.subject, a.effect) < std::tuple(b.round, -b.level, b.subject, b.effect);
  });
  return rc > 2 ? rc : 0;
}

int known_leaf(const ModelLists& n, const Posterior& posterior, std::size_t level, int subject)
{
  int first = subject, last = subject + 1;
  for (std::size_t k = level; k > 0; --k) {
    const auto& subjects = n.reff[k].SubInfo;
    first = subjects[static_cast<std::size_t>(first)].first_child;
    last = subjects[static_cast<std::size_t>(last - 1)].last_child;
  }
  for (int leaf = first; leaf < last; ++leaf)
    if (posterior.known[static_cast<std::size_t>(leaf)] != 0) return leaf;
  return -1;
}

} // namespace torvale::integration
