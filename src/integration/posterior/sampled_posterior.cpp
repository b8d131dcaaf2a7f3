// The posterior by importance samples: mean and covariance of the effects from the weighted points.

#include "integration/posterior/posterior_work.h"

#include "integration/subjects/integrator.h"
#include "matrix/packed.h"
#include "modes/mode_search.h"

#include "integration/subjects/evaluation_parts.h"

#include <algorithm>

namespace torvale::integration {

using matrix::packed_index;
using model::BatchWork;
using model::NX;
using model::TVLThreadCtx;

namespace {

class SampledPosterior final : public PosteriorWork {
public:
  SampledPosterior(const NX& n, TVLThreadCtx& ctx)
      : n_(n), ctx_(ctx), nr_(n.leaf().nr), nrs_(n.leaf().nrs), map_(static_cast<std::size_t>(nr_ * nr_))
  {
  }

  int run(Posterior& out) override
  {
    if (const int rc = adaptive_quadrature().evaluate(n_, ctx_, true); rc > 2) return rc;
    const BatchWork& b = ctx_.batch;
    for (int slot = 0; slot < b.slots; ++slot) {
      const auto s = static_cast<std::size_t>(slot);
      if (b.failure[s] == 0 && b.total[s] > 0.0) keep(slot, out);
    }
    return 0;
  }

private:
  // u = m + L (z + s C x), so that the moments of u follow from those of the standard points x.
  void keep(int slot, Posterior& out)
  {
    const BatchWork& b = ctx_.batch;
    const auto subject = static_cast<std::size_t>(b.subject[static_cast<std::size_t>(slot)]);
    const long p = modes::prior_of(n_, slot);
    const double* const m = b.mean.data() + p * nr_;
    const double* const l = b.factor.data() + p * nrs_;
    const double* const c = b.spread.data() + static_cast<long>(slot) * nrs_;
    const double* const z = b.z.data() + static_cast<long>(slot) * nr_;
    const double* const first = b.point_moments.data() + static_cast<long>(slot) * (nr_ + nrs_);
    const double* const second = first + nr_;
    const double total = b.total[static_cast<std::size_t>(slot)];
    for (int i = 0; i < nr_; ++i)
      for (int j = 0; j < nr_; ++j) {
        double t = 0.0; // s L C
        for (int k = j; k <= i; ++k) t += l[packed_index(i, k)] * c[packed_index(k, j)];
        map_[static_cast<std::size_t>(i * nr_ + j)] = n_.qscale * root_two * t;
      }
    double* const u = out.estimate.data() + subject * static_cast<std::size_t>(nr_);
    double* v = out.covariance.data() + subject * static_cast<std::size_t>(nrs_);
    for (int i = 0; i < nr_; ++i) {
      u[i] = m[i];
      for (int k = 0; k <= i; ++k) u[i] += l[packed_index(i, k)] * z[k] + at(i, k) * first[k] / total;
      for (int j = 0; j <= i; ++j) {
        double t = 0.0;
        for (int a = 0; a <= i; ++a)
          for (int e = 0; e <= j; ++e)
            t += at(i, a) * at(j, e) *
                 (second[packed_index(std::max(a, e), std::min(a, e))] - first[a] * first[e] / total) / total;
        *v++ = t;
      }
    }
    keep_prior(n_, b, slot, out);
    out.known[subject] = 1;
  }

  double at(int i, int j) const { return map_[static_cast<std::size_t>(i * nr_ + j)]; }

  const NX& n_;
  TVLThreadCtx& ctx_;
  const int nr_, nrs_;
  std::vector<double> map_; // s L C, dense
};

} // namespace

std::unique_ptr<PosteriorWork> sampled_posterior(const NX& n, TVLThreadCtx& ctx)
{
  return std::make_unique<SampledPosterior>(n, ctx);
}

} // namespace torvale::integration
