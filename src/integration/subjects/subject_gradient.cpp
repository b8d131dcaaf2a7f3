// The gradients of the subjects' integrals, by the adjoint method: the sums over points do not grow with the number of
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
// without variance. zm may be a step s short of the mode (modes::remainder): the derivatives by theta of the log joint
// density are then those at the mode, to first order in s, as lambda has vb in it; v is made so (finish_step). Without
// the mode's curvature as scale C = I and Z = tau = 0; without a mode zm = lambda = 0 too. (Own derivation.)

#include "evaluation/cholesky_derivative.h"
#include "evaluation/slot_group.h"
#include "integration/subjects/evaluation_parts.h"
#include "modes/joint_density.h"
#include "modes/mode_search.h"
#include "modes/packed.h"
#include "modes/unrolled.h"

#include <algorithm>

namespace torvale::integration {

using evaluation::Four;
using evaluation::SlotGroup;
using model::BatchWork;
using model::NX;
using model::REFFECT;
using model::TVLThreadCtx;
using modes::packed;

namespace {

// The gradients of the slots that stand side by side in T, a double or Four.
template <int NR, class T, bool AtMode> class SubjectGradients {
public:
  static constexpr int capacity = NR > 0 ? NR : modes::most_effects;
  static constexpr int triangle = capacity * (capacity + 1) / 2;

  SubjectGradients(const NX& n, BatchWork& b, const SlotGroup<T>& slots)
      : n_(n), b_(b), nr_(n.leaf().nr), np_(n.nparm), slots_(slots), columns_(slots.through(b.column.data())),
        factored_(b.factored.in_use), s_(n.qscale * root_two)
  {
    for (int k = 0; k < nrs(); ++k) l_[k] = slots_.gather_or_share(n_.leaf().setup_varies, b.factor.data() + k, nrs());
    if (!at_mode_) take(c_, b.spread, nrs());
    take(zm_, b.z, nr());
    take(slope_, b.slope, nr());
    take(curve_, b.curve, nrs());
    if (n.adaptive) take(inverse_, b.covariance, nrs());
    per_total_ = at_mode_ ? T{} + 1.0 : 1.0 / slots_.from_row(b.total.data());
    for (int i = 0; i < nr(); ++i) u1_[i] = per_total_ * slope_sum(i);
  }

  void compute()
  {
    if (!n_.adscale) std::fill_n(zu_, nrs(), T{});
    means_over_points();
    if (n_.adaptive) through_mode();
    evaluation::cholesky_adjoint(nr(), l_, factor_bar_, n_.singchol);
    if (factored_) keep_weights();
    const model::ModelProgram& direct = factored_ ? n_.programs.factored.gradient : n_.programs.gradient;
    auto place = direct.outputs.begin();
    for (int j = 0; j < np_; ++j) {
      T g = {};
      while (place != direct.outputs.end() && *place < n_.programs.by_parameter(j)) ++place;
      if (place != direct.outputs.end() && *place == n_.programs.by_parameter(j)) g -= through_likelihood(j);
      slots_.scatter(g - through_arguments(j), b_.gradients.data() + j, np_);
    }
  }

private:
  int nr() const { return NR > 0 ? NR : nr_; }
  int nrs() const { return nr() * (nr() + 1) / 2; }

  // `count` numbers of each slot.
  void take(T* to, const std::vector<double>& from, int count) const
  {
    for (int k = 0; k < count; ++k) to[k] = slots_.gather(from.data() + k, count);
  }

  T at_mode(int place) const { return columns_.from_row(b_.curvature_sums.data() + place * b_.mode_stride); }
  T cross(int k, int j) const { return at_mode(n_.programs.cross_place(k, j)); }
  // Unscaled sums over the points: of e x, e x x', e ll_u and e ll_u x'. 0 is the only point that is taken at the mode.
  T point_sum(int i) const { return slots_.gather(b_.point_moments.data() + i, nr() + nrs()); }
  T point_square(int k) const { return slots_.gather(b_.point_moments.data() + nr() + k, nr() + nrs()); }
  T slope_sum(int i) const
  {
    return at_mode_ ? at_mode(n_.programs.closing_gradient(n_.programs.by_effect(i)))
                    : slots_.gather(b_.slope_moments.data() + i, nr() + nr() * nr());
  }
  T slope_by_point(int i, int k) const
  {
    return slots_.gather(b_.slope_moments.data() + nr() + i * nr() + k, nr() + nr() * nr());
  }
  T direct(int j) const
  {
    return at_mode_ ? at_mode(n_.programs.closing_gradient(n_.programs.by_parameter(j)))
                    : slots_.gather(b_.direct.data() + j, np_);
  }

  // r into mean_bar, E into factor_bar: what there is without a mode.
  void means_over_points()
  {
    for (int i = 0; i < nr(); ++i) {
      mean_bar_[i] = u1_[i];
      for (int j = 0; j <= i; ++j) factor_bar_[packed(i, j)] = u1_[i] * zm_[j];
    }
    if (at_mode_) return;
    for (int i = 0; i < nr(); ++i) {
      for (int k = 0; k < nr(); ++k) ux_[i * nr() + k] = per_total_ * slope_by_point(i, k);
      x1_[i] = per_total_ * point_sum(i);
    }
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j <= i; ++j) {
        T t = {}; // (sum e ll_u x' C')(i, j)
        for (int k = 0; k <= j; ++k) t += ux_[i * nr() + k] * c_[packed(j, k)];
        factor_bar_[packed(i, j)] += s_ * t;
      }
  }

  void through_mode()
  {
    T vb[capacity];
    for (int i = 0; i < nr(); ++i) {
      vb[i] = -zm_[i];
      for (int k = i; k < nr(); ++k) vb[i] += l_[packed(k, i)] * u1_[k];
      if (at_mode_) continue;
      T cx = {};
      for (int k = 0; k <= i; ++k) cx += c_[packed(i, k)] * x1_[k];
      vb[i] -= s_ * cx;
    }
    T tau[capacity] = {};
    if (n_.adscale) {
      scale_adjoint();
      for (int i = 0; i < nr(); ++i)
        for (int j = 0; j <= i; ++j) zu_[packed(i, j)] = (i == j ? 1.0 : 2.0) * congruence(i, j);
      for (int k = 0; k < nr(); ++k) tau[k] = through_third(np_ + k);
    }

    T lambda[capacity], pull[capacity]; // pull = tau + ll_uu lu
    const T half = at_mode_ ? half_square(vb) : T{};
    for (int i = 0; i < nr(); ++i)
      for (int k = i; k < nr(); ++k) vb[i] += l_[packed(k, i)] * tau[k];
    for (int i = 0; i < nr(); ++i) {
      lambda[i] = T{};
      for (int k = 0; k < nr(); ++k) lambda[i] += inverse_[packed(i, k)] * vb[k];
    }
    finish_step(lambda, half);
    for (int i = 0; i < nr(); ++i) {
      lu_[i] = T{};
      for (int k = 0; k <= i; ++k) lu_[i] += l_[packed(i, k)] * lambda[k];
    }
    for (int i = 0; i < nr(); ++i) {
      pull[i] = tau[i];
      for (int k = 0; k < nr(); ++k) pull[i] += curve_[packed(i, k)] * lu_[k];
      mean_bar_[i] += pull[i];
      for (int j = 0; j <= i; ++j) {
        T t = pull[i] * zm_[j] + slope_[i] * lambda[j];
        if (n_.adscale) t += 2.0 * curve_scale(i, j);
        factor_bar_[packed(i, j)] += t;
      }
    }
  }

  T half_square(const T* v) const // v' H^-1 v / 2
  {
    T t = {};
    for (int i = 0; i < nr(); ++i)
      for (int k = 0; k < nr(); ++k) t += v[i] * (inverse_[packed(i, k)] * v[k]);
    return 0.5 * t;
  }

  // To the end of the step s = H^-1 (L'll_u - zm) that the search had left, and what that adds to -v: s'(vb + L'tau).
  // At the only point vb itself vanishes at the mode, and counts by half.
  void finish_step(const T* lambda, const T& half)
  {
    T pull[capacity], added = -half;
    for (int i = 0; i < nr(); ++i) {
      pull[i] = -zm_[i];
      for (int k = i; k < nr(); ++k) pull[i] += l_[packed(k, i)] * slope_[k];
      added += lambda[i] * pull[i];
    }
    for (int i = 0; i < nr(); ++i) {
      T z = zm_[i];
      for (int k = 0; k < nr(); ++k) z += inverse_[packed(i, k)] * pull[k];
      slots_.scatter(z, b_.z.data() + i, nr());
    }
    slots_.scatter(slots_.from_row(b_.peak.data()) + added, b_.peak.data(), 1);
  }

  // Z = C (P + I/2) C' into z_, and L Z into lz_. At the only point P = 0, and Z is half the inverse Hessian.
  void scale_adjoint()
  {
    if (at_mode_)
      for (int k = 0; k < nrs(); ++k) z_[k] = 0.5 * inverse_[k];
    else
      form_scale_adjoint();
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j < nr(); ++j) {
        T t = {};
        for (int k = 0; k <= i; ++k) t += l_[packed(i, k)] * z_[packed(k, j)];
        lz_[i * nr() + j] = t;
      }
  }

  void form_scale_adjoint()
  {
    T p[triangle]; // P + I/2
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j <= i; ++j) p[packed(i, j)] = T{} + (i == j ? 0.5 : 0.0);
    add_spread(p);
    T cp[capacity * capacity]; // C (P + I/2)
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j < nr(); ++j) {
        T t = {};
        for (int k = 0; k <= i; ++k) t += c_[packed(i, k)] * p[packed(k, j)];
        cp[i * nr() + j] = t;
      }
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j <= i; ++j) {
        T t = {};
        for (int k = 0; k <= j; ++k) t += cp[i * nr() + k] * c_[packed(j, k)];
        z_[packed(i, j)] = t;
      }
  }

  // P of A = s (L' sum e ll_u x' - zm x1' - s C X2).
  void add_spread(T* p) const
  {
    T x2[triangle], a[capacity * capacity];
    for (int k = 0; k < nrs(); ++k) x2[k] = per_total_ * point_square(k);
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j < nr(); ++j) {
        T t = -zm_[i] * x1_[j];
        for (int k = i; k < nr(); ++k) t += l_[packed(k, i)] * ux_[k * nr() + j];
        for (int k = 0; k <= i; ++k) t -= s_ * c_[packed(i, k)] * x2[packed(k, j)];
        a[i * nr() + j] = s_ * t;
      }
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j <= i; ++j) {
        T t = {}; // (C'A)(i, j)
        for (int k = i; k < nr(); ++k) t += c_[packed(k, i)] * a[k * nr() + j];
        p[packed(i, j)] += 0.5 * t;
      }
  }

  T congruence(int i, int j) const // (L Z L')(i, j)
  {
    T t = {};
    for (int k = 0; k <= j; ++k) t += lz_[i * nr() + k] * l_[packed(j, k)];
    return t;
  }

  T curve_scale(int i, int j) const // (ll_uu L Z)(i, j)
  {
    T t = {};
    for (int k = 0; k < nr(); ++k) t += curve_[packed(i, k)] * lz_[k * nr() + j];
    return t;
  }

  T through_third(int w) const // <Zu, derivatives of ll_uu by w>
  {
    T t = {};
    for (int k = 0; k < nrs(); ++k) t += zu_[k] * at_mode(n_.programs.third_place(w, k));
    return t;
  }

  T through_likelihood(int j) const
  {
    T t = per_total_ * direct(j);
    if (!n_.adaptive) return t;
    for (int k = 0; k < nr(); ++k) t += lu_[k] * cross(k, j);
    return n_.adscale ? t + through_third(j) : t;
  }

  // Means and elements of G by a parameter.
  T through_arguments(int j) const
  {
    const REFFECT& reff = n_.leaf();
    T t = {};
    for (int m = reff.moved_first[static_cast<std::size_t>(j)]; m < reff.moved_first[static_cast<std::size_t>(j) + 1];
         ++m) {
      const auto& [a, place] = reff.moved[static_cast<std::size_t>(m)];
      t += (a < nr() ? mean_bar_[a] : factor_bar_[a - nr()]) *
           slots_.gather_or_share(n_.leaf().setup_varies, b_.arguments.data() + place, reff.setup.places);
    }
    return t;
  }

  // Of the coefficients of factored derivatives, by source.
  void keep_weights()
  {
    weigh(0, per_total_);
    if (!n_.adaptive) return;
    for (int k = 0; k < nr(); ++k) weigh(1 + k, lu_[k]);
    for (int k = 0; k < nrs(); ++k) weigh(1 + nr() + k, zu_[k]);
  }
  void weigh(int source, T weight)
  {
    slots_.scatter(weight, b_.factored.weights.data() + source * b_.factored.slot_stride, 1);
  }

  const NX& n_;
  BatchWork& b_;
  const int nr_, np_;
  const SlotGroup<T>& slots_; // not a copy: reading it whole would wait for its slots to be written one by one
  const SlotGroup<T> columns_;
  static constexpr bool at_mode_ = AtMode; // taken_at_modes
  const bool factored_;
  const double s_;
  T l_[triangle], c_[triangle], zm_[capacity], slope_[capacity], curve_[triangle],
      inverse_[triangle]; // L, C, mode, ll_u and ll_uu at the mode, H^-1
  T per_total_;
  T x1_[capacity], u1_[capacity], ux_[capacity * capacity]; // means of x, ll_u, ll_u x'
  T mean_bar_[capacity];                                    // adjoint of the means
  T factor_bar_[triangle];                                  // adjoint of L, then of G
  T z_[triangle], lz_[capacity * capacity];
  T lu_[capacity], zu_[triangle]; // L lambda; Zu, elements off the diagonal doubled for the inner products
};

template <int NR, class T, bool AtMode> void gradients_of(const NX& n, BatchWork& b, int good)
{
  for (int first = 0; first < good; first += SlotGroup<T>::width)
    SubjectGradients<NR, T, AtMode>(n, b, SlotGroup<T>::of_list(b.active.data() + first, good - first)).compute();
}

template <int NR, class T> void gradients_of(const NX& n, BatchWork& b, int good)
{
  if (taken_at_modes(n, b, true))
    gradients_of<NR, T, true>(n, b, good);
  else
    gradients_of<NR, T, false>(n, b, good);
}

template <int NR> TORVALE_AVX2_BUILD void gradients_avx2(const NX& n, BatchWork& b, int good)
{
  gradients_of<NR, Four>(n, b, good);
}

template <int NR> void gradients_of_four(const NX& n, BatchWork& b, int good)
{
  static const auto build = evaluation::build_for_machine(gradients_of<NR, Four>, gradients_avx2<NR>);
  build(n, b, good);
}

} // namespace

void subject_gradients(const NX& n, BatchWork& b)
{
  int good = 0;
  for (int slot = 0; slot < b.slots; ++slot) {
    const auto s = static_cast<std::size_t>(slot);
    if (b.failure[s] == 0 && b.total[s] > 0.0) b.active[static_cast<std::size_t>(good++)] = slot;
  }
  modes::unrolled(n.leaf().nr, [&](auto order) {
    if constexpr (order() > 0)
      gradients_of_four<order()>(n, b, good);
    else
      gradients_of<0, double>(n, b, good);
  });
}

} // namespace torvale::integration
