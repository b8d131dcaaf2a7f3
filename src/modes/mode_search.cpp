#include "modes/mode_search.h"

#include "evaluation/record_sums.h"
#include "evaluation/slot_group.h"
#include "modes/joint_density.h"
#include "modes/newton_steps.h"
#include "modes/search_rules.h"
#include "modes/unrolled.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace torvale::modes {

using evaluation::Four;
using evaluation::SlotGroup;
using model::BatchWork;
using model::ModeSearch;
using model::NX;
using model::TVLThreadCtx;

namespace {

constexpr double largest = std::numeric_limits<double>::max();

template <int NR> class LockstepSearch {
public:
  LockstepSearch(const NX& n, TVLThreadCtx& ctx, const AtModes* at_modes)
      : n_(n), ctx_(ctx), b_(ctx.batch), nr_(NR > 0 ? NR : n.leaf().nr), nrs_(nr_ * (nr_ + 1) / 2), at_modes_(at_modes),
        predicts_(!n.ebes_point.empty() && n.ebes_point != n.parm),
        starts_near_(at_modes != nullptr && !n.ebes_point.empty() && (n.prediction_stands || !predicts_)),
        bends_(!n.ebes_bend.empty() && !n.ebes_point.empty())
  {
    for (std::size_t j = 0; predicts_ && j < n.parm.size(); ++j) b_.parameter_step[j] = n.parm[j] - n.ebes_point[j];
  }

  int run()
  {
    start_all();
    do {
      while (active_ > 0) {
        if (const int rc = EBFunc<NR>(n_, ctx_, active_); rc != 0) return rc;
        advance_all(active_, b_.mode_sums.data());
      }
      if (at_modes_ == nullptr) return 0;
      if (const int rc = close(); rc != 0) return rc;
    } while (active_ > 0 || near_ > 0);
    return 0;
  }

  // The evaluation at the modes, of those that are near and of those that are found; again of those alone that it was
  // not for, as long as there are columns. Where an effect is so far from 0 that its rounding is more than a negligible
  // step, one that was near may be near still, and is closed once more.
  int close()
  {
    int modes = list_unclosed();
    if (closed_ + modes > b_.mode_stride) {
      start_columns();
      modes = list_unclosed();
    }
    if (modes == 0) return 0;
    if (const int rc = at_modes_->run(n_, ctx_, modes, closed_); rc != 0) return rc;
    closes_ = true;
    advance_all(modes, b_.curvature_sums.data() + at_modes_->mode_place * b_.mode_stride + closed_);
    closes_ = false;
    closed_ += modes;
    return 0;
  }

private:
  static constexpr int capacity = JointDensity<NR>::capacity;
  static constexpr int triangle = capacity * (capacity + 1) / 2;
  static constexpr int none = -1;

  int& column(int slot) { return b_.column[static_cast<std::size_t>(slot)]; }

  void start_columns()
  {
    closed_ = 0;
    std::fill_n(b_.column.begin(), b_.slots, none);
  }

  int list_unclosed()
  {
    int count = 0;
    for (int slot = 0; slot < b_.slots; ++slot) {
      if (search(slot).state == ModeSearch::failed || column(slot) != none) continue;
      column(slot) = closed_ + count;
      b_.active[static_cast<std::size_t>(count++)] = slot;
    }
    return count;
  }

  // Those of the first `count` active slots that are not found go on, and stay active when they need another
  // evaluation.
  void advance_all(int count, const double* sums)
  {
    active_ = near_ = 0;
    if constexpr (NR > 0) {
      static const auto build = evaluation::build_for_machine(advance_by<Four>, advance_avx2);
      build(*this, count, sums);
    } else {
      advance_by<double>(*this, count, sums);
    }
  }

  template <class T> static void advance_by(LockstepSearch& search, int count, const double* sums)
  {
    for (int a = 0; a < count; a += SlotGroup<T>::width)
      search.advance_group(SlotGroup<T>::of_list(search.b_.active.data() + a, count - a), sums + a);
  }
  TORVALE_AVX2_BUILD static void advance_avx2(LockstepSearch& search, int count, const double* sums)
  {
    advance_by<Four>(search, count, sums);
  }

  // Slots whose sums are the first columns of these.
  template <class T> void advance_group(const SlotGroup<T>& slots, const double* sums)
  {
    const auto searched = [&](int i) { return search(slots.slot[i]).state != ModeSearch::found; };
    bool any = false;
    for (int i = 0; i < slots.used; ++i) any = any || searched(i);
    if (!any) return;
    NewtonSteps<NR, T> steps(nr());
    read(steps, slots, sums);
    if (any_bends(slots)) bend(steps, slots);
    for (int i = 0; i < slots.used; ++i) {
      if (!searched(i)) continue;
      const int slot = slots.slot[i];
      advance(slot, sums + i, steps, i);
      const ModeSearch::State state = search(slot).state;
      if (state != ModeSearch::found) column(slot) = none;
      if (state == ModeSearch::searching) b_.active[static_cast<std::size_t>(active_++)] = slot;
      if (state == ModeSearch::near) ++near_;
    }
  }

  template <class T> void read(NewtonSteps<NR, T>& steps, const SlotGroup<T>& slots, const double* sums) const
  {
    T at[capacity];
    for (int i = 0; i < nr(); ++i) at[i] = slots.gather(b_.z.data() + i, nr());
    for (int k = 0; k < nrs(); ++k)
      steps.factor[k] = slots.gather_or_share(n_.leaf().setup_varies, b_.factor.data() + k, nrs());
    steps.at.read(sums, b_.mode_stride, at, steps.factor);
    steps.invert(n_, ctx_.block);
  }

  // First steps of searches that begin near accepted modes.
  bool bends(int slot)
  {
    const ModeSearch& s = search(slot);
    return bends_ && s.step == 0 && !s.from_mean;
  }
  template <class T> bool any_bends(const SlotGroup<T>& slots)
  {
    bool any = false;
    for (int i = 0; i < slots.used; ++i) any = any || bends(slots.slot[i]);
    return any;
  }
  template <class T> void bend(NewtonSteps<NR, T>& steps, const SlotGroup<T>& slots)
  {
    if constexpr (NR > 0) {
      constexpr int length = tetrahedron(NR);
      const auto all = static_cast<long>(n_.leaf().SubInfo.size());
      const auto subjects = slots.through(b_.subject.data());
      T third[length];
      double bent[SlotGroup<T>::width];
      for (int i = 0; i < SlotGroup<T>::width; ++i) bent[i] = bends(slots.slot[i]) ? 1.0 : 0.0;
      const T which = SlotGroup<T>::load(bent);
      for (int k = 0; k < length; ++k) third[k] = which * subjects.gather(n_.ebes_bend.data() + k * all, 1);
      steps.bend(third);
    }
  }

  ModeSearch& search(int slot) { return b_.search[static_cast<std::size_t>(slot)]; }
  int nr() const { return NR > 0 ? NR : nr_; }
  int nrs() const { return NR > 0 ? NR * (NR + 1) / 2 : nrs_; }
  double* z(int slot) { return b_.z.data() + static_cast<long>(slot) * nr(); }
  double* zold(int slot) { return b_.zold.data() + static_cast<long>(slot) * nr(); }

  void start_all()
  {
    start_columns();
    active_ = 0;
    if constexpr (NR > 0) {
      static const auto build = evaluation::build_for_machine(start_by<Four>, start_avx2);
      build(*this);
    } else {
      start_by<double>(*this);
    }
  }

  template <class T> static void start_by(LockstepSearch& search)
  {
    int stored[SlotGroup<T>::width], count = 0;
    for (int slot = 0; slot < search.b_.slots; ++slot) {
      if (search.start(slot)) stored[count++] = slot;
      if (count == SlotGroup<T>::width || (count > 0 && slot == search.b_.slots - 1))
        search.place_starts(SlotGroup<T>::of_list(stored, std::exchange(count, 0)));
    }
  }
  TORVALE_AVX2_BUILD static void start_avx2(LockstepSearch& search) { start_by<Four>(search); }

  // True when the search begins at a mode that is stored.
  bool start(int slot)
  {
    ModeSearch& s = search(slot);
    s = ModeSearch{};
    s.bound = s.previous = largest;
    if (b_.failure[static_cast<std::size_t>(slot)] != 0) {
      s.state = ModeSearch::failed;
      return false;
    }
    s.from_mean = n_.ebstep <= 0 || n_.ebzstart || n_.ebes_known[static_cast<std::size_t>(subject_of(slot))] == 0;
    if (s.from_mean) std::fill_n(z(slot), nr(), 0.0);
    if (n_.ebstep <= 0)
      give_up(slot);
    else if (starts_near_ && !s.from_mean)
      s.state = ModeSearch::near;
    else
      b_.active[static_cast<std::size_t>(active_++)] = slot;
    return !s.from_mean;
  }

  int subject_of(int slot) const { return b_.subject[static_cast<std::size_t>(slot)]; }

  // z = L^-1 (u - m) of the accepted modes, moved with the parameters; a direction without variance stays at its mean.
  template <class T> void place_starts(const SlotGroup<T>& slots)
  {
    const auto subjects = slots.through(b_.subject.data());
    T u[capacity], mean[capacity], factor[triangle], inverse[capacity], at[capacity];
    for (int i = 0; i < nr(); ++i) {
      u[i] = subjects.gather(n_.ebes.data() + i, nr());
      mean[i] = slots.gather_or_share(n_.leaf().setup_varies, b_.mean.data() + i, nr());
    }
    for (int k = 0; k < nrs(); ++k)
      factor[k] = slots.gather_or_share(n_.leaf().setup_varies, b_.factor.data() + k, nrs());
    const T without = {};
    for (int i = 0; i < nr(); ++i) {
      const T own = factor[i * (i + 3) / 2];
      inverse[i] = own > 0.0 ? 1.0 / own : without;
    }
    standardize(u, mean, factor, inverse, at);
    if (predicts_) {
      T ahead[capacity];
      const auto all = static_cast<long>(n_.leaf().SubInfo.size());
      const float* by = n_.ebes_by.data();
      for (int i = 0; i < nr(); ++i)
        for (int j = 0; j < n_.nparm; ++j, by += all)
          u[i] += subjects.gather(by, 1) * b_.parameter_step[static_cast<std::size_t>(j)];
      standardize(u, mean, factor, inverse, ahead);
      auto near = ahead[0] == ahead[0];
      for (int i = 0; i < nr(); ++i) near = near & (ahead[i] - at[i] < farthest) & (at[i] - ahead[i] < farthest);
      for (int i = 0; i < nr(); ++i) at[i] = near ? ahead[i] : at[i];
    }
    for (int i = 0; i < nr(); ++i) slots.scatter(at[i], b_.z.data() + i, nr());
  }

  template <class T> void standardize(const T* u, const T* mean, const T* l, const T* inverse, T* to) const
  {
    for (int i = 0; i < nr(); ++i) {
      T d = u[i] - mean[i];
      for (int k = 0; k < i; ++k) d -= l[k] * to[k];
      to[i] = d * inverse[i]; // the mean itself where there is no variance
      l += i + 1;
    }
  }

  void start_from_mean(int slot)
  {
    ModeSearch& s = search(slot);
    s = ModeSearch{}; // searching
    s.from_mean = true;
    s.bound = s.previous = largest;
    std::fill_n(z(slot), nr(), 0.0);
  }

  // A search that cannot go on: from a stored mode it begins again at the mean, else the slot fails.
  void give_up(int slot, SearchEnd why = SearchEnd::steps)
  {
    ModeSearch& s = search(slot);
    if (!s.from_mean) return start_from_mean(slot);
    s.state = ModeSearch::failed;
    s.failure = failure_of(why, n_.leaf().sub_character);
  }

  // One decision of the search: the i-th of these steps follows from value, gradient and Hessian at z, in this column
  // of sums.
  template <class T> void advance(int slot, const double* sums, NewtonSteps<NR, T>& steps, int i)
  {
    ModeSearch& s = search(slot);
    const double f = steps.of(steps.at.f, i);
    if (n_.ebsubstep > 0) {
      const bool trial = s.substep > 0;
      if (trial ? !(f < s.bound) : !(f <= s.bound)) return shrink(slot);
      if (!(f < model::failure_objective)) return give_up(slot); // the start itself cannot be evaluated
      s.substep = 0;
      s.bound = allowed_value(f, n_.ebsstol);
      std::copy_n(z(slot), nr(), zold(slot));
    } else if (!(f < model::failure_objective)) {
      return give_up(slot);
    }
    if (steps.inverted[i] != 0.0) return newton(slot, sums, steps, i);
    if constexpr (SlotGroup<T>::width > 1) {
      NewtonSteps<NR, double> repaired(nr());
      read(repaired, SlotGroup<double>{{slot}}, sums);
      if (repaired.inverted[0] != 0.0) return newton(slot, sums, repaired, 0);
    }
    give_up(slot);
  }

  // The value rose: a shorter step, first by EBSSFRAC, then by halves.
  void shrink(int slot)
  {
    ModeSearch& s = search(slot);
    if (s.substep >= n_.ebsubstep + halvings) return give_up(slot, SearchEnd::shorter_steps);
    const double keep = s.substep < n_.ebsubstep ? n_.ebssfrac : 0.5;
    ++s.substep;
    s.state = ModeSearch::searching;
    double* const to = z(slot);
    const double* const from = zold(slot);
    for (int i = 0; i < nr(); ++i) to[i] = keep * to[i] + (1.0 - keep) * from[i];
  }

  template <class T> void newton(int slot, const double* sums, NewtonSteps<NR, T>& steps, int i)
  {
    constexpr int apart = SlotGroup<T>::width;
    ModeSearch& s = search(slot);
    const double length = steps.of(steps.length, i), square = steps.of(steps.square, i);
    if (!(square < largest)) return give_up(slot);
    const bool noise = square < noise_floor && square > noise_ratio * s.previous;
    const bool predicted =
        n_.prediction_stands && starts_near_ && s.step == 0 && !s.from_mean && square < good_prediction;
    const bool made_up_for = closes_ && square < remainder;
    if (short_enough(length, square, n_.ebtol, remainder) || noise || square < negligible || predicted || made_up_for) {
      s.state = ModeSearch::found;
      steps.determine();
      s.logdet = steps.of(steps.logdet, i);
      keep_curvature<NR>(b_, nr(), slot, sums, steps.column(steps.at.hessian, i), apart);
      return;
    }
    const double next = bends(slot) ? steps.of(steps.after, i) : next_step(square, s.previous);
    const bool near = at_modes_ != nullptr && next < remainder;
    s.previous = square;
    if (++s.step >= n_.ebstep) return give_up(slot);
    double* const to = z(slot);
    const double* const step = steps.column(steps.at.gradient, i);
    for (int k = 0; k < nr(); ++k) to[k] -= step[k * apart];
    s.state = near ? ModeSearch::near : ModeSearch::searching;
  }

  const NX& n_;
  TVLThreadCtx& ctx_;
  BatchWork& b_;
  const int nr_, nrs_;
  const AtModes* const at_modes_;
  const bool predicts_;       // starts follow the parameters from the accepted modes
  const bool starts_near_;    // stored modes are those of this point, or have to do
  const bool bends_;          // what bends a first step is known
  bool closes_ = false;       // the sums in hand are those of the evaluation at the modes
  int active_ = 0, near_ = 0; // after the last round of decisions
  int closed_ = 0;            // columns of curvature_sums in use
};

template <int NR> int search_batch(const NX& n, TVLThreadCtx& ctx, const AtModes* at_modes)
{
  LockstepSearch<NR> search(n, ctx, at_modes);
  if (const int rc = search.run(); rc != 0) return rc;
  bool by_library = false;
  for (int slot = 0; slot < ctx.batch.slots; ++slot) {
    const auto at = static_cast<std::size_t>(slot);
    const ModeSearch& s = ctx.batch.search[at];
    if (s.state != ModeSearch::failed || s.failure == 0) continue;
    if (n.ebopt && library_search(n, ctx, slot))
      by_library = true;
    else
      ctx.batch.failure[at] = n.ebopt ? failure_of(SearchEnd::library, n.leaf().sub_character) : s.failure;
  }
  return by_library && at_modes != nullptr ? search.close() : 0;
}

} // namespace

int tvlebes(const NX& n, TVLThreadCtx& ctx, const AtModes* at_modes)
{
  return unrolled(n.leaf().nr, [&](auto order) { return search_batch<order()>(n, ctx, at_modes); });
}

} // namespace torvale::modes
