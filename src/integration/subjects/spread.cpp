// The scale of the points of each subject.

#include "evaluation/slot_group.h"
#include "integration/subjects/evaluation_parts.h"
#include "matrix/cholesky.h"
#include "matrix/packed.h"
#include "modes/packed.h"
#include "modes/unrolled.h"

#include <algorithm>
#include <cmath>

namespace torvale::integration {

using evaluation::Four;
using evaluation::SlotGroup;
using model::BatchWork;
using model::NX;
using modes::packed;

namespace {

// The factors of the slots that stand side by side in T, as matrix::zchol makes them row by row.
template <int NR, class T> void factor_inverses(const NX& n, BatchWork& b, const SlotGroup<T>& slots)
{
  constexpr int triangle = NR * (NR + 1) / 2;
  const T none = {};
  T c[triangle];
  for (int i = 0; i < NR; ++i) {
    const T own = slots.gather(b.covariance.data() + packed(i, i), triangle);
    const T unit = own == 0.0 ? T{} + 1.0 : own < 0.0 ? -own : own;
    T pivot = own;
    for (int j = 0; j < i; ++j) {
      T t = slots.gather(b.covariance.data() + packed(i, j), triangle);
      for (int k = 0; k < j; ++k) t -= c[packed(j, k)] * c[packed(i, k)];
      const T diagonal = c[packed(j, j)];
      c[packed(i, j)] = diagonal == 0.0 ? none : t / diagonal;
      pivot -= c[packed(i, j)] * c[packed(i, j)];
    }
    c[packed(i, i)] = pivot > n.singchol * unit ? SlotGroup<T>::root(pivot) : none;
  }
  for (int k = 0; k < triangle; ++k) slots.scatter(c[k], b.spread.data() + k, triangle);
}

template <int NR> void factor_all(const NX& n, BatchWork& b, int good)
{
  for (int first = 0; first < good; first += SlotGroup<Four>::width)
    factor_inverses<NR>(n, b, SlotGroup<Four>::of_list(b.active.data() + first, good - first));
}

template <int NR> TORVALE_AVX2_BUILD void factor_all_avx2(const NX& n, BatchWork& b, int good)
{
  factor_all<NR>(n, b, good);
}

template <int NR> void factor_four(const NX& n, BatchWork& b, int good)
{
  static const auto build = evaluation::build_for_machine(factor_all<NR>, factor_all_avx2<NR>);
  build(n, b, good);
}

void factor_any(const NX& n, BatchWork& b, int good)
{
  const int nr = n.leaf().nr, nrs = n.leaf().nrs;
  for (int k = 0; k < good; ++k) {
    const long at = static_cast<long>(b.active[static_cast<std::size_t>(k)]) * nrs;
    const double* const from = b.covariance.data() + at;
    double* const c = b.spread.data() + at;
    std::copy_n(from, nrs, c);
    for (int i = 0; i < nr; ++i) {
      const double own = std::abs(from[matrix::packed_diagonal(i)]);
      matrix::zchol(i, c, own == 0.0 ? n.singchol : n.singchol * own);
    }
  }
}

void set_identity(const NX& n, BatchWork& b)
{
  const int nr = n.leaf().nr, nrs = n.leaf().nrs;
  std::fill_n(b.spread.begin(), static_cast<long>(b.slots) * nrs, 0.0);
  for (int slot = 0; slot < b.slots; ++slot)
    for (int i = 0; i < nr; ++i) b.spread[static_cast<std::size_t>(slot * nrs + matrix::packed_diagonal(i))] = 1.0;
}

} // namespace

void find_spread(const NX& n, BatchWork& b)
{
  if (!n.adscale) return set_identity(n, b);
  int good = 0;
  for (int slot = 0; slot < b.slots; ++slot)
    if (b.failure[static_cast<std::size_t>(slot)] == 0) b.active[static_cast<std::size_t>(good++)] = slot;
  modes::unrolled(n.leaf().nr, [&](auto order) {
    if constexpr (order() > 0)
      factor_four<order()>(n, b, good);
    else
      factor_any(n, b, good);
  });
}

} // namespace torvale::integration
