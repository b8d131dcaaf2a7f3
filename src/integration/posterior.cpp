#include "integration/posterior.h"

#include "evaluation/random_covariance.h"
#include "evaluation/record_sums.h"
#include "host/missing.h"
#include "integration/evaluation_parts.h"
#include "matrix/packed.h"
#include "modes/joint_density.h"
#include "modes/mode_search.h"
#include "parallel/worker_pool.h"

#include <atomic>

namespace torvale::integration {

using matrix::packed_index;
using model::BatchWork;
using model::NX;
using model::REFFECT;
using model::TVLThreadCtx;

namespace {

// out = A x, A packed of order n.
void packed_product(const double* a, const double* x, int n, double* out)
{
  for (int i = 0; i < n; ++i) {
    out[i] = 0.0;
    for (int k = 0; k < n; ++k) out[i] += a[i >= k ? packed_index(i, k) : packed_index(k, i)] * x[k];
  }
}

class PosteriorLoop {
public:
  PosteriorLoop(NX& n, Posterior& out) : n_(n), reff_(n.leaf()), out_(out), nr_(reff_.nr), nrs_(reff_.nrs), np_(n.nparm)
  {
    const std::size_t subjects = reff_.SubInfo.size();
    out.nr = nr_;
    out.estimate.assign(subjects * static_cast<std::size_t>(nr_), host::missing);
    out.covariance.assign(subjects * static_cast<std::size_t>(nrs_), host::missing);
    out.derivative.assign(subjects * static_cast<std::size_t>(nr_ * np_), host::missing);
    out.known.assign(subjects, 0);
    for (auto& ctx : n.ctx) {
      ctx->frame->set_parameters(n.parm.data());
      ctx->batch.prior_loaded = false;
    }
    if (n.method == 4) {
      out.points = support_size(reff_);
      out.probability.assign(subjects * static_cast<std::size_t>(out.points), host::missing);
      out.probability_by.assign(subjects * static_cast<std::size_t>(out.points * np_), host::missing);
      return;
    }
    work_.resize(n.ctx.size());
    for (Work& w : work_) {
      w.cross.resize(static_cast<std::size_t>(nr_ * np_) * static_cast<std::size_t>(n.ctx[0]->batch.mode_stride));
      w.effects.resize(static_cast<std::size_t>(4 * nr_));
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
  struct Work {
    std::vector<double> cross;   // nr x np rows of mode_stride columns: cross derivatives, summed over records
    std::vector<double> effects; // four vectors of nr
  };

  int batch(TVLThreadCtx& ctx, int context, const model::Batch& batch)
  {
    BatchWork& b = ctx.batch;
    take_batch(n_, ctx, batch);
    if (n_.method == 4) return support_posteriors(n_, ctx, out_);
    if (n_.method == 1 && !n_.lb) return linear_posteriors(n_, ctx, out_);
    Work& w = work_[static_cast<std::size_t>(context)];
    if (const int rc = evaluation::load_priors(n_, ctx, true); rc > 2) return rc;
    if (const int rc = modes::tvlebes(n_, ctx); rc > 2) return rc;
    int good = 0;
    for (int slot = 0; slot < b.slots; ++slot) {
      if (b.failure[static_cast<std::size_t>(slot)] != 0) continue;
      b.active[static_cast<std::size_t>(good)] = slot;
      modes::place_point<0>(n_, b, slot, good++);
    }
    ctx.frame->set_points(b.ran.data(), good, static_cast<int>(b.pair_stride));
    std::fill(w.cross.begin(), w.cross.end(), 0.0);
    const int rc =
        evaluation::tvllogl(n_, ctx, {b.active.data(), good, 1},
                            {n_.programs.cross.code, n_.programs.cross.outputs, w.cross.data(), b.mode_stride});
    if (rc > 2) return rc;
    for (int a = 0; a < good; ++a) keep(b, w, b.active[static_cast<std::size_t>(a)], a);
    return 0;
  }

  void keep(const BatchWork& b, Work& w, int slot, int column)
  {
    const auto subject = static_cast<std::size_t>(b.subject[static_cast<std::size_t>(slot)]);
    double* const u = out_.estimate.data() + subject * static_cast<std::size_t>(nr_);
    for (int i = 0; i < nr_; ++i) u[i] = b.ran[static_cast<std::size_t>(i * b.pair_stride + column)];
    double* const v = out_.covariance.data() + subject * static_cast<std::size_t>(nrs_);
    covariance_of_effects(b, slot, v);

    const double* const slope = b.slope.data() + static_cast<long>(slot) * nr_;
    const double* const curve = b.curve.data() + static_cast<long>(slot) * nrs_;
    const double* const argument =
        b.arguments.data() + modes::prior_of(n_, slot) * reff_.setup.places + reff_.argument_derivative(0, 0, np_);
    double* const step = w.effects.data();
    double* const row = step + nr_;
    double* const pull = row + nr_;
    double* const d = out_.derivative.data() + subject * static_cast<std::size_t>(nr_ * np_);
    for (int j = 0; j < np_; ++j) {
      for (int i = 0; i < nr_; ++i) {
        step[i] = argument[i * np_ + j];
        for (int k = 0; k < nr_; ++k)
          step[i] += argument[(nr_ + (i >= k ? packed_index(i, k) : packed_index(k, i))) * np_ + j] * slope[k];
      }
      packed_product(curve, step, nr_, row);
      for (int i = 0; i < nr_; ++i) row[i] += w.cross[static_cast<std::size_t>((i * np_ + j) * b.mode_stride + column)];
      packed_product(v, row, nr_, pull);
      for (int i = 0; i < nr_; ++i) d[i * np_ + j] = step[i] + pull[i];
    }
    out_.known[subject] = 1;
  }

  // V = L (inverse Hessian by z) L', u = m + L z.
  void covariance_of_effects(const BatchWork& b, int slot, double* v) const
  {
    const double* const l = b.factor.data() + modes::prior_of(n_, slot) * nrs_;
    const double* const c = b.covariance.data() + static_cast<long>(slot) * nrs_;
    for (int i = 0; i < nr_; ++i)
      for (int j = 0; j <= i; ++j) {
        double sum = 0.0;
        for (int p = 0; p <= i; ++p)
          for (int q = 0; q <= j; ++q)
            sum += l[packed_index(i, p)] * c[p >= q ? packed_index(p, q) : packed_index(q, p)] * l[packed_index(j, q)];
        v[packed_index(i, j)] = sum;
      }
  }

  NX& n_;
  const REFFECT& reff_;
  Posterior& out_;
  const int nr_, nrs_, np_;
  std::vector<Work> work_; // per context
  std::atomic<int> ended_{0};
};

} // namespace

int find_posterior(NX& n, Posterior& out)
{
  PosteriorLoop loop(n, out);
  const auto items = static_cast<long>(n.batches.size());
  if (n.workers != nullptr)
    n.workers->run(items, loop);
  else
    for (long item = 0; item < items; ++item) loop(0, item);
  return loop.ended();
}

} // namespace torvale::integration
