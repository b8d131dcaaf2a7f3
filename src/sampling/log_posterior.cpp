#include "sampling/log_posterior.h"

#include "evaluation/cholesky_derivative.h"
#include "evaluation/random_covariance.h"
#include "evaluation/record_sums.h"
#include "integration/subjects/evaluation_parts.h"
#include "matrix/packed.h"
#include "modes/joint_density.h"
#include "modes/mode_search.h"

#include <algorithm>
#include <cmath>

namespace torvale::sampling {

using matrix::packed_diagonal;
using matrix::packed_index;
using model::BatchWork;
using model::TVLThreadCtx;

LogPosterior::LogPosterior(model::NX& n, EffectForm form)
    : n_(n), form_(form), subjects_(static_cast<int>(n.leaf().SubInfo.size())), nr_(n.leaf().nr), nrs_(n.leaf().nrs),
      np_(n.nparm), work_(n.ctx.size())
{
  for (Work& w : work_) {
    w.sums.assign(static_cast<std::size_t>(1 + np_ + nr_) * static_cast<std::size_t>(n.ctx[0]->batch.pair_stride), 0.0);
    w.value.resize(static_cast<std::size_t>(subjects_));
    w.by_theta.resize(static_cast<std::size_t>(subjects_ * np_));
    w.small.resize(static_cast<std::size_t>(2 * nr_ + 2 * nrs_));
  }
}

template <class Visit> int LogPosterior::each_batch(int context, const double* theta, bool derivatives, Visit visit)
{
  TVLThreadCtx& ctx = *n_.ctx[static_cast<std::size_t>(context)];
  ctx.frame->set_parameters(theta);
  ctx.batch.prior_loaded = false;
  for (const model::Batch& batch : n_.batches) {
    integration::take_batch(n_, ctx, batch);
    if (const int rc = evaluation::load_priors(n_, ctx, derivatives); rc > 2) return rc;
    const auto failed = ctx.batch.failure.begin();
    if (std::any_of(failed, failed + ctx.batch.slots, [](int f) { return f != 0; })) return 1;
    if (const int rc = visit(ctx); rc != 0) return rc;
  }
  ctx.batch.prior_loaded = false; // the next user of this context has parameters of its own
  return 0;
}

// The records of a batch at its subjects' effects, into columns 0, 1, ... of the sums.
int LogPosterior::run_batch(TVLThreadCtx& ctx, Work& w, const double* effects, bool derivatives)
{
  BatchWork& b = ctx.batch;
  for (int slot = 0; slot < b.slots; ++slot) {
    b.active[static_cast<std::size_t>(slot)] = slot;
    const double* const state = effects + static_cast<long>(b.subject[static_cast<std::size_t>(slot)]) * nr_;
    const long p = modes::prior_of(n_, slot);
    const double* l = b.factor.data() + p * nrs_;
    for (int i = 0; i < nr_; ++i) {
      double u = state[i];
      if (form_ == EffectForm::standard) {
        u = b.mean[static_cast<std::size_t>(p * nr_ + i)];
        for (int k = 0; k <= i; ++k) u += l[k] * state[k];
        l += i + 1;
      }
      b.ran[static_cast<std::size_t>(i * b.pair_stride + slot)] = u;
    }
  }
  ctx.frame->set_points(b.ran.data(), b.slots, static_cast<int>(b.pair_stride));
  const evaluation::Pairs pairs{b.active.data(), b.slots, 1};
  if (derivatives) return evaluation::tvllogl(n_, ctx, pairs, {n_.programs.gradient, w.sums.data(), b.pair_stride});
  return evaluation::tvllogl(n_, ctx, pairs, {n_.programs.value, w.sums.data(), b.pair_stride});
}

// Adds the log prior density of a slot's effects; false where G has no inverse and u no density.
bool LogPosterior::prior_terms(const TVLThreadCtx& ctx, int slot, const double* state, double& logp) const
{
  const BatchWork& b = ctx.batch;
  double square = 0.0, logdet = 0.0;
  if (form_ == EffectForm::standard) {
    for (int i = 0; i < nr_; ++i) square += state[i] * state[i];
  } else {
    const long p = modes::prior_of(n_, slot);
    const double* const l = b.factor.data() + p * nrs_;
    double z[modes::most_effects];
    for (int i = 0; i < nr_; ++i) {
      double d = state[i] - b.mean[static_cast<std::size_t>(p * nr_ + i)];
      for (int k = 0; k < i; ++k) d -= l[packed_index(i, k)] * z[k];
      const double pivot = l[packed_diagonal(i)];
      if (!(pivot > 0.0)) return false;
      z[i] = d / pivot;
      square += z[i] * z[i];
      logdet += 2.0 * std::log(pivot);
    }
  }
  logp -= 0.5 * (nr_ * integration::log2pi + logdet + square);
  return true;
}

double LogPosterior::values(int context, const double* theta, const double* effects, double* value)
{
  Work& w = work_[static_cast<std::size_t>(context)];
  bool possible = true;
  const int rc = each_batch(context, theta, false, [&](TVLThreadCtx& ctx) {
    if (const int code = run_batch(ctx, w, effects, false); code != 0) return code;
    for (int slot = 0; slot < ctx.batch.slots; ++slot) {
      const int s = ctx.batch.subject[static_cast<std::size_t>(slot)];
      double v = w.sums[static_cast<std::size_t>(slot)];
      if (!prior_terms(ctx, slot, effects + static_cast<long>(s) * nr_, v) || !(v > impossible)) v = impossible;
      value[s] = v;
      possible = possible && v > impossible;
    }
    return 0;
  });
  if (rc != 0) std::fill_n(value, subjects_, impossible);
  if (rc != 0 || !possible) return impossible;
  double sum = 0.0;
  for (int s = 0; s < subjects_; ++s)
    if (!n_.leaf().SubInfo[static_cast<std::size_t>(s)].badsub) sum += value[s];
  return std::isfinite(sum) ? sum : impossible;
}

// The derivatives of one subject. With G^-1 d = a: by u  ll_u - a,  by the means  a,  by G  (a a' - G^-1)/2; in z, by z
// L'll_u - z, by the means ll_u, by L  ll_u z'.
void LogPosterior::chain_rule(const TVLThreadCtx& ctx, Work& w, int slot, int column, const double* state,
                              double* by_theta, double* by_effects) const
{
  const BatchWork& b = ctx.batch;
  const model::REFFECT& reff = n_.leaf();
  const long p = modes::prior_of(n_, slot), stride = b.pair_stride;
  const double* const l = b.factor.data() + p * nrs_;
  const double* const sum = w.sums.data() + column;
  double* const mean_bar = w.small.data();
  double* const z = mean_bar + nr_;
  double* const g_bar = z + nr_;
  double* const inverse = g_bar + nrs_;
  const auto slope = [&](int i) { return sum[(1 + np_ + i) * stride]; };
  for (int j = 0; j < np_; ++j) by_theta[j] = sum[(1 + j) * stride];
  if (form_ == EffectForm::standard) {
    for (int i = 0; i < nr_; ++i) {
      mean_bar[i] = slope(i);
      double t = -state[i];
      for (int k = i; k < nr_; ++k) t += l[packed_index(k, i)] * slope(k);
      by_effects[i] = t;
      for (int j = 0; j <= i; ++j) g_bar[packed_index(i, j)] = slope(i) * state[j];
    }
    evaluation::cholesky_adjoint(nr_, l, g_bar, n_.singchol);
  } else {
    // Rows of L^-1 into `inverse`, z = L^-1 d, a = L^-T z.
    for (int i = 0; i < nr_; ++i) {
      const double pivot = l[packed_diagonal(i)];
      double d = state[i] - b.mean[static_cast<std::size_t>(p * nr_ + i)];
      for (int k = 0; k < i; ++k) d -= l[packed_index(i, k)] * z[k];
      z[i] = d / pivot;
      for (int j = 0; j <= i; ++j) {
        double t = i == j ? 1.0 : 0.0;
        for (int k = j; k < i; ++k) t -= l[packed_index(i, k)] * inverse[packed_index(k, j)];
        inverse[packed_index(i, j)] = t / pivot;
      }
    }
    for (int i = 0; i < nr_; ++i) {
      mean_bar[i] = 0.0;
      for (int k = i; k < nr_; ++k) mean_bar[i] += inverse[packed_index(k, i)] * z[k];
      by_effects[i] = slope(i) - mean_bar[i];
    }
    for (int i = 0; i < nr_; ++i)
      for (int j = 0; j <= i; ++j) {
        double t = mean_bar[i] * mean_bar[j];
        for (int k = i; k < nr_; ++k) t -= inverse[packed_index(k, i)] * inverse[packed_index(k, j)];
        g_bar[packed_index(i, j)] = i == j ? 0.5 * t : t; // an element off the diagonal stands for both places
      }
  }
  const double* row = b.arguments.data() + p * (reff.nd + static_cast<long>(reff.nd) * np_) + reff.nd;
  for (int a = 0; a < reff.nd; ++a, row += np_) {
    const double bar = a < nr_ ? mean_bar[a] : g_bar[a - nr_];
    for (int j = 0; j < np_; ++j) by_theta[j] += bar * row[j];
  }
}

double LogPosterior::gradient(int context, const double* theta, const double* effects, double* by_theta,
                              double* by_effects)
{
  Work& w = work_[static_cast<std::size_t>(context)];
  const int rc = each_batch(context, theta, true, [&](TVLThreadCtx& ctx) {
    if (const int code = run_batch(ctx, w, effects, true); code != 0) return code;
    for (int slot = 0; slot < ctx.batch.slots; ++slot) {
      const auto s = static_cast<long>(ctx.batch.subject[static_cast<std::size_t>(slot)]);
      double v = w.sums[static_cast<std::size_t>(slot)];
      if (!prior_terms(ctx, slot, effects + s * nr_, v) || !(v > impossible)) return 1;
      w.value[static_cast<std::size_t>(s)] = v;
      chain_rule(ctx, w, slot, slot, effects + s * nr_, w.by_theta.data() + s * np_, by_effects + s * nr_);
    }
    return 0;
  });
  std::fill_n(by_theta, np_, 0.0);
  if (rc != 0) return impossible;
  double sum = 0.0;
  for (int s = 0; s < subjects_; ++s) {
    if (n_.leaf().SubInfo[static_cast<std::size_t>(s)].badsub) {
      std::fill_n(by_effects + static_cast<long>(s) * nr_, nr_, 0.0);
      continue;
    }
    sum += w.value[static_cast<std::size_t>(s)];
    for (int j = 0; j < np_; ++j) by_theta[j] += w.by_theta[static_cast<std::size_t>(s * np_ + j)];
  }
  return std::isfinite(sum) ? sum : impossible;
}

int LogPosterior::plain_effects(int context, const double* theta, const double* effects, double* u)
{
  if (form_ == EffectForm::plain) {
    std::copy_n(effects, static_cast<long>(subjects_) * nr_, u);
    return 0;
  }
  return each_batch(context, theta, false, [&](TVLThreadCtx& ctx) {
    const BatchWork& b = ctx.batch;
    for (int slot = 0; slot < b.slots; ++slot) {
      const long s = b.subject[static_cast<std::size_t>(slot)], p = modes::prior_of(n_, slot);
      const double* const l = b.factor.data() + p * nrs_;
      for (int i = 0; i < nr_; ++i) {
        u[s * nr_ + i] = b.mean[static_cast<std::size_t>(p * nr_ + i)];
        for (int k = 0; k <= i; ++k) u[s * nr_ + i] += l[packed_index(i, k)] * effects[s * nr_ + k];
      }
    }
    return 0;
  });
}

} // namespace torvale::sampling
