// The posterior of one level: modes by the search that evaluations use.

#include "integration/posterior/posterior_work.h"

#include "evaluation/random_covariance.h"
#include "evaluation/record_sums.h"
#include "integration/subjects/integrator.h"
#include "matrix/packed.h"
#include "modes/joint_density.h"
#include "modes/mode_search.h"

#include <algorithm>
#include <numeric>

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

class ModePosterior final : public PosteriorWork {
public:
  ModePosterior(const NX& n, TVLThreadCtx& ctx)
      : n_(n), ctx_(ctx), reff_(n.leaf()), nr_(reff_.nr), nrs_(reff_.nrs), np_(n.nparm)
  {
    cross_.resize(static_cast<std::size_t>(nr_ * np_) * static_cast<std::size_t>(ctx.batch.mode_stride));
    effects_.resize(static_cast<std::size_t>(3 * nr_));
  }

  int run(Posterior& out) override
  {
    BatchWork& b = ctx_.batch;
    if (const int rc = evaluation::load_priors(n_, ctx_, true); rc > 2) return rc;
    if (const int rc = modes::tvlebes(n_, ctx_); rc > 2) return rc;
    int good = 0;
    for (int slot = 0; slot < b.slots; ++slot) {
      if (b.failure[static_cast<std::size_t>(slot)] != 0) continue;
      b.active[static_cast<std::size_t>(good)] = slot;
      modes::place_point<0>(n_, b, slot, good++);
    }
    ctx_.frame->set_points(b.ran.data(), good, static_cast<int>(b.pair_stride));
    std::fill(cross_.begin(), cross_.end(), 0.0);
    const int rc =
        evaluation::tvllogl(n_, ctx_, {b.active.data(), good, 1}, {n_.programs.cross, cross_.data(), b.mode_stride});
    if (rc > 2) return rc;
    for (int a = 0; a < good; ++a) keep(b.active[static_cast<std::size_t>(a)], a, out);
    return 0;
  }

private:
  void keep(int slot, int column, Posterior& out)
  {
    const BatchWork& b = ctx_.batch;
    const auto subject = static_cast<std::size_t>(b.subject[static_cast<std::size_t>(slot)]);
    double* const u = out.estimate.data() + subject * static_cast<std::size_t>(nr_);
    for (int i = 0; i < nr_; ++i) u[i] = b.ran[static_cast<std::size_t>(i * b.pair_stride + column)];
    double* const v = out.covariance.data() + subject * static_cast<std::size_t>(nrs_);
    covariance_of_effects(slot, v);
    keep_prior(n_, b, slot, out);

    const double* const slope = b.slope.data() + static_cast<long>(slot) * nr_;
    const double* const curve = b.curve.data() + static_cast<long>(slot) * nrs_;
    const double* const argument =
        b.arguments.data() + modes::prior_of(n_, slot) * reff_.setup.places + reff_.argument_derivative(0, 0, np_);
    double* const step = effects_.data();
    double* const row = step + nr_;
    double* const pull = row + nr_;
    double* const d = out.derivative.data() + subject * static_cast<std::size_t>(nr_ * np_);
    for (int j = 0; j < np_; ++j) {
      for (int i = 0; i < nr_; ++i) {
        step[i] = argument[i * np_ + j];
        for (int k = 0; k < nr_; ++k)
          step[i] += argument[(nr_ + (i >= k ? packed_index(i, k) : packed_index(k, i))) * np_ + j] * slope[k];
      }
      packed_product(curve, step, nr_, row);
      for (int i = 0; i < nr_; ++i) row[i] += cross_[static_cast<std::size_t>((i * np_ + j) * b.mode_stride + column)];
      packed_product(v, row, nr_, pull);
      for (int i = 0; i < nr_; ++i) d[i * np_ + j] = step[i] + pull[i];
    }
    out.known[subject] = 1;
  }

  // V = L (inverse Hessian by z) L', u = m + L z.
  void covariance_of_effects(int slot, double* v) const
  {
    const BatchWork& b = ctx_.batch;
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

  const NX& n_;
  TVLThreadCtx& ctx_;
  const REFFECT& reff_;
  const int nr_, nrs_, np_;
  std::vector<double> cross_;   // nr x np rows of mode_stride columns: cross derivatives, summed over records
  std::vector<double> effects_; // three vectors of nr
};

} // namespace

void keep_prior(const NX& n, const BatchWork& b, int slot, Posterior& out)
{
  const REFFECT& reff = n.leaf();
  const int nr = reff.nr, np = n.nparm;
  const auto subject = static_cast<std::size_t>(b.subject[static_cast<std::size_t>(slot)]);
  const long p = modes::prior_of(n, slot);
  const double* const l = b.factor.data() + p * reff.nrs;
  const double* const by = b.arguments.data() + p * reff.setup.places + reff.argument_derivative(0, 0, np);
  std::copy_n(b.mean.data() + p * nr, nr, out.mean.data() + subject * static_cast<std::size_t>(nr));
  std::copy_n(by, nr * np, out.mean_by.data() + subject * static_cast<std::size_t>(nr * np));
  double* g = out.prior.data() + subject * static_cast<std::size_t>(reff.nrs);
  for (int i = 0; i < nr; ++i)
    for (int j = 0; j <= i; ++j)
      *g++ = std::inner_product(l + packed_index(i, 0), l + packed_index(i, j) + 1, l + packed_index(j, 0), 0.0);
}

std::unique_ptr<PosteriorWork> mode_posterior(const NX& n, TVLThreadCtx& ctx)
{
  return std::make_unique<ModePosterior>(n, ctx);
}

} // namespace torvale::integration
