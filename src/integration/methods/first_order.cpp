// First order: the mean is taken as linear in the random effects, around their mean or (LB) around their mode, and a
// subject's data are then normal with the covariance R + Z G Z'.
//
// At the point of expansion a record has the log likelihood l, the residual e, the variance r and the slopes z of the
// mean; l, c = sum z e / r and A = sum z z' / r over the records are all that is needed. d is the point less the mean m
// of the effects. With
//     c0 = c + A d,  M = (A + G^-1)^-1,  b = M c0,  t = b - d,  g = c - A t
// the objective is
//     v = -l + c'd + d'Ad/2 - c0'b/2 + log|I + GA|/2.
// M = L B^-1 L' with B = I + L'AL, L L' = G: a G without inverse needs no other form. Derivatives: with W = A - A M A
//     -v. = l. + t'c. - <M + t t', A.>/2 + <g g' - W, G.>/2 - g'd.
// where l, c, A move directly and with the point. Around the mean the point is m and d = 0. Around the mode, with
// V = (G^-1 - ll_uu)^-1 and everything at the mode,
//     u. = w + V (ll_uu w + ll_u.),  w = m. + G. ll_u;  d. = u. - m.
// Given the linear model the effects have the mean m + b and the covariance M; around the mean of the effects
//     b. = M (c. - A. b) + (I - M A) G. g.
// (Own derivation. The approximations: Beal and Sheiner, Estimating population kinetics, CRC Crit. Rev. Biomed. Eng. 8,
// 1982; Lindstrom and Bates, Nonlinear mixed effects models for repeated measures data, Biometrics 46, 1990.)

#include "evaluation/random_covariance.h"
#include "evaluation/record_sums.h"
#include "evaluation/slot_group.h"
#include "host/messages/names/statements.h"
#include "integration/posterior/posterior_work.h"
#include "integration/subjects/evaluation_parts.h"
#include "modes/joint_density.h"
#include "modes/mode_search.h"
#include "modes/packed.h"
#include "modes/unrolled.h"

#include <algorithm>
#include <cmath>

namespace torvale::integration {

using evaluation::Four;
using evaluation::SlotGroup;
using model::BatchWork;
using model::NX;
using model::REFFECT;
using model::TVLThreadCtx;
using modes::packed;

namespace {

// The linear models of the slots that stand side by side in T, a double or Four. Where a member says so it is for
// doubles alone.
template <int NR, class T> class LinearModel {
public:
  static constexpr int capacity = NR > 0 ? NR : modes::most_effects;
  static constexpr int triangle = capacity * (capacity + 1) / 2;

  // Their sums are those of this column and the next ones.
  LinearModel(const NX& n, BatchWork& b, const SlotGroup<T>& slots, int column)
      : n_(n), b_(b), nr_(n.leaf().nr), np_(n.nparm), slots_(slots), column_(column)
  {
    for (int k = 0; k < nrs(); ++k)
      factor_[k] = slots_.gather_or_share(n_.leaf().setup_varies, b.factor.data() + k, nrs());
    for (int i = 0; i < nr(); ++i) c_[i] = sum(n.programs.residual(i));
    for (int k = 0; k < nrs(); ++k) a_[k] = sum(n.programs.information(k));
    if (n.lb) {
      T z[capacity];
      for (int i = 0; i < nr(); ++i) z[i] = slots_.gather(b.z.data() + i, nr());
      times_factor(z, d_);
    } else {
      std::fill_n(d_, nr(), T{});
    }
    condition();
  }

  T value() const
  {
    T v = 0.5 * logdet_ - sum(0);
    for (int i = 0; i < nr(); ++i) v += 0.5 * (d_[i] * (c_[i] + c0_[i]) - c0_[i] * offset_[i]);
    return v;
  }

  // Not a number where it is not usable.
  T usable_value() const
  {
    const T v = value();
    return sum(0) > model::impossible_loglik ? v : T{} + std::numeric_limits<double>::quiet_NaN();
  }

  // Into rows of a table of gradients.
  void gradient(const SlotGroup<T>& rows, double* to) const
  {
    T bar[1 + capacity + triangle]; // adjoints of the sums
    adjoint_of_sums(bar);
    T mean[capacity], covariance[triangle]; // adjoints of m and G, that of an element off the diagonal for both places
    T va[capacity] = {};
    for (int i = 0; i < nr(); ++i) {
      mean[i] = through_sums(bar, np_ + i);
      for (int j = 0; j <= i; ++j)
        covariance[packed(i, j)] = (i == j ? 0.5 : 1.0) * (pull_[i] * pull_[j] - remainder(i, j));
    }
    if (n_.lb) through_mode(mean, covariance, va);
    constexpr int block = SlotGroup<T>::block;
    for (int first = 0; first < np_; first += block) {
      const int count = std::min(block, np_ - first);
      T g[block];
      for (int j = 0; j < count; ++j) g[j] = by_parameter(first + j, bar, mean, covariance, va);
      rows.scatter_columns(g, count, to + first, n_.grad_stride);
    }
  }

  // Mean and covariance of the effects given the data, and the derivatives of the mean, nr x np; around their mean
  // only, and for doubles.
  void effects(double* estimate, double* covariance, double* derivative) const
  {
    const long prior = modes::prior_of(n_, slots_.slot[0]);
    const double* const m = b_.mean.data() + prior * nr();
    for (int i = 0; i < nr(); ++i) estimate[i] = m[i] + offset_[i];
    std::copy_n(m_, nrs(), covariance);
    const REFFECT& reff = n_.leaf();
    const double* const arguments = b_.arguments.data() + prior * reff.setup.places;
    for (int j = 0; j < np_; ++j) {
      const auto argument = [&](int a) { return arguments[reff.argument_derivative(a, j, np_)]; };
      double w[capacity], gg[capacity]; // c. - A. b, G. g
      for (int i = 0; i < nr(); ++i) {
        w[i] = moved(n_.programs.residual(i), j, argument);
        gg[i] = 0.0;
        for (int k = 0; k < nr(); ++k) {
          w[i] -= moved(n_.programs.information(packed(i, k)), j, argument) * offset_[k];
          gg[i] += argument(nr() + packed(i, k)) * pull_[k];
        }
      }
      for (int i = 0; i < nr(); ++i)
        for (int k = 0; k < nr(); ++k) w[i] -= a_[packed(i, k)] * gg[k]; // M (w - A G. g) + G. g
      for (int i = 0; i < nr(); ++i) {
        double t = argument(i) + gg[i];
        for (int k = 0; k < nr(); ++k) t += m_[packed(i, k)] * w[k];
        derivative[i * np_ + j] = t;
      }
    }
  }

private:
  int nr() const { return NR > 0 ? NR : nr_; }
  int nrs() const { return nr() * (nr() + 1) / 2; }
  T sum(int place) const { return SlotGroup<T>::load(b_.point_sums.data() + place * b_.mode_stride + column_); }

  void times_factor(const T* x, T* out) const
  {
    for (int i = 0; i < nr(); ++i) {
      out[i] = T{};
      for (int k = 0; k <= i; ++k) out[i] += factor_[packed(i, k)] * x[k];
    }
  }

  // M, log|I + GA|, b, t and g.
  void condition()
  {
    T al[capacity * capacity], root[triangle]; // A L; B, then R of B = R D R', the inverse of D on its diagonal
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j < nr(); ++j) {
        T t = {};
        for (int k = j; k < nr(); ++k) t += a_[packed(i, k)] * factor_[packed(k, j)];
        al[i * nr() + j] = t;
      }
    logdet_ = T{};
    for (int i = 0; i < nr(); ++i) {
      T scaled[capacity]; // R D, row i
      for (int j = 0; j <= i; ++j) {
        T t = T{} + (i == j ? 1.0 : 0.0);
        for (int k = i; k < nr(); ++k) t += factor_[packed(k, i)] * al[k * nr() + j];
        for (int k = 0; k < j; ++k) t -= scaled[k] * root[packed(j, k)];
        scaled[j] = t;
        if (i == j) logdet_ += SlotGroup<T>::logarithm(t);
        root[packed(i, j)] = i == j ? 1.0 / t : t * root[packed(j, j)];
      }
    }
    T y[capacity * capacity]; // R^-1 L', so that M = y' D^-1 y
    for (int j = 0; j < nr(); ++j)
      for (int i = 0; i < nr(); ++i) {
        T t = i <= j ? factor_[packed(j, i)] : T{};
        for (int k = 0; k < i; ++k) t -= root[packed(i, k)] * y[k * nr() + j];
        y[i * nr() + j] = t;
      }
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j <= i; ++j) {
        T t = {};
        for (int k = 0; k < nr(); ++k) t += y[k * nr() + i] * root[packed(k, k)] * y[k * nr() + j];
        m_[packed(i, j)] = t;
      }
    product(a_, d_, c0_);
    for (int i = 0; i < nr(); ++i) c0_[i] += c_[i];
    product(m_, c0_, offset_);
    for (int i = 0; i < nr(); ++i) shift_[i] = offset_[i] - d_[i];
    product(a_, shift_, pull_);
    for (int i = 0; i < nr(); ++i) pull_[i] = c_[i] - pull_[i];
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j < nr(); ++j) {
        T t = {};
        for (int k = 0; k < nr(); ++k) t += m_[packed(i, k)] * a_[packed(k, j)];
        ma_[i * nr() + j] = t;
      }
  }

  void product(const T* matrix, const T* x, T* out) const
  {
    for (int i = 0; i < nr(); ++i) {
      out[i] = T{};
      for (int k = 0; k < nr(); ++k) out[i] += matrix[packed(i, k)] * x[k];
    }
  }

  T remainder(int i, int j) const // (A - A M A)(i, j)
  {
    T t = a_[packed(i, j)];
    for (int k = 0; k < nr(); ++k) t -= a_[packed(i, k)] * ma_[k * nr() + j];
    return t;
  }

  void adjoint_of_sums(T* bar) const
  {
    const auto& p = n_.programs;
    bar[0] = T{} + 1.0;
    for (int i = 0; i < nr(); ++i) {
      bar[p.residual(i)] = shift_[i];
      for (int j = 0; j <= i; ++j)
        bar[p.information(packed(i, j))] = (i == j ? -0.5 : -1.0) * (m_[packed(i, j)] + shift_[i] * shift_[j]);
    }
  }

  // What the sums give by a parameter or, behind these, by the point of expansion (of -v). Derivatives that are
  // identically zero are no outputs: their rows are zero.
  T through_sums(const T* bar, int w) const
  {
    T t = {};
    const double* row = b_.point_sums.data() + n_.programs.linear_by(0, w) * b_.mode_stride + column_;
    const long apart = (n_.programs.linear_by(1, 0) - n_.programs.linear_by(0, 0)) * b_.mode_stride;
    for (int k = 0; k < 1 + nr() + nrs(); ++k, row += apart) t += bar[k] * SlotGroup<T>::load(row);
    return t;
  }

  T by_parameter(int j, const T* bar, const T* mean, const T* covariance, const T* va) const
  {
    const REFFECT& reff = n_.leaf();
    T g = -through_sums(bar, j);
    if (n_.lb) g -= through_cross(va, j);
    const auto first = static_cast<std::size_t>(j);
    for (int m = reff.moved_first[first]; m < reff.moved_first[first + 1]; ++m) {
      const auto& [a, place] = reff.moved[static_cast<std::size_t>(m)];
      g -= (a < nr() ? mean[a] : covariance[a - nr()]) *
           slots_.gather_or_share(reff.setup_varies, b_.arguments.data() + place, reff.setup.places);
    }
    return g;
  }

  // What the mode adds: of its own adjoint a = point - g (the first in mean, on entry), through V; va = V a.
  void through_mode(T* mean, T* covariance, T* va) const
  {
    T slope[capacity], curve[triangle], inverse[triangle];
    for (int i = 0; i < nr(); ++i) slope[i] = slots_.gather(b_.slope.data() + i, nr());
    for (int k = 0; k < nrs(); ++k) {
      curve[k] = slots_.gather(b_.curve.data() + k, nrs());
      inverse[k] = slots_.gather(b_.covariance.data() + k, nrs());
    }
    T a[capacity], la[capacity], h[capacity];
    for (int i = 0; i < nr(); ++i) a[i] = mean[i] - pull_[i];
    for (int i = 0; i < nr(); ++i) {
      la[i] = T{};
      for (int k = i; k < nr(); ++k) la[i] += factor_[packed(k, i)] * a[k];
    }
    product(inverse, la, h);
    times_factor(h, va);
    T w[capacity]; // a + ll_uu V a
    product(curve, va, w);
    for (int i = 0; i < nr(); ++i) w[i] += a[i];
    for (int i = 0; i < nr(); ++i) {
      mean[i] = w[i] + pull_[i];
      for (int j = 0; j <= i; ++j)
        covariance[packed(i, j)] += i == j ? w[i] * slope[i] : w[i] * slope[j] + w[j] * slope[i];
    }
  }

  T through_cross(const T* va, int j) const
  {
    T t = {};
    for (int k = 0; k < nr(); ++k)
      t += va[k] *
           SlotGroup<T>::load(b_.curvature_sums.data() + n_.programs.cross_place(k, j) * b_.mode_stride + column_);
    return t;
  }

  // The derivative of a sum by parameter j, with the point of expansion at the mean.
  double moved(int place, int j, auto&& argument) const
  {
    double t = sum(n_.programs.linear_by(place, j));
    for (int i = 0; i < nr(); ++i) t += sum(n_.programs.linear_by(place, np_ + i)) * argument(i);
    return t;
  }

  const NX& n_;
  BatchWork& b_;
  const int nr_, np_;
  const SlotGroup<T>& slots_; // not a copy: reading it whole would wait for its slots to be written one by one
  const int column_;
  T factor_[triangle], c_[capacity], a_[triangle], d_[capacity], c0_[capacity];
  T m_[triangle], ma_[capacity * capacity];               // M, M A
  T offset_[capacity], shift_[capacity], pull_[capacity]; // b, t, g
  T logdet_;
};

// Calls act with the linear model of a slot, unrolled for few effects.
template <class Act> void with_model(const NX& n, BatchWork& b, int slot, Act act)
{
  const SlotGroup<double> one{{slot}};
  const int column = b.column[static_cast<std::size_t>(slot)];
  return modes::unrolled(n.leaf().nr, [&](auto order) { return act(LinearModel<order(), double>(n, b, one, column)); });
}

// Where the values and gradients of slots go: their rows. No gradients: null.
struct Rows {
  const int* of_slot;
  double* values;
  double* gradients;
};

template <int NR, class T> void close_columns(const NX& n, BatchWork& b, int active, const Rows& to)
{
  for (int first = 0; first < active; first += SlotGroup<T>::width) {
    const auto slots = SlotGroup<T>::of_list(b.active.data() + first, active - first);
    const auto rows = slots.through(to.of_slot);
    const LinearModel<NR, T> model(n, b, slots, first);
    rows.scatter(model.usable_value(), to.values, 1);
    if (to.gradients != nullptr) model.gradient(rows, to.gradients);
  }
}

template <int NR> TORVALE_AVX2_BUILD void close_columns_avx2(const NX& n, BatchWork& b, int active, const Rows& to)
{
  close_columns<NR, Four>(n, b, active, to);
}

template <int NR> void close_four(const NX& n, BatchWork& b, int active, const Rows& to)
{
  static const auto build = evaluation::build_for_machine(close_columns<NR, Four>, close_columns_avx2<NR>);
  build(n, b, active, to);
}

// Values and gradients of the slots in the first `active` columns.
void close_linear_models(const NX& n, BatchWork& b, int active, const Rows& to)
{
  modes::unrolled(n.leaf().nr, [&](auto order) {
    if constexpr (order() > 0)
      close_four<order()>(n, b, active, to);
    else
      close_columns<0, double>(n, b, active, to);
  });
}

// The points of expansion of the first `active` entries of b.active.
void place_points(const NX& n, BatchWork& b, int active)
{
  const int nr = n.leaf().nr;
  for (int a = 0; a < active && n.lb; ++a) {
    const int slot = b.active[static_cast<std::size_t>(a)];
    if (nr == 1)
      modes::place_point<1>(n, b, slot, a);
    else if (nr == 2)
      modes::place_point<2>(n, b, slot, a);
    else
      modes::place_point<0>(n, b, slot, a);
  }
  for (int i = 0; i < nr && !n.lb; ++i) {
    double* const u = b.ran.data() + i * b.pair_stride;
    if (!n.leaf().setup_varies) {
      std::fill_n(u, active, b.mean[static_cast<std::size_t>(i)]);
      continue;
    }
    for (int a = 0; a < active; ++a)
      u[a] = b.mean[static_cast<std::size_t>(b.active[static_cast<std::size_t>(a)] * nr + i)];
  }
}

// The sums of the linear models of all good slots; returns how many these are, or minus the engine's code above 2.
int sum_linear_models(const NX& n, TVLThreadCtx& ctx, bool gradient)
{
  BatchWork& b = ctx.batch;
  if (!n.lb) std::fill_n(b.z.begin(), static_cast<long>(b.slots) * n.leaf().nr, 0.0);
  const int active = list_good_slots(b);
  if (active == 0) return 0;
  place_points(n, b, active);
  ctx.frame->set_points(b.ran.data(), active, static_cast<int>(b.pair_stride));
  const model::ModelProgram& program = gradient ? n.programs.linear_gradient : n.programs.linear;
  evaluation::Pairs pairs{b.active.data(), active};
  pairs.one_point = !n.lb && !n.leaf().setup_varies && !engine::sequential(*program.code);
  const int rc = evaluation::tvllogl(n, ctx, pairs, {program, b.point_sums.data(), b.mode_stride});
  return rc != 0 ? -rc : active;
}

// tvlfiro: a nest is a slot. (firo first order.)
class FirstOrder final : public Integrator {
public:
  void size_batch(const NX& n, TVLThreadCtx& ctx) const override
  {
    size_subject_work(n, ctx);
    const int places = std::max(n.programs.linear.places, n.programs.linear_gradient.places);
    size(ctx.batch.point_sums, places * ctx.batch.mode_stride);
  }

  int evaluate(const NX& n, TVLThreadCtx& ctx, bool gradient) const override
  {
    const REFFECT& reff = n.leaf();
    if (const int rc = evaluation::load_priors(n, ctx, reff.setup.places > reff.setup_value.places); rc > 2) return rc;
    if (n.lb)
      if (const int rc = modes::tvlebes(n, ctx); rc > 2) return rc;
    const int good = sum_linear_models(n, ctx, gradient);
    if (good <= 0) return -good;
    return gradient && n.lb ? sum_curvature(n, ctx) : 0;
  }

  int close_nests(NX& n, TVLThreadCtx& ctx) const override
  {
    BatchWork& b = ctx.batch;
    // They are listed since their sums were made.
    const auto good = static_cast<int>(std::count(b.failure.begin(), b.failure.begin() + b.slots, 0));
    close_linear_models(n, b, good, {b.nest.data(), n.slot_value.data(), n.dograd ? n.slot_grad.data() : nullptr});
    int known = 0;
    const int* const nest = b.nest.data();
    const int* const failure = b.failure.data();
    const double* const value = n.slot_value.data();
    int *const active = b.active.data(), *const status = n.slot_status.data();
    for (int slot = 0, slots = b.slots; slot < slots; ++slot) {
      const auto subject = static_cast<std::size_t>(nest[slot]);
      const double v = value[subject];
      active[known] = slot;
      if (failure[slot] == 0 && std::abs(v) < model::failure_objective) { // nearly always
        status[subject] = 0;
        ++known;
      } else {
        known += keep_value(n, subject, failure[slot] != 0 || std::isfinite(v) ? failure[slot] : unusable, v) ? 1 : 0;
      }
    }
    return known;
  }

  void close_modes(NX& n, const TVLThreadCtx& ctx, std::span<const int> slots) const override
  {
    keep_trial_modes(n, ctx, slots);
  }

private:
  static constexpr int unusable = message::likelihood_not_usable::message_number;
};

} // namespace

int linear_posteriors(const NX& n, TVLThreadCtx& ctx, Posterior& out)
{
  BatchWork& b = ctx.batch;
  if (const int rc = evaluation::load_priors(n, ctx, true); rc > 2) return rc;
  const int good = sum_linear_models(n, ctx, true);
  if (good < 0) return -good;
  const long nr = n.leaf().nr, nrs = n.leaf().nrs;
  for (int a = 0; a < good; ++a) {
    if (!(b.point_sums[static_cast<std::size_t>(a)] > model::impossible_loglik)) continue;
    const int slot = b.active[static_cast<std::size_t>(a)];
    const long subject = b.subject[static_cast<std::size_t>(slot)];
    with_model(n, b, slot, [&](const auto& m) {
      m.effects(out.estimate.data() + subject * nr, out.covariance.data() + subject * nrs,
                out.derivative.data() + subject * nr * n.nparm);
    });
    keep_prior(n, b, slot, out);
    out.known[static_cast<std::size_t>(subject)] = 1;
  }
  return 0;
}

const Integrator& first_order()
{
  static const FirstOrder integrator;
  return integrator;
}

} // namespace torvale::integration
