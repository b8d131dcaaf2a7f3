#include "integration/objective.h"

#include "integration/evaluation_parts.h"
#include "integration/failure_report.h"
#include "parallel/worker_pool.h"

#include <algorithm>
#include <atomic>
#include <climits>

namespace torvale::integration {

using model::NX;
using model::TVLThreadCtx;

namespace {

// One evaluation in the hands of the workers.
class Evaluation {
public:
  explicit Evaluation(NX& n) : n_(n), by_subject_(n.nreff() > 0), looked_at_(n.host->shows_progress()) {}

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
    if (n_.host->interrupted()) return note_failure(item);
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
    return std::any_of(n_.batch_subjects.begin() + batch.first, n_.batch_subjects.begin() + batch.last,
                       [&](int s) { return n_.slot_status[static_cast<std::size_t>(s)] != 0; });
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

} // namespace

int tvllike(NX& n)
{
  n.failed = false;
  prepare(n);
  Evaluation evaluation(n);
  evaluation.run();
  for (const auto& ctx : n.ctx) n.ncmprun += ctx->ncmpRuns;
  if (!evaluation.failed()) sum_slots(n);
  if (evaluation.failed() || !(n.objfun < model::failure_objective)) {
    take_failure(n);
    if (n.itdetails) report_failure(n);
  } else {
    n.ebtrial_point = n.parm;
    if (n.dograd) n.goodgrad = n.objgrad;
  }
  if (!evaluation.ended()) return 0;
  n.raise(1012);
  return 1012;
}

void accept_modes(NX& n)
{
  if (n.ebtrial_point.empty() || n.ebtrial_point != n.parm) return;
  for (std::size_t s = 0; s < n.ebtrial_known.size(); ++s) {
    if (n.ebtrial_known[s] == 0) continue;
    const std::size_t nr = static_cast<std::size_t>(n.leaf().nr);
    std::copy_n(n.ebtrial.begin() + static_cast<long>(s * nr), nr, n.ebes.begin() + static_cast<long>(s * nr));
    n.ebes_known[s] = 1;
  }
}

} // namespace torvale::integration
