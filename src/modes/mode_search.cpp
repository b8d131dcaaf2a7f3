#include "modes/mode_search.h"

#include "evaluation/record_sums.h"
#include "modes/hessian_at_mode.h"
#include "modes/joint_density.h"
#include "modes/search_rules.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::modes {

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
        starts_near_(at_modes != nullptr && !n.ebes_point.empty() && (n.prediction_stands || !predicts_))
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
    advance_all(modes, b_.curvature_sums.data() + at_modes_->mode_place * b_.mode_stride + closed_);
    closed_ += modes;
    return 0;
  }

private:
  static constexpr int capacity = JointDensity<NR>::capacity;
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
    for (int a = 0; a < count; ++a) {
      const int slot = b_.active[static_cast<std::size_t>(a)];
      if (search(slot).state == ModeSearch::found) continue;
      advance(slot, sums + a);
      if (search(slot).state != ModeSearch::found) column(slot) = none;
      if (search(slot).state == ModeSearch::searching) b_.active[static_cast<std::size_t>(active_++)] = slot;
      if (search(slot).state == ModeSearch::near) ++near_;
    }
  }

  ModeSearch& search(int slot) { return b_.search[static_cast<std::size_t>(slot)]; }
  int nr() const { return NR > 0 ? NR : nr_; }
  int nrs() const { return NR > 0 ? NR * (NR + 1) / 2 : nrs_; }
  double* z(int slot) { return b_.z.data() + static_cast<long>(slot) * nr(); }
  double* zold(int slot) { return b_.zold.data() + static_cast<long>(slot) * nr(); }
  const double* factor(int slot) const { return b_.factor.data() + static_cast<long>(prior_of(n_, slot)) * nrs(); }

  void start_all()
  {
    start_columns();
    active_ = 0;
    for (int slot = 0; slot < b_.slots; ++slot) {
      ModeSearch& s = search(slot);
      s = ModeSearch{};
      s.bound = s.previous = largest;
      if (b_.failure[static_cast<std::size_t>(slot)] != 0) {
        s.state = ModeSearch::failed;
      } else if (n_.ebstep <= 0) {
        s.from_mean = true;
        std::fill_n(z(slot), nr(), 0.0);
        give_up(slot);
      } else {
        place_start(slot);
        if (starts_near_ && !s.from_mean)
          s.state = ModeSearch::near;
        else
          b_.active[static_cast<std::size_t>(active_++)] = slot;
      }
    }
  }

  // z = L^-1 (u - m) of the accepted mode, moved with the parameters; a direction without variance stays at its mean.
  void place_start(int slot)
  {
    const auto subject = static_cast<std::size_t>(b_.subject[static_cast<std::size_t>(slot)]);
    double* const to = z(slot);
    if (n_.ebzstart || n_.ebes_known[subject] == 0) {
      std::fill_n(to, nr(), 0.0);
      search(slot).from_mean = true;
      return;
    }
    const double* const u = n_.ebes.data() + subject * static_cast<std::size_t>(nr());
    standardize(slot, u, to);
    if (!predicts_) return;
    double ahead[capacity], z_ahead[capacity];
    for (int i = 0; i < nr(); ++i) ahead[i] = u[i];
    const float* by = n_.ebes_by.data() + subject * static_cast<std::size_t>(nr() * n_.nparm);
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j < n_.nparm; ++j)
        ahead[i] += static_cast<double>(*by++) * b_.parameter_step[static_cast<std::size_t>(j)];
    standardize(slot, ahead, z_ahead);
    // A point so far away that the modes leave the prior's reach is no place to extrapolate to.
    constexpr double farthest = 2.0;
    bool near = true;
    for (int i = 0; i < nr(); ++i) near = near && std::abs(z_ahead[i] - to[i]) < farthest;
    if (near) std::copy_n(z_ahead, nr(), to);
  }

  void standardize(int slot, const double* u, double* to) const
  {
    const double* const m = b_.mean.data() + static_cast<long>(prior_of(n_, slot)) * nr();
    const double* l = factor(slot);
    for (int i = 0; i < nr(); ++i) {
      double d = u[i] - m[i];
      for (int k = 0; k < i; ++k) d -= l[k] * to[k];
      to[i] = l[i] > 0.0 ? d / l[i] : 0.0;
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

  // One decision of the search: value, gradient and Hessian at z stand in this column of sums.
  void advance(int slot, const double* sums)
  {
    ModeSearch& s = search(slot);
    JointDensity<NR> at(nr());
    at.read(sums, b_.mode_stride, z(slot), factor(slot));
    if (n_.ebsubstep > 0) {
      const bool trial = s.substep > 0;
      if (trial ? !(at.f < s.bound) : !(at.f <= s.bound)) return shrink(slot);
      if (!(at.f < model::failure_objective)) return give_up(slot); // the start itself cannot be evaluated
      s.substep = 0;
      s.bound = allowed_value(at.f, n_.ebsstol);
      std::copy_n(z(slot), nr(), zold(slot));
    } else if (!(at.f < model::failure_objective)) {
      return give_up(slot);
    }
    newton(slot, sums, at);
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

  void newton(int slot, const double* sums, JointDensity<NR>& at)
  {
    ModeSearch& s = search(slot);
    double* const inverse = at.hessian;
    double* const step = at.gradient;
    double pivots[static_cast<std::size_t>(JointDensity<NR>::capacity)];
    if (InvertHessian<NR>(n_, nr(), inverse, step, pivots, ctx_.block) != 0) return give_up(slot);

    // Largest component of the step in u, and its largest square in posterior variances of z.
    double step_u = 0.0, step_sd = 0.0;
    const double* l = factor(slot);
    for (int i = 0; i < nr(); ++i) {
      double du = 0.0;
      for (int k = 0; k <= i; ++k) du += l[k] * step[k];
      l += i + 1;
      if (!(std::abs(du) <= step_u)) step_u = std::abs(du);
      const double square = step[i] * step[i];
      const double sd = NR == 1 ? square * std::abs(pivots[0]) : square / std::abs(inverse[i * (i + 3) / 2]);
      if (!(sd <= step_sd)) step_sd = sd;
    }
    if (!(step_sd < largest)) return give_up(slot);
    const bool noise = step_sd < noise_floor && step_sd > noise_ratio * s.previous;
    const bool predicted =
        n_.prediction_stands && starts_near_ && s.step == 0 && !s.from_mean && step_sd < good_prediction;
    if (step_u < n_.ebtol || noise || step_sd < negligible || predicted) {
      s.state = ModeSearch::found;
      s.logdet = log_determinant(nr(), pivots);
      keep_curvature<NR>(b_, nr(), slot, sums, inverse);
      return;
    }
    const bool near = at_modes_ != nullptr && next_step(step_sd, s.previous) < negligible;
    s.previous = step_sd;
    if (++s.step >= n_.ebstep) return give_up(slot);
    double* const to = z(slot);
    for (int i = 0; i < nr(); ++i) to[i] -= step[i];
    s.state = near ? ModeSearch::near : ModeSearch::searching;
  }

  const NX& n_;
  TVLThreadCtx& ctx_;
  BatchWork& b_;
  const int nr_, nrs_;
  const AtModes* const at_modes_;
  const bool predicts_;       // starts follow the parameters from the accepted modes
  const bool starts_near_;    // stored modes are those of this point, or have to do
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
  switch (n.leaf().nr) {
  case 1:
    return search_batch<1>(n, ctx, at_modes);
  case 2:
    return search_batch<2>(n, ctx, at_modes);
  case 3:
    return search_batch<3>(n, ctx, at_modes);
  default:
    return search_batch<0>(n, ctx, at_modes);
  }
}

} // namespace torvale::modes
