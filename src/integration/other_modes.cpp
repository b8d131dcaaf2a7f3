#include "integration/other_modes.h"

#include "evaluation/record_sums.h"
#include "integration/subjects/integrator.h"
#include "matrix/cholesky.h"
#include "matrix/packed.h"
#include "modes/mode_search.h"

#include <algorithm>
#include <cmath>

namespace torvale::integration {

using model::BatchWork;
using model::NX;
using model::TVLThreadCtx;

namespace {

constexpr int line_points = 16;    // of a line, and of each closer look
constexpr int closer_looks = 3;    // each at 2/17 of the distance before
constexpr double prior_end = 6.0;  // in z: what the prior leaves beyond is nothing
constexpr long most_looked = 2000; // about, of subjects: every so many-th run of neighbours, which few batches hold
constexpr long neighbours = 64;
constexpr double rounding = 1e-9; // relative: rises of a log integrand below it are none

// A line through the mode of a slot: z = mode + t direction, 0 <= t <= length.
struct Line {
  int slot = 0;
  double length = 0.0;
  double width = 0.0;            // standard deviation along the line at the mode, by its curvature
  double reach = 0.0;            // t up to which the points go
  double from = 0.0, step = 0.0; // the points in hand are from + k step, k = 1 ..
  double best = 0.0;             // t of the highest other mode so far
  double height = 0.0;           // log integrand there
  double spread = 0.0;           // its standard deviation along the line
  bool rises = false;            // there is one
  std::vector<double> direction;
};

// The lines of one batch.
class LineLook {
public:
  LineLook(const NX& n, TVLThreadCtx& ctx)
      : n_(n), ctx_(ctx), b_(ctx.batch), nr_(n.leaf().nr), value_(static_cast<std::size_t>(b_.slots)),
        most_(evaluation::most_pairs / line_points)
  {
    const long outputs = n.programs.value.places;
    sums_.resize(static_cast<std::size_t>(outputs * evaluation::most_pairs));
    points_.resize(static_cast<std::size_t>(nr_ * evaluation::most_pairs));
  }

  // What share of its integral each slot loses, relative to what it has: `lost` by slot, 0 where nothing.
  int run(const std::vector<int>& slots, std::vector<double>& lost)
  {
    if (const int rc = find_heights(slots); rc != 0) return rc;
    for (const double part : {1.0, 0.25}) // the whole line; once more, denser, what is near
      for (int d = 0; d <= 2 * nr_; ++d)  // a run of the program takes one line of each slot
        for (const int slot : slots) add_line(slot, d, part);
    if (const int rc = sweep([this](Line& line, const double* f) { look(line, f); }); rc != 0) return rc;
    std::erase_if(lines_, [](const Line& line) { return !line.rises; });
    for (int round = 0; round < closer_looks; ++round)
      if (const int rc = sweep([this](Line& line, const double* f) { look_closer(line, f); }); rc != 0) return rc;
    for (const Line& line : lines_) {
      if (line.best <= line.reach) continue;
      const double share =
          std::exp(line.height - value_[static_cast<std::size_t>(line.slot)]) * line.spread / line.width;
      double& own = lost[static_cast<std::size_t>(line.slot)];
      own = std::max(own, std::min(share, 1e300));
    }
    return 0;
  }

private:
  const double* mode(int slot) const { return b_.z.data() + static_cast<long>(slot) * nr_; }

  // Line d of a slot: up and down every axis, then through the origin.
  void add_line(int slot, int d, double part)
  {
    const double* const z = mode(slot);
    Line line;
    line.slot = slot;
    line.direction.assign(static_cast<std::size_t>(nr_), 0.0);
    if (d < 2 * nr_) {
      const double sign = d % 2 == 0 ? 1.0 : -1.0;
      line.direction[static_cast<std::size_t>(d / 2)] = sign;
      line.length = prior_end - sign * z[d / 2];
    } else {
      double norm = 0.0;
      for (int k = 0; k < nr_; ++k) norm += z[k] * z[k];
      norm = std::sqrt(norm);
      if (nr_ == 1 || !(norm > 0.1)) return;
      for (int k = 0; k < nr_; ++k) line.direction[static_cast<std::size_t>(k)] = -z[k] / norm;
      line.length = norm + prior_end;
    }
    const long matrix = static_cast<long>(slot) * n_.leaf().nrs;
    line.length *= part;
    line.step = line.length / line_points;
    line.width = 1.0 / distance(b_.covariance.data() + matrix, true, line.direction);
    line.reach = farthest_point() / distance(b_.spread.data() + matrix, false, line.direction);
    if (line.length > 0.0 && std::isfinite(line.width) && line.width > 0.0) lines_.push_back(std::move(line));
  }

  // The length of a direction in units of a covariance, or of its factor.
  double distance(const double* covariance, bool factorize, const std::vector<double>& direction) const
  {
    std::vector<double> factor(covariance, covariance + n_.leaf().nrs), d(direction);
    for (int i = 0; factorize && i < nr_; ++i) matrix::zchol(i, factor.data(), 0.0);
    matrix::zchol2(nr_, factor.data(), d.data());
    double square = 0.0;
    for (const double x : d) square += x * x;
    return std::sqrt(square);
  }

  // Where the outermost point is expected, in units of the scale.
  double farthest_point() const
  {
    if (n_.method == 3)
      return n_.qscale * (std::sqrt(nr_) + std::sqrt(2.0 * std::log(static_cast<double>(n_.leaf().nqpr))));
    return n_.qscale * std::sqrt(2.0) * (n_.absc.empty() ? 0.0 : n_.absc.back());
  }

  // The log integrands at the modes, as the heights that others are compared with.
  int find_heights(const std::vector<int>& slots)
  {
    std::vector<Line> at_modes(slots.size());
    for (std::size_t i = 0; i < slots.size(); ++i) {
      at_modes[i].slot = slots[i];
      at_modes[i].direction.assign(static_cast<std::size_t>(nr_), 0.0);
    }
    std::swap(lines_, at_modes);
    const int rc = sweep([this](Line& line, const double* f) { value_[static_cast<std::size_t>(line.slot)] = f[0]; });
    std::swap(lines_, at_modes);
    return rc;
  }

  // Runs the program at the points of all lines; take(line, their log integrands).
  template <class Take> int sweep(Take take)
  {
    for (std::size_t first = 0; first < lines_.size();) {
      // A run has every slot once, in ascending order.
      std::vector<int> slots;
      std::vector<std::size_t> of;
      for (std::size_t k = first; k < lines_.size() && static_cast<int>(of.size()) < most_; ++k) {
        if (!slots.empty() && lines_[k].slot <= slots.back()) break;
        slots.push_back(lines_[k].slot);
        of.push_back(k);
      }
      first += of.size();
      if (const int rc = run_lines(slots, of, take); rc != 0) return rc;
    }
    return 0;
  }

  template <class Take> int run_lines(const std::vector<int>& slots, const std::vector<std::size_t>& of, Take take)
  {
    const evaluation::Pairs pairs{slots.data(), static_cast<int>(slots.size()), line_points};
    const int count = pairs.count * line_points;
    const auto pair_of = [&](std::size_t i, int q) {
      return static_cast<std::size_t>(static_cast<int>(i) * pairs.slot_step() + q * pairs.point_step());
    };
    for (std::size_t i = 0; i < of.size(); ++i)
      for (int q = 0; q < line_points; ++q) place(lines_[of[i]], q, pair_of(i, q), static_cast<std::size_t>(count));
    ctx_.frame->set_points(points_.data(), count, count);
    if (const int rc = evaluation::tvllogl(n_, ctx_, pairs, {n_.programs.value, sums_.data(), count}); rc != 0)
      return rc;
    for (std::size_t i = 0; i < of.size(); ++i) {
      double f[line_points];
      for (int q = 0; q < line_points; ++q) f[q] = log_integrand(lines_[of[i]], q, sums_[pair_of(i, q)]);
      take(lines_[of[i]], f);
    }
    return 0;
  }

  double z_of(const Line& line, int k, int q) const
  {
    return mode(line.slot)[k] + (line.from + (q + 1) * line.step) * line.direction[static_cast<std::size_t>(k)];
  }

  void place(const Line& line, int q, std::size_t pair, std::size_t stride)
  {
    const long p = modes::prior_of(n_, line.slot);
    const double* const mean = b_.mean.data() + p * nr_;
    const double* const l = b_.factor.data() + p * n_.leaf().nrs;
    for (int i = 0; i < nr_; ++i) {
      double u = mean[i];
      for (int k = 0; k <= i; ++k) u += l[matrix::packed_index(i, k)] * z_of(line, k, q);
      points_[static_cast<std::size_t>(i) * stride + pair] = u;
    }
  }

  double log_integrand(const Line& line, int q, double ll) const
  {
    if (!(ll > model::impossible_loglik)) return model::failed_point;
    double square = 0.0;
    for (int k = 0; k < nr_; ++k) square += z_of(line, k, q) * z_of(line, k, q);
    return ll - 0.5 * square;
  }

  // The highest point that rises above the one before it, and none behind it is higher: the next look is around it.
  void look(Line& line, const double* f) const
  {
    double before = value_[static_cast<std::size_t>(line.slot)];
    for (int q = 0; q < line_points; before = f[q++]) {
      const bool rise = f[q] > before + rounding * (1.0 + std::abs(before));
      const bool falls_behind = q + 1 == line_points || !(f[q + 1] > f[q]);
      if (rise && falls_behind && (!line.rises || f[q] > line.height)) keep(line, q, f);
    }
    close_in(line);
  }

  void look_closer(Line& line, const double* f) const
  {
    const int q = static_cast<int>(std::max_element(f, f + line_points) - f);
    keep(line, q, f);
    if (q > 0 && q + 1 < line_points) {
      const double drop = f[q] - 0.5 * (f[q - 1] + f[q + 1]);
      line.spread =
          std::clamp(drop > 0.0 ? line.step / std::sqrt(2.0 * drop) : line.width, 0.05 * line.width, 20.0 * line.width);
    }
    close_in(line);
  }

  void keep(Line& line, int q, const double* f) const
  {
    line.rises = true;
    line.best = line.from + (q + 1) * line.step;
    line.height = f[q];
    line.spread = line.width;
  }

  // Around the highest point, as far as its neighbours.
  void close_in(Line& line) const
  {
    if (!line.rises) return;
    line.from = line.best - line.step;
    line.step = 2.0 * line.step / (line_points + 1);
  }

  const NX& n_;
  TVLThreadCtx& ctx_;
  BatchWork& b_;
  const int nr_;
  std::vector<double> value_; // per slot: log integrand at the mode
  const int most_;            // lines of one run
  std::vector<Line> lines_;
  std::vector<double> sums_, points_;
};

} // namespace

int find_other_modes(NX& n, OtherModes& found)
{
  found = {};
  const bool adapted = n.reff.size() == 1 && n.adaptive && (n.method == 0 || n.method == 3);
  if (!adapted) return 0;
  TVLThreadCtx& ctx = *n.ctx[0];
  ctx.frame->set_parameters(n.parm.data());
  ctx.batch.prior_loaded = false;
  const auto& subjects = n.leaf().SubInfo;
  const long every = (static_cast<long>(subjects.size()) + most_looked - 1) / most_looked;
  double worst = 0.0;
  std::vector<std::pair<int, double>> shares; // by subject, which is an order of the data and not of the batches
  for (const auto& batch : n.batches) {
    const auto chosen = [&](int subject) { return subject / neighbours % every == 0; };
    const auto begin = n.batch_subjects.begin() + batch.first, end = n.batch_subjects.begin() + batch.last;
    if (std::none_of(begin, end, chosen)) continue;
    take_batch(n, ctx, batch);
    if (const int rc = integrator_of(n).evaluate(n, ctx, false); rc > 2) return rc;
    const BatchWork& b = ctx.batch;
    std::vector<int> slots;
    for (int slot = 0; slot < b.slots; ++slot)
      if (b.failure[static_cast<std::size_t>(slot)] == 0 && chosen(b.subject[static_cast<std::size_t>(slot)]))
        slots.push_back(slot);
    std::vector<double> lost(static_cast<std::size_t>(b.slots), 0.0);
    if (const int rc = LineLook(n, ctx).run(slots, lost); rc > 2) return rc;
    for (const int slot : slots)
      shares.emplace_back(b.subject[static_cast<std::size_t>(slot)], lost[static_cast<std::size_t>(slot)]);
  }
  ctx.batch.prior_loaded = false;
  std::sort(shares.begin(), shares.end());
  for (const auto& [subject, share] : shares) {
    const double change = -2.0 * subjects[static_cast<std::size_t>(subject)].weight * std::log1p(share);
    found.change += change;
    if (share > rounding) ++found.subjects;
    if (change < worst) {
      worst = change;
      found.worst = subject;
    }
  }
  found.looked = static_cast<long>(shares.size());
  if (every > 1) found.change *= static_cast<double>(subjects.size()) / static_cast<double>(found.looked);
  return 0;
}

} // namespace torvale::integration
