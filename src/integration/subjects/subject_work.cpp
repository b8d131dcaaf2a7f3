#include "integration/subjects/evaluation_parts.h"

#include "evaluation/record_sums.h"
#include "modes/joint_density.h"
#include "modes/mode_search.h"

#include <algorithm>

namespace torvale::integration {

using model::BatchWork;
using model::BlockWork;
using model::ModelLists;
using model::NX;
using model::REFFECT;

void size_block(const ModelLists& n, BlockWork& block)
{
  long nr = 0;
  for (const REFFECT& reff : n.reff) nr = std::max<long>(nr, reff.nr);
  const long nrs = nr * (nr + 1) / 2, bordered = (nr + 1) * (nr + 2) / 2;
  size(block.gi, nrs);
  size(block.gic, nrs);
  size(block.singGr, nr);
  size(block.hessumat, bordered);
  size(block.hessumat0, bordered);
  size(block.dfr, nr + 1);
  size(block.work1, std::max(nrs, nr + 1));
  size(block.work2, 5 * nr);
  size(block.work3, nrs + 3 * nr);
}

void size_subject_work(const NX& n, model::TVLThreadCtx& ctx)
{
  const REFFECT& reff = n.leaf();
  BatchWork& b = ctx.batch;
  const long slots = static_cast<long>(b.subject.size()), nr = reff.nr, nrs = reff.nrs;
  const long priors = reff.setup_varies ? slots : 1;
  size_block(n, ctx.block);
  constexpr long spare = 16; // for modes that a batch's evaluation of everything at the modes has just missed
  b.mode_stride = (slots + 7) / 8 * 8 + spare;
  b.pair_stride = evaluation::most_pairs + 8; // rows a power of two apart would share the lines of the caches
  size(b.ran, nr * b.pair_stride);
  size(b.search, slots);
  size(b.parameter_step, n.nparm);
  size(b.mean, priors * nr);
  size(b.factor, priors * nrs);
  size(b.arguments, priors * reff.setup.places);
  size(b.outputs, reff.setup.places);
  size(b.null_scale, nr);
  for (std::vector<double>* v : {&b.z, &b.zold, &b.slope}) size(*v, slots * nr);
  for (std::vector<double>* v : {&b.curve, &b.covariance, &b.spread}) size(*v, slots * nrs);
  size(b.mode_sums, n.programs.mode.places * b.mode_stride);
  const model::ModelPrograms& p = n.programs;
  size(b.curvature_sums, (p.closing ? p.closing_gradient(p.gradient.places) : p.curvature.places) * b.mode_stride);
}

void keep_trial_mode(NX& n, const model::TVLThreadCtx& ctx, int slot)
{
  const BatchWork& b = ctx.batch;
  const auto subject = static_cast<std::size_t>(b.subject[static_cast<std::size_t>(slot)]);
  const int nr = n.leaf().nr;
  const long p = modes::prior_of(n, slot);
  const double* l = b.factor.data() + p * n.leaf().nrs;
  const double* const z = b.z.data() + static_cast<long>(slot) * nr;
  double* const u = n.ebtrial.data() + subject * static_cast<std::size_t>(nr);
  for (int i = 0; i < nr; ++i) {
    u[i] = b.mean[static_cast<std::size_t>(p * nr + i)];
    for (int k = 0; k <= i; ++k) u[i] += l[k] * z[k];
    l += i + 1;
  }
  n.ebtrial_known[subject] = 1;
}

namespace {

// With u. = s + V (ll_u. + ll_uu s) = W s + V ll_u., s = m. + G. ll_u, V = L H^-1 L' and W = I + V ll_uu.
template <int NR> void mode_derivative(const NX& n, const BatchWork& b, int slot, float* out)
{
  constexpr int capacity = NR > 0 ? NR : modes::most_effects;
  const int nr = NR > 0 ? NR : n.leaf().nr, nrs = nr * (nr + 1) / 2, np = n.nparm;
  const auto at = [](int i, int j) { return i < j ? j * (j + 1) / 2 + i : i * (i + 1) / 2 + j; };
  const REFFECT& reff = n.leaf();
  const long p = modes::prior_of(n, slot);
  const double* const l = b.factor.data() + p * nrs;
  const double* const argument = b.arguments.data() + p * reff.setup.places + reff.argument_derivative(0, 0, np);
  const double* const slope = b.slope.data() + static_cast<long>(slot) * nr;
  const double* const curve = b.curve.data() + static_cast<long>(slot) * nrs;
  const double* const inverse = b.covariance.data() + static_cast<long>(slot) * nrs;
  const double* const cross = b.curvature_sums.data() + b.column[static_cast<std::size_t>(slot)];
  double lh[capacity * capacity], v[capacity * capacity], w[capacity * capacity];
  for (int i = 0; i < nr; ++i)
    for (int j = 0; j < nr; ++j) {
      double t = 0.0;
      for (int k = 0; k <= i; ++k) t += l[at(i, k)] * inverse[at(k, j)];
      lh[i * nr + j] = t;
    }
  for (int i = 0; i < nr; ++i)
    for (int j = 0; j < nr; ++j) {
      double t = 0.0;
      for (int k = 0; k <= j; ++k) t += lh[i * nr + k] * l[at(j, k)];
      v[i * nr + j] = t;
    }
  for (int i = 0; i < nr; ++i)
    for (int j = 0; j < nr; ++j) {
      double t = i == j ? 1.0 : 0.0;
      for (int k = 0; k < nr; ++k) t += v[i * nr + k] * curve[at(k, j)];
      w[i * nr + j] = t;
    }
  for (int j = 0; j < np; ++j) {
    double s[capacity], c[capacity];
    for (int i = 0; i < nr; ++i) {
      s[i] = argument[i * np + j];
      for (int k = 0; k < nr; ++k) s[i] += argument[(nr + at(i, k)) * np + j] * slope[k];
      c[i] = cross[n.programs.cross_place(i, j) * b.mode_stride];
    }
    for (int i = 0; i < nr; ++i) {
      double t = 0.0;
      for (int k = 0; k < nr; ++k) t += w[i * nr + k] * s[k] + v[i * nr + k] * c[k];
      out[i * np + j] = static_cast<float>(t);
    }
  }
}

} // namespace

void keep_mode_derivative(NX& n, const model::TVLThreadCtx& ctx, int slot)
{
  const BatchWork& b = ctx.batch;
  const int nr = n.leaf().nr;
  float* const out = n.ebtrial_by.data() + static_cast<long>(b.subject[static_cast<std::size_t>(slot)]) * nr * n.nparm;
  switch (nr) {
  case 1:
    return mode_derivative<1>(n, b, slot, out);
  case 2:
    return mode_derivative<2>(n, b, slot, out);
  case 3:
    return mode_derivative<3>(n, b, slot, out);
  default:
    return mode_derivative<0>(n, b, slot, out);
  }
}

} // namespace torvale::integration
