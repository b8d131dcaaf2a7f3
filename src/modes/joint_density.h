#pragma once
// A subject's negative log joint density f as a function of z, u = m + L z:
//     f = -ll(u) + z'z/2,   df/dz = z - L' ll_u,   d2f/dz2 = I - L' ll_uu L
// NR is the number of random effects when it is small enough to unroll, 0 for any. T: double, or a vector of them with
// subjects side by side (evaluation/slot_group.h).

#include "evaluation/record_sums.h"
#include "evaluation/slot_group.h"
#include "modes/mode_search.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace torvale::modes {

inline constexpr int most_effects = 64; // random effects of one statement; build_programs refuses more

template <int NR, class T = double> struct JointDensity {
  static constexpr int capacity = NR > 0 ? NR : most_effects;
  const int order;
  T f = {};
  T gradient[static_cast<std::size_t>(capacity)];
  T hessian[static_cast<std::size_t>(capacity * (capacity + 1) / 2)]; // packed

  explicit JointDensity(int nr) : order(nr) {}
  int nr() const { return NR > 0 ? NR : order; }

  // From a column of sums (for a vector from the next ones too), `stride` doubles between its rows: ll, nr first and
  // nrs second derivatives by u.
  void read(const double* sum, long stride, const T* z, const T* l)
  {
    const T ll = load(sum), failed = T{} + model::failure_objective;
    T square = {};
    for (int i = 0; i < nr(); ++i) square += z[i] * z[i];
    const T known = ll > model::impossible_loglik ? 0.5 * square - ll : failed;
    f = ll <= std::numeric_limits<double>::max() ? known : failed;
    if constexpr (NR == 1) {
      gradient[0] = z[0] - l[0] * load(sum + stride);
      hessian[0] = 1.0 - l[0] * l[0] * load(sum + 2 * stride);
    } else {
      read_derivatives(sum + stride, stride, z, l);
    }
  }

private:
  static T load(const double* from) { return evaluation::SlotGroup<T>::load(from); }

  // l(k, i): element of the packed factor; the second derivatives stand behind the first.
  void read_derivatives(const double* sum, long stride, const T* z, const T* l)
  {
    const auto at = [](int i, int j) { return i < j ? j * (j + 1) / 2 + i : i * (i + 1) / 2 + j; };
    for (int i = 0; i < nr(); ++i) {
      T t = {};
      for (int k = i; k < nr(); ++k) t += l[at(k, i)] * load(sum + k * stride);
      gradient[i] = z[i] - t;
    }
    const double* const second = sum + nr() * stride;
    for (int j = 0; j < nr(); ++j) {
      T column[static_cast<std::size_t>(capacity)]; // ll_uu L, column j
      for (int k = 0; k < nr(); ++k) {
        T t = {};
        for (int m = j; m < nr(); ++m) t += load(second + at(k, m) * stride) * l[at(m, j)];
        column[k] = t;
      }
      for (int i = j; i < nr(); ++i) {
        T t = {};
        for (int k = i; k < nr(); ++k) t += l[at(k, i)] * column[k];
        hessian[at(i, j)] = (i == j ? 1.0 : 0.0) - t;
      }
    }
  }
};

// Puts u = m + L z of a slot into point `a` of the frame's points.
template <int NR> void place_point(const model::NX& n, model::BatchWork& b, int slot, int a)
{
  const int nr = NR > 0 ? NR : n.leaf().nr;
  const long p = prior_of(n, slot);
  const double* const m = b.mean.data() + p * nr;
  const double* l = b.factor.data() + p * (nr * (nr + 1) / 2);
  const double* const z = b.z.data() + static_cast<long>(slot) * nr;
  for (int i = 0; i < nr; ++i) {
    double u = m[i];
    for (int k = 0; k <= i; ++k) u += l[k] * z[k];
    l += i + 1;
    b.ran[static_cast<std::size_t>(i * b.pair_stride + a)] = u;
  }
}

// EBFunc: log likelihood with its derivatives by the random effects at the trial points of the first `active` entries
// of b.active, into columns 0..active-1 of the mode sums. (EB empirical Bayes, Func function.) Returns 0 or the
// engine's code above 2.
template <int NR> int EBFunc(const model::NX& n, model::TVLThreadCtx& ctx, int active)
{
  model::BatchWork& b = ctx.batch;
  for (int a = 0; a < active; ++a) place_point<NR>(n, b, b.active[static_cast<std::size_t>(a)], a);
  ctx.frame->set_points(b.ran.data(), active, static_cast<int>(b.pair_stride));
  return evaluation::tvllogl(n, ctx, {b.active.data(), active, 1},
                             {n.programs.mode, b.mode_sums.data(), b.mode_stride});
}

// Keeps what the integration needs of a column of such sums, which stands at the mode of the slot. Elements of the
// inverse are `apart` doubles apart.
template <int NR>
void keep_curvature(model::BatchWork& b, int order, int slot, const double* sum, const double* inverse, int apart = 1)
{
  const int nr = NR > 0 ? NR : order;
  const int nrs = nr * (nr + 1) / 2;
  for (int i = 0; i < nr; ++i) b.slope[static_cast<std::size_t>(slot * nr + i)] = sum[(1 + i) * b.mode_stride];
  for (int k = 0; k < nrs; ++k) {
    b.curve[static_cast<std::size_t>(slot * nrs + k)] = sum[(1 + nr + k) * b.mode_stride];
    b.covariance[static_cast<std::size_t>(slot * nrs + k)] = inverse[k * apart];
  }
}

} // namespace torvale::modes
