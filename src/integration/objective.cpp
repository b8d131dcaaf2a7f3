#include "integration/objective.h"

#include "integration/failure_report.h"
#include "integration/subjects/evaluation_parts.h"
#include "integration/subjects/slot_tree.h"
#include "parallel/worker_pool.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>

namespace torvale::integration {

using model::NX;
using model::TVLThreadCtx;
using Evaluated = model::GroupState::Evaluated;

namespace {

// One evaluation in the hands of the workers.
class Evaluation {
public:
  explicit Evaluation(NX& n)
      : n_(n), by_subject_(n.nreff() > 0), looked_at_(n.host != nullptr && n.host->shows_progress())
  {
  }

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
    const int rc = by_subject_ ? evaluate_batch(n_, ctx, n_.batches[static_cast<std::size_t>(item)])
                               : sum_observations(n_, ctx, item);
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
  n.ebtrial_by_known = false;
  forget_evaluation(n);
}

// The last evaluation was at this point, and has what is wanted: it stands, with its slots and modes. Where modes stand
// still to a tolerance only (EBITER$), another one brings them nearer.
bool evaluated(NX& n)
{
  if (n.ebiter) return false;
  if (n.evaluated < (n.dograd ? Evaluated::gradient : Evaluated::value) || n.ebtrial_point != n.parm) return false;
  n.objfun = n.evaluated_objfun;
  if (n.dograd) n.objgrad = n.goodgrad;
  return true;
}

// Adds up numbers of slots in their order; `weight` is 0 for those that do not count and may hold anything.
template <class Weight> void add_slots(const NX& n, std::size_t np, long first, long last, Weight&& weight, double* sum)
{
  constexpr std::size_t together = 4; // columns of the gradient, so that their sums stay in registers
  const auto add = [&](bool value, std::size_t j, std::size_t columns) {
    double total = 0.0, t[together] = {};
    for (long slot = first; slot < last; ++slot) {
      const double w = weight(slot);
      if (w == 0.0) continue;
      if (value) total += w * n.slot_value[static_cast<std::size_t>(slot)];
      const double* const gradient = n.slot_grad.data() + slot * n.grad_stride + j;
      for (std::size_t k = 0; k < columns; ++k) t[k] += w * gradient[k];
    }
    if (value) sum[0] = total;
    std::copy_n(t, columns, sum + 1 + j);
  };
  if (np < together) return add(true, 0, np);
  add(true, 0, together);
  std::size_t j = together;
  for (; j + together <= np; j += together) add(false, j, together);
  if (j < np) add(false, j, np - j);
}

// Value and gradient; the observation blocks already hold their weights.
void sum_slots(NX& n)
{
  const std::size_t np = n.dograd ? static_cast<std::size_t>(n.nparm) : 0;
  const auto subjects = [&](long first, long last, double* sum) {
    const auto weight = [&](long slot) {
      const auto& s = n.outer().SubInfo[static_cast<std::size_t>(slot)];
      return s.badsub ? 0.0 : s.weight;
    };
    add_slots(n, np, first, last, weight, sum);
  };
  const auto blocks = [&](long first, long last, double* sum) {
    add_slots(
        n, np, first, last, [](long) { return 1.0; }, sum);
  };
  SlotTree tree(n.tree_sums, static_cast<long>(n.slot_value.size()), 1 + np);
  const double* const sum = n.nreff() > 0 ? tree.sum(n.workers.get(), subjects) : tree.sum(n.workers.get(), blocks);
  n.objfun = sum[0];
  if (n.dograd) n.objgrad.assign(sum + 1, sum + 1 + np);
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

// Where G leaves an effect no variance, the factor of G has no derivative by it, and the gradient by the parameters of
// G is the limit from inside: with g the gradients of the slots at a variance h in its place, 2 g(h) - g(2 h). h is
// small beside what the subjects know of the effect, and so small that g(h) and g(2 h) differ little: an effect may act
// more strongly than its curvature at 0 tells. The values and modes are those of G itself.
class GradientLimit {
public:
  explicit GradientLimit(NX& n) : n_(n), scale_(n.ctx[0]->batch.null_scale)
  {
    for (const auto& ctx : n.ctx)
      for (std::size_t i = 0; i < scale_.size(); ++i) scale_[i] = std::max(scale_[i], ctx->batch.null_scale[i]);
  }

  bool needed() const
  {
    return std::any_of(scale_.begin(), scale_.end(), [](double s) { return s > 0.0 && std::isfinite(s); });
  }

  void take()
  {
    constexpr double longest = 1e-4, shortest = 1e-11;
    const auto value = n_.slot_value, gradient = n_.slot_grad, modes = n_.ebtrial;
    const auto known = n_.ebtrial_known;
    in_covariance_ = parameters_of_covariance(n_);
    std::vector<double> limit(gradient);
    for (double share = longest; share >= shortest; share *= 1e-2) {
      if (!lifted(share, near_) || !lifted(2.0 * share, far_)) continue;
      for (std::size_t k = 0; k < limit.size(); ++k)
        if (of_covariance(k)) limit[k] = 2.0 * near_[k] - far_[k];
      if (smooth()) break;
    }
    n_.lift.clear();
    n_.slot_grad = limit;
    n_.slot_value = value;
    n_.ebtrial = modes;
    n_.ebtrial_known = known;
    std::fill(n_.slot_status.begin(), n_.slot_status.end(), 0);
  }

private:
  bool of_covariance(std::size_t k) const { return in_covariance_[k % in_covariance_.size()] != 0; }

  bool lifted(double share, std::vector<double>& gradient)
  {
    n_.lift.assign(scale_.size(), 0.0);
    for (std::size_t i = 0; i < scale_.size(); ++i)
      if (scale_[i] > 0.0 && std::isfinite(scale_[i])) n_.lift[i] = share / scale_[i];
    bool ended = false;
    const bool good = evaluate_slots(n_, ended);
    gradient = n_.slot_grad;
    return good;
  }

  // Subject by subject, so that what cancels between them does not look rough.
  bool smooth() const
  {
    const std::size_t stride = in_covariance_.size();
    for (std::size_t j = 0; j < stride; ++j) {
      double change = 0.0, size = 0.0;
      for (std::size_t k = j; k < near_.size() && in_covariance_[j] != 0; k += stride) {
        change += std::abs(far_[k] - near_[k]);
        size += std::abs(near_[k]);
      }
      if (change > 1e-3 * size) return false;
    }
    return true;
  }

  NX& n_;
  std::vector<double>& scale_; // per effect of all levels: information on an effect without variance
  std::vector<char> in_covariance_;
  std::vector<double> near_, far_;
};

} // namespace

std::vector<char> parameters_of_covariance(const NX& n)
{
  std::vector<char> found(static_cast<std::size_t>(n.grad_stride), 0);
  for (const auto& reff : n.reff) {
    const int first = reff.argument_derivative(reff.nr, 0, n.nparm);
    for (const int place : reff.setup.outputs)
      if (place >= first) found[static_cast<std::size_t>((place - first) % n.nparm)] = 1;
  }
  return found;
}

int tvllike(NX& n)
{
  n.failed = false;
  if (evaluated(n)) return 0;
  if (n.host != nullptr) n.host->stages().count_evaluation();
  for (auto& ctx : n.ctx) std::fill(ctx->batch.null_scale.begin(), ctx->batch.null_scale.end(), 0.0);
  bool ended = false;
  const bool good = evaluate_slots(n, ended);
  bool limited = false;
  if (good && n.dograd && n.nreff() > 0)
    if (GradientLimit limit(n); limit.needed()) {
      limit.take();
      limited = true; // what the last pass has left are not the derivatives of the modes
    }
  if (good) sum_slots(n);
  if (!good || !(n.objfun < model::failure_objective)) {
    take_failure(n);
    if (n.itdetails) report_failure(n);
  } else {
    n.ebtrial_point = n.parm;
    n.evaluated = n.dograd ? Evaluated::gradient : Evaluated::value;
    n.ebtrial_by_known = keeps_mode_derivatives(n) && !limited;
    n.evaluated_objfun = n.objfun;
    if (n.dograd) n.goodgrad = n.objgrad;
  }
  if (!ended) return n.failed && n.retfail && n.nreff() > 1 ? 1 : 0;
  n.raise(1012);
  return 1012;
}

void shift_predictor(NX& n, const engine::CMPSYM* predictor, const double* by_row)
{
  for (const auto& ctx : n.ctx) ctx->frame->shift_records(predictor, by_row);
  n.ebtrial_point.clear();
  n.ebtrial_by_known = false;
  forget_evaluation(n);
}

void stand_by_prediction(NX& n, bool stands)
{
  n.prediction_stands = stands;
  n.ebtrial_point.clear();
  n.ebtrial_by_known = false;
  forget_evaluation(n);
}

void accept_modes(NX& n)
{
  if (n.prediction_stands) return;
  if (n.ebtrial_point.empty() || n.ebtrial_point != n.parm) return;
  if (n.ebtrial_by_known) {
    n.ebes_by.swap(n.ebtrial_by);
    n.ebes_bend.swap(n.ebtrial_bend);
    n.ebes_point = n.parm;
    n.ebtrial_by_known = false;
  } else if (n.ebes_point != n.parm) {
    n.ebes_point.clear();
  }
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
