// The gradient of one subject's integral, by the adjoint method: the sums over points do not grow with the number of
// parameters, and the chain rule through means, mode, scale and factor of G is made once.
//
// With u = m + L z, points z_t = zm + s C x_t (zm the mode, C C' the inverse H^-1 of the Hessian by z, s the scale),
// weights e_t (sum 1), and phi = ll(theta, m + L z) - z'z/2, the objective is
//     v = -log sum w_t exp phi(z_t) + nr/2 log 2 pi - nr log s + 1/2 log det H.
// Per parameter, a dot for its derivative:
//     -v. = sum e_t ll. + r'm. + <L., E> + vb'zm. + <C., A> - 1/2 (log det H).
//       r = sum e ll_u,   vb = sum e (L'll_u - z),   E = sum e ll_u z',   A = s sum e (L'll_u - z) x'
// The scale: C. = C low(M), M = C'T C, T = -H., low: the lower triangle with half the diagonal; so
//     <C., A> - 1/2 (log det H). = <T, Z>,   Z = C (P + I/2) C',   P = symmetric part of the lower triangle of C'A.
// The mode: H zm. = L'(ll_u. + ll_uu (m. + L.zm)) + L.'ll_u, all at the mode, and
//     T = L'(ll_uu. + ll_uuu [m. + L.zm + L zm.]) L + L.'ll_uu L + L'll_uu L.
// Collecting, with Zu = L Z L', tau_k = <ll_uuu_k, Zu>, lambda = H^-1 (vb + L'tau), lu = L lambda:
//     -v. = sum e ll. + lu'll_u. + <Zu, ll_uu.> + (r + tau + ll_uu lu)'m.
//           + <L., E + (tau + ll_uu lu) zm' + 2 ll_uu L Z + ll_u lambda'>
// and the last term becomes one in G. by the adjoint of the Cholesky factorization, which passes over directions
// without variance. Without the mode's curvature as scale C = I and Z = tau = 0; without a mode zm = lambda = 0 too.
// (Own derivation.)

#include "evaluation/cholesky_derivative.h"
#include "integration/subjects/evaluation_parts.h"
#include "modes/joint_density.h"
#include "modes/mode_search.h"
#include "modes/packed.h"

#include <algorithm>

namespace torvale::integration {

using model::BatchWork;
using model::NX;
using model::REFFECT;
using model::TVLThreadCtx;
using modes::packed;

namespace {

template <int NR> class SubjectGradient {
public:
  static constexpr int capacity = NR > 0 ? NR : modes::most_effects;
  static constexpr int triangle = capacity * (capacity + 1) / 2;

  SubjectGradient(const NX& n, const TVLThreadCtx& ctx, int slot)
      : n_(n), b_(ctx.batch), nr_(n.leaf().nr), np_(n.nparm), slot_(slot), prior_(modes::prior_of(n, slot)),
        s_(n.qscale * root_two)
  {
    l_ = b_.factor.data() + prior_ * nrs();
    c_ = b_.spread.data() + static_cast<long>(slot) * nrs();
    zm_ = b_.z.data() + static_cast<long>(slot) * nr();
    slope_ = b_.slope.data() + static_cast<long>(slot) * nr();
    curve_ = b_.curve.data() + static_cast<long>(slot) * nrs();
    const auto s = static_cast<std::size_t>(slot);
    per_total_ = 1.0 / b_.total[s];
    x1_ = b_.point_moments.data() + static_cast<long>(slot) * (nr() + nrs());
    x2_ = x1_ + nr();
    u1_ = b_.slope_moments.data() + static_cast<long>(slot) * (nr() + nr() * nr());
    ux_ = u1_ + nr();
  }

  void compute(double* gradient, double* weights)
  {
    weights_ = weights;
    means_over_points();
    const double* const direct = b_.direct.data() + static_cast<long>(slot_) * np_;
    for (int j = 0; j < np_; ++j) gradient[j] = -per_total_ * direct[j];
    if (weights_ != nullptr) weigh(0, per_total_);
    if (n_.adaptive) through_mode(gradient);
    evaluation::cholesky_adjoint(nr(), l_, factor_bar_, n_.singchol);
    through_arguments(gradient);
  }

private:
  int nr() const { return NR > 0 ? NR : nr_; }
  int nrs() const { return nr() * (nr() + 1) / 2; }

  // r into mean_bar, E into factor_bar: what there is without a mode.
  void means_over_points()
  {
    for (int i = 0; i < nr(); ++i) {
      mean_bar_[i] = per_total_ * u1_[i];
      for (int j = 0; j <= i; ++j) {
        double t = 0.0; // (sum e ll_u x' C')(i, j)
        for (int k = 0; k <= j; ++k) t += ux_[i * nr() + k] * c_[packed(j, k)];
        factor_bar_[packed(i, j)] = per_total_ * (u1_[i] * zm_[j] + s_ * t);
      }
    }
  }

  void through_mode(double* gradient)
  {
    double zbar[capacity]; // sum e z
    double vb[capacity];
    for (int i = 0; i < nr(); ++i) {
      double cx = 0.0, lu = 0.0;
      for (int k = 0; k <= i; ++k) cx += c_[packed(i, k)] * x1_[k];
      for (int k = i; k < nr(); ++k) lu += l_[packed(k, i)] * u1_[k];
      zbar[i] = zm_[i] + s_ * per_total_ * cx;
      vb[i] = per_total_ * lu - zbar[i];
    }
    const long stride = b_.mode_stride;
    const double* const cross = b_.curvature_sums.data() + b_.column[static_cast<std::size_t>(slot_)];
    const double* const third = cross + n_.programs.third_place(0, 0) * stride;
    double tau[capacity] = {};
    double zu[triangle] = {}; // Zu, elements off the diagonal doubled for the inner products
    if (n_.adscale) {
      scale_adjoint();
      for (int i = 0; i < nr(); ++i)
        for (int j = 0; j <= i; ++j) zu[packed(i, j)] = (i == j ? 1.0 : 2.0) * congruence(i, j);
      for (int k = 0; k < nr(); ++k) tau[k] = inner(third + (np_ + k) * nrs() * stride, zu, stride);
    }

    double lambda[capacity], lu[capacity], pull[capacity]; // pull = tau + ll_uu lu
    const double* const covariance = b_.covariance.data() + static_cast<long>(slot_) * nrs();
    for (int i = 0; i < nr(); ++i) {
      double t = vb[i];
      for (int k = i; k < nr(); ++k) t += l_[packed(k, i)] * tau[k];
      vb[i] = t;
    }
    for (int i = 0; i < nr(); ++i) {
      lambda[i] = 0.0;
      for (int k = 0; k < nr(); ++k) lambda[i] += covariance[packed(i, k)] * vb[k];
    }
    for (int i = 0; i < nr(); ++i) {
      lu[i] = 0.0;
      for (int k = 0; k <= i; ++k) lu[i] += l_[packed(i, k)] * lambda[k];
    }
    for (int i = 0; i < nr(); ++i) {
      pull[i] = tau[i];
      for (int k = 0; k < nr(); ++k) pull[i] += curve_[packed(i, k)] * lu[k];
      mean_bar_[i] += pull[i];
      for (int j = 0; j <= i; ++j) {
        double t = pull[i] * zm_[j] + slope_[i] * lambda[j];
        if (n_.adscale) t += 2.0 * curve_scale(i, j);
        factor_bar_[packed(i, j)] += t;
      }
    }
    if (weights_ != nullptr) {
      for (int k = 0; k < nr(); ++k) weigh(1 + k, lu[k]);
      for (int k = 0; k < nrs(); ++k) weigh(1 + nr() + k, zu[k]);
      for (const int j : n_.programs.factored.plain) add_curvature(gradient, j, cross, third, lu, zu);
    } else {
      for (int j = 0; j < np_; ++j) add_curvature(gradient, j, cross, third, lu, zu);
    }
  }

  void add_curvature(double* gradient, int j, const double* cross, const double* third, const double* lu,
                     const double* zu) const
  {
    const long stride = b_.mode_stride;
    for (int k = 0; k < nr(); ++k) gradient[j] -= lu[k] * cross[(k * np_ + j) * stride];
    if (n_.adscale) gradient[j] -= inner(third + j * nrs() * stride, zu, stride);
  }

  void weigh(int source, double weight) { weights_[source * b_.factored.slot_stride] = weight; }

  // Z = C (P + I/2) C' into z_, and L Z into lz_.
  void scale_adjoint()
  {
    double a[capacity * capacity]; // A = s (L' sum e ll_u x' - zm x1' - s C X2)
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j < nr(); ++j) {
        double t = -zm_[i] * x1_[j];
        for (int k = i; k < nr(); ++k) t += l_[packed(k, i)] * ux_[k * nr() + j];
        for (int k = 0; k <= i; ++k) t -= s_ * c_[packed(i, k)] * x2_[packed(k, j)];
        a[i * nr() + j] = s_ * per_total_ * t;
      }
    double p[triangle]; // P + I/2
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j <= i; ++j) {
        double t = 0.0; // (C'A)(i, j)
        for (int k = i; k < nr(); ++k) t += c_[packed(k, i)] * a[k * nr() + j];
        p[packed(i, j)] = 0.5 * t + (i == j ? 0.5 : 0.0);
      }
    double cp[capacity * capacity]; // C (P + I/2)
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j < nr(); ++j) {
        double t = 0.0;
        for (int k = 0; k <= i; ++k) t += c_[packed(i, k)] * p[packed(k, j)];
        cp[i * nr() + j] = t;
      }
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j <= i; ++j) {
        double t = 0.0;
        for (int k = 0; k <= j; ++k) t += cp[i * nr() + k] * c_[packed(j, k)];
        z_[packed(i, j)] = t;
      }
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j < nr(); ++j) {
        double t = 0.0;
        for (int k = 0; k <= i; ++k) t += l_[packed(i, k)] * z_[packed(k, j)];
        lz_[i * nr() + j] = t;
      }
  }

  double congruence(int i, int j) const // (L Z L')(i, j)
  {
    double t = 0.0;
    for (int k = 0; k <= j; ++k) t += lz_[i * nr() + k] * l_[packed(j, k)];
    return t;
  }

  double curve_scale(int i, int j) const // (ll_uu L Z)(i, j)
  {
    double t = 0.0;
    for (int k = 0; k < nr(); ++k) t += curve_[packed(i, k)] * lz_[k * nr() + j];
    return t;
  }

  double inner(const double* rows, const double* weights, long stride) const
  {
    double t = 0.0;
    for (int k = 0; k < nrs(); ++k) t += weights[k] * rows[k * stride];
    return t;
  }

  // Means and elements of G by the parameters.
  void through_arguments(double* gradient) const
  {
    const REFFECT& reff = n_.leaf();
    const double* row = b_.arguments.data() + prior_ * reff.setup.places + reff.argument_derivative(0, 0, np_);
    for (int a = 0; a < reff.nd; ++a, row += np_) {
      const double bar = a < nr() ? mean_bar_[a] : factor_bar_[a - nr()];
      for (int j = 0; j < np_; ++j) gradient[j] -= bar * row[j];
    }
  }

  const NX& n_;
  const BatchWork& b_;
  const int nr_, np_, slot_;
  const long prior_;
  const double s_;
  const double *l_, *c_, *zm_, *slope_, *curve_; // L, C, mode, ll_u and ll_uu at the mode
  const double *x1_, *x2_, *u1_, *ux_;           // unscaled sums: e x, e x x', e ll_u, e ll_u x'
  double per_total_;
  double* weights_ = nullptr;   // of the coefficients of factored derivatives, by source; null: there are none
  double mean_bar_[capacity];   // adjoint of the means
  double factor_bar_[triangle]; // adjoint of L, then of G
  double z_[triangle], lz_[capacity * capacity];
};

} // namespace

void subject_gradient(const NX& n, const TVLThreadCtx& ctx, int slot, double* gradient, double* weights)
{
  switch (n.leaf().nr) {
  case 1:
    return SubjectGradient<1>(n, ctx, slot).compute(gradient, weights);
  case 2:
    return SubjectGradient<2>(n, ctx, slot).compute(gradient, weights);
  case 3:
    return SubjectGradient<3>(n, ctx, slot).compute(gradient, weights);
  default:
    return SubjectGradient<0>(n, ctx, slot).compute(gradient, weights);
  }
}

} // namespace torvale::integration
