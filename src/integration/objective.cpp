#include "integration/objective.h"

#include "integration/evaluation_parts.h"
#include "integration/failure_report.h"
#include "parallel/worker_pool.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>

namespace torvale::integration {

using model::NX;
using model::TVLThreadCtx;

namespace {

// One evaluation in the hands of the workers.
class Evaluation {
public:
  explicit Evaluation(NX& n) : n_(n), by_subject_(n.nreff() > 0), looked_at_(n.host != nullptr && n.host->shows_progress()) {}

  void run()
  {
    items_ = by_subject_ ? static_cast<long>(n_.batches.size()) : observation_blocks(n_);
    const long items = items_;
    if (n_.workers != nullptr && !in_order())
      n_.workers->run(items, *this);
    else
      for (long item = 0; item < items; ++item) (*this)(0, item);
  }

  // Items are dealt in order, so every item before the first failed one is done: those behind it may be left out, and
  // what is left out is never read.
  void operator()(int context, long item)
  {
    if (item > first_failed_.load(std::memory_order_relaxed)) return;
    // Somebody who waits for the end of a run does not wait for the end of an evaluation: it fails here.
    if (n_.host != nullptr && n_.host->interrupted()) return note_failure(item);
    if (context == 0 && looked_at_)
      n_.host->progress({.stage = "evaluation", .share = static_cast<double>(item) / static_cast<double>(items_)});
    TVLThreadCtx& ctx = *n_.ctx[static_cast<std::size_t>(context)];
    const int rc = by_subject_ ? evaluate_batch(n_, ctx, n_.batches[static_cast<std::size_t>(item)]) : sum_observations(n_, ctx, item);
    if (rc > 2) ended_.store(true, std::memory_order_relaxed);
    if (rc > 2 || failed(item)) note_failure(item);
  }

  bool ended() const { return ended_.load(); }
  bool failed() const { return first_failed_.load() != LONG_MAX; }

private:
  // Values kept from record to record run through all observations.
  bool in_order() const
  {
    if (by_subject_) return false;
    return engine::sequential(*(n_.dograd ? n_.programs.gradient : n_.programs.value).code);
  }

  bool failed(long item) const
  {
    if (!by_subject_) return n_.slot_status[static_cast<std::size_t>(item)] != 0;
    const auto& batch = n_.batches[static_cast<std::size_t>(item)];
    return std::any_of(n_.slot_status.begin() + batch.first_nest, n_.slot_status.begin() + batch.last_nest,
                       [](int status) { return status != 0; });
  }

  void note_failure(long item)
  {
    long lowest = first_failed_.load();
    while (item < lowest && !first_failed_.compare_exchange_weak(lowest, item)) {
    }
  }

  NX& n_;
  const bool by_subject_;
  const bool looked_at_;
  long items_ = 0;
  std::atomic<long> first_failed_{LONG_MAX};
  std::atomic<bool> ended_{false};
};

void prepare(NX& n)
{
  for (auto& ctx : n.ctx) {
    ctx->frame->set_parameters(n.parm.data());
    ctx->batch.prior_loaded = false;
    for (auto& level : ctx->nests.level) level.prior_loaded = false;
    ctx->ncmpRuns = 0;
  }
  std::fill(n.ebtrial_known.begin(), n.ebtrial_known.end(), static_cast<char>(0));
  n.ebtrial_point.clear();
}

// Slots in subject order; the observation blocks already hold their weights.
void sum_slots(NX& n)
{
  n.objfun = 0.0;
  if (n.dograd) n.objgrad.assign(static_cast<std::size_t>(n.nparm), 0.0);
  const auto add = [&](std::size_t slot, double weight) {
    n.objfun += weight * n.slot_value[slot];
    if (!n.dograd) return;
    const double* const gradient = n.slot_grad.data() + static_cast<long>(slot) * n.grad_stride;
    for (std::size_t j = 0; j < n.objgrad.size(); ++j) n.objgrad[j] += weight * gradient[j];
  };
  if (n.nreff() == 0) {
    for (std::size_t slot = 0; slot < n.slot_value.size(); ++slot) add(slot, 1.0);
    return;
  }
  for (const auto& s : n.outer().SubInfo)
    if (!s.badsub) add(static_cast<std::size_t>(s.index), s.weight);
}

void take_failure(NX& n)
{
  n.failed = true;
  n.failed_parm = n.parm;
  if (n.str != nullptr) n.failed_iteration = n.str->piter + 1.0;
  n.objfun = model::failure_objective;
  if (!n.dograd) return;
  if (n.converged && n.goodgrad.size() == static_cast<std::size_t>(n.nparm))
    n.objgrad = n.goodgrad;
  else
    n.objgrad.assign(static_cast<std::size_t>(n.nparm), 1.0);
}

// One evaluation of all slots. False when it failed; ended: the program ended the run.
bool evaluate_slots(NX& n, bool& ended)
{
  prepare(n);
  Evaluation evaluation(n);
  evaluation.run();
  for (const auto& ctx : n.ctx) n.ncmprun += ctx->ncmpRuns;
  ended = evaluation.ended();
  return !evaluation.failed();
}

// Where G leaves an effect no variance, the factor of G has no derivative by it. The gradient is the limit from inside:
// with g the gradients of the slots at a variance h in its place, 2 g(h) - g(2 h). h is small beside what the subjects
// know of the effect. The values and modes are those of G itself.
void take_limit_of_gradient(NX& n)
{
  constexpr double share = 1e-4;
  auto& scale = n.ctx[0]->batch.null_scale;
  for (const auto& ctx : n.ctx)
    for (std::size_t i = 0; i < scale.size(); ++i) scale[i] = std::max(scale[i], ctx->batch.null_scale[i]);
  if (std::none_of(scale.begin(), scale.end(), [](double s) { return s > 0.0 && std::isfinite(s); })) return;
  const auto value = n.slot_value, gradient = n.slot_grad, modes = n.ebtrial;
  const auto known = n.ebtrial_known;
  std::vector<double> near;
  bool good = true;
  for (const double times : {1.0, 2.0}) {
    n.lift.assign(scale.size(), 0.0);
    for (std::size_t i = 0; i < scale.size(); ++i)
      if (scale[i] > 0.0 && std::isfinite(scale[i])) n.lift[i] = times * share / scale[i];
    bool ended = false;
    good = good && evaluate_slots(n, ended);
    if (times == 1.0) near = n.slot_grad;
  }
  n.lift.clear();
  if (good)
    for (std::size_t k = 0; k < near.size(); ++k) n.slot_grad[k] = 2.0 * near[k] - n.slot_grad[k];
  else
    n.slot_grad = gradient;
  n.slot_value = value;
  n.ebtrial = modes;
  n.ebtrial_known = known;
  std::fill(n.slot_status.begin(), n.slot_status.end(), 0);
}

} // namespace

int tvllike(NX& n)
{
  n.failed = false;
  for (auto& ctx : n.ctx) std::fill(ctx->batch.null_scale.begin(), ctx->batch.null_scale.end(), 0.0);
  bool ended = false;
  const bool good = evaluate_slots(n, ended);
  if (good && n.dograd && n.nreff() > 0) take_limit_of_gradient(n);
  if (good) sum_slots(n);
  if (!good || !(n.objfun < model::failure_objective)) {
    take_failure(n);
    if (n.itdetails) report_failure(n);
  } else {
    n.ebtrial_point = n.parm;
    if (n.dograd) n.goodgrad = n.objgrad;
  }
  if (!ended) return n.failed && n.retfail && n.nreff() > 1 ? 1 : 0;
  n.raise(1012);
  return 1012;
}

void accept_modes(NX& n)
{
  if (n.ebtrial_point.empty() || n.ebtrial_point != n.parm) return;
  for (std::size_t s = 0; s < n.ebtrial_known.size(); ++s) {
    if (n.ebtrial_known[s] == 0) continue;
    int first = static_cast<int>(s), last = first + 1; // level by level: what is nested in it
    for (std::size_t k = n.reff.size(); k-- > 0;) {
      const model::REFFECT& reff = n.reff[k];
      const long from = reff.mode_first + static_cast<long>(first) * reff.nr;
      std::copy_n(n.ebtrial.begin() + from, static_cast<long>(last - first) * reff.nr, n.ebes.begin() + from);
      if (k == 0) break;
      first = reff.SubInfo[static_cast<std::size_t>(first)].first_child;
      last = reff.SubInfo[static_cast<std::size_t>(last - 1)].last_child;
    }
    n.ebes_known[s] = 1;
  }
}

} // namespace torvale::integration
