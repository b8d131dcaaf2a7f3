// How the modes of subjects move with the parameters, a dot for a derivative:
//     u. = s + V (ll_u. + ll_uu s) = W s + V ll_u.,   s = m. + G. ll_u,   V = L H^-1 L',   W = I + V ll_uu.

#include "evaluation/slot_group.h"
#include "integration/subjects/evaluation_parts.h"
#include "modes/joint_density.h"
#include "modes/packed.h"
#include "modes/unrolled.h"

#include <cstring>

namespace torvale::integration {

using evaluation::Four;
using evaluation::SlotGroup;
using model::BatchWork;
using model::NX;
using model::REFFECT;
using modes::packed;

namespace {

// The modes u = m + L z into the run's; nr numbers for each subject.
template <int NR, class T> void keep_modes(NX& n, const BatchWork& b, const SlotGroup<T>& slots)
{
  const int nr = NR > 0 ? NR : n.leaf().nr, nrs = nr * (nr + 1) / 2;
  const bool own = n.leaf().setup_varies;
  const auto subjects = slots.through(b.subject.data());
  for (int i = 0; i < nr; ++i) {
    T u = slots.gather_or_share(own, b.mean.data() + i, nr);
    for (int k = 0; k <= i; ++k)
      u += slots.gather_or_share(own, b.factor.data() + packed(i, k), nrs) * slots.gather(b.z.data() + k, nr);
    subjects.scatter(u, n.ebtrial.data() + i, nr);
  }
  for (int i = 0; i < subjects.used; ++i) n.ebtrial_known[static_cast<std::size_t>(subjects.slot[i])] = 1;
}

// Of the slots that stand side by side in T, a double or Four.
template <int NR, class T> class ModeDerivatives {
public:
  static constexpr int capacity = NR > 0 ? NR : modes::most_effects;
  static constexpr int triangle = capacity * (capacity + 1) / 2;

  ModeDerivatives(const NX& n, const BatchWork& b, const SlotGroup<T>& slots)
      : n_(n), b_(b), reff_(n.leaf()), nr_(n.leaf().nr), np_(n.nparm), slots_(slots),
        columns_(slots.through(b.column.data())), subjects_(slots.through(b.subject.data())),
        length_(static_cast<long>(reff_.SubInfo.size()))
  {
    T curve[triangle];
    for (int i = 0; i < nr(); ++i) slope_[i] = slots_.gather(b.slope.data() + i, nr());
    for (int k = 0; k < nrs(); ++k) curve[k] = slots_.gather(b.curve.data() + k, nrs());
    form_variance();
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j < nr(); ++j) {
        T t = T{} + (i == j ? 1.0 : 0.0);
        for (int k = 0; k < nr(); ++k) t += v_[i * nr() + k] * curve[packed(k, j)];
        w_[i * nr() + j] = t;
      }
  }

  // A row of subjects for each derivative of an effect by a parameter into `by`, and where there is room for them the
  // third derivatives by the effects into `bend`, likewise.
  void keep(float* by, float* bend) const
  {
    if (columns_.adjacent && subjects_.adjacent && slots_.used == SlotGroup<T>::width)
      keep_rows<true>(by, bend);
    else
      keep_rows<false>(by, bend);
  }

private:
  int nr() const { return NR > 0 ? NR : nr_; }
  int nrs() const { return nr() * (nr() + 1) / 2; }

  // Adjacent: so are the columns and the subjects of all places.
  template <bool Adjacent> void keep_rows(float* by, float* bend) const
  {
    const double* const sums = b_.curvature_sums.data();
    const auto at = [&](int place) {
      const double* const row = sums + place * b_.mode_stride;
      return Adjacent ? SlotGroup<T>::load(row + columns_.slot[0]) : columns_.from_row(row);
    };
    const auto put = [&](const T& t, float* row) {
      if constexpr (Adjacent)
        store_floats(t, row + subjects_.slot[0]);
      else
        subjects_.scatter(t, row, 1);
    };
    for (int j = 0; j < np_; ++j) {
      T c[capacity], move[capacity];
      for (int i = 0; i < nr(); ++i) {
        c[i] = at(n_.programs.cross_place(i, j));
        move[i] = T{};
      }
      if (reff_.moved_first[static_cast<std::size_t>(j)] < reff_.moved_first[static_cast<std::size_t>(j) + 1])
        move_with_prior(j, move);
      for (int i = 0; i < nr(); ++i) {
        for (int k = 0; k < nr(); ++k) move[i] += v_[i * nr() + k] * c[k];
        put(move[i], by + (i * np_ + j) * length_);
      }
    }
    if (bend == nullptr) return;
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j <= i; ++j)
        for (int k = 0; k <= j; ++k, bend += length_) put(at(n_.programs.third_place(np_ + k, packed(i, j))), bend);
  }

  static void store_floats(const T& t, float* to)
  {
    if constexpr (SlotGroup<T>::width == 1) {
      *to = static_cast<float>(t);
    } else {
      const auto rounded = __builtin_convertvector(t, evaluation::FourFloats);
      std::memcpy(to, &rounded, sizeof rounded);
    }
  }

  void form_variance()
  {
    T l[triangle], inverse[triangle], lh[capacity * capacity];
    for (int k = 0; k < nrs(); ++k) {
      l[k] = slots_.gather_or_share(reff_.setup_varies, b_.factor.data() + k, nrs());
      inverse[k] = slots_.gather(b_.covariance.data() + k, nrs());
    }
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j < nr(); ++j) {
        T t = {};
        for (int k = 0; k <= i; ++k) t += l[packed(i, k)] * inverse[packed(k, j)];
        lh[i * nr() + j] = t;
      }
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j < nr(); ++j) {
        T t = {};
        for (int k = 0; k <= j; ++k) t += lh[i * nr() + k] * l[packed(j, k)];
        v_[i * nr() + j] = t;
      }
  }

  // W s of parameter j.
  void move_with_prior(int j, T* to) const
  {
    T s[capacity] = {};
    move_prior(j, s);
    for (int i = 0; i < nr(); ++i)
      for (int k = 0; k < nr(); ++k) to[i] += w_[i * nr() + k] * s[k];
  }

  // s of parameter j.
  void move_prior(int j, T* s) const
  {
    const auto first = static_cast<std::size_t>(j);
    for (int m = reff_.moved_first[first]; m < reff_.moved_first[first + 1]; ++m) {
      const auto& [a, place] = reff_.moved[static_cast<std::size_t>(m)];
      const T by = slots_.gather_or_share(reff_.setup_varies, b_.arguments.data() + place, reff_.setup.places);
      if (a < nr()) {
        s[a] += by;
        continue;
      }
      int row = 0; // of the element of G
      while (packed(row, row) < a - nr()) ++row;
      const int column = a - nr() - packed(row, 0);
      s[row] += by * slope_[column];
      if (row != column) s[column] += by * slope_[row];
    }
  }

  const NX& n_;
  const BatchWork& b_;
  const REFFECT& reff_;
  const int nr_, np_;
  const SlotGroup<T>& slots_;
  const SlotGroup<T> columns_, subjects_;
  const long length_; // of a row: all subjects
  T slope_[capacity], v_[capacity * capacity], w_[capacity * capacity];
};

template <int NR, class T> void keep_all(NX& n, const BatchWork& b, std::span<const int> slots)
{
  const bool derivatives = keeps_mode_derivatives(n);
  const int count = static_cast<int>(slots.size());
  for (int first = 0; first < count; first += SlotGroup<T>::width) {
    const auto group = SlotGroup<T>::of_list(slots.data() + first, count - first);
    keep_modes<NR, T>(n, b, group);
    if (!derivatives) continue;
    const ModeDerivatives<NR, T> of_modes(n, b, group);
    of_modes.keep(n.ebtrial_by.data(), n.ebtrial_bend.empty() ? nullptr : n.ebtrial_bend.data());
  }
}

template <int NR> TORVALE_AVX2_BUILD void keep_avx2(NX& n, const BatchWork& b, std::span<const int> slots)
{
  keep_all<NR, Four>(n, b, slots);
}

template <int NR> void keep_four(NX& n, const BatchWork& b, std::span<const int> slots)
{
  static const auto build = evaluation::build_for_machine(keep_all<NR, Four>, keep_avx2<NR>);
  build(n, b, slots);
}

} // namespace

void keep_trial_modes(NX& n, const model::TVLThreadCtx& ctx, std::span<const int> slots)
{
  const BatchWork& b = ctx.batch;
  modes::unrolled(n.leaf().nr, [&](auto order) {
    if constexpr (order() > 0)
      keep_four<order()>(n, b, slots);
    else
      keep_all<0, double>(n, b, slots);
  });
}

} // namespace torvale::integration
