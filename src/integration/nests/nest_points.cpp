#include "integration/nests/nest_points.h"

#include "evaluation/lane_loops.h"
#include "evaluation/record_sums.h"
#include "evaluation/slot_group.h"
#include "integration/subjects/evaluation_parts.h"
#include "modes/joint_density.h"
#include "modes/nest_elimination.h"
#include "modes/nest_steps.h"

#include <algorithm>
#include <cmath>

namespace torvale::integration {

using evaluation::Four;
using model::BatchWork;
using model::NestLevel;
using model::NestWork;
using model::NX;
using model::REFFECT;
using model::TVLThreadCtx;
using modes::packed;

namespace {

constexpr int most_points = 256; // of one chunk of a leaf
constexpr int most_slots = 128;  // of one block: one strip of lanes

// A block of slots times a chunk of points: `outer` joint points of the ancestors times `own` points of the leaf. Pairs
// that differ in the own point only are `width` apart, so that sums over own points add rows of `width` numbers: all
// slots and outer points where slots lie side by side in the lanes, else the outer points of one slot after the other.
struct Chunk {
  evaluation::Pairs pairs;
  long first_outer = 0, first_own = 0;
  int outer = 1, own = 1;
  bool aside() const { return pairs.slots_aside(); }
  int width() const { return aside() ? outer * pairs.count : outer; }
  int rows() const { return aside() ? 1 : pairs.count; } // groups of `own` rows
  int sums() const { return outer * pairs.count; }
  int pair(int i, int p, int q) const
  {
    return aside() ? (q * outer + p) * pairs.count + i : (i * own + q) * outer + p;
  }
  int sum(int i, int p) const { return aside() ? p * pairs.count + i : i * outer + p; }
};

class LeafPoints {
public:
  LeafPoints(const NX& n, TVLThreadCtx& ctx, bool gradient)
      : n_(n), ctx_(ctx), b_(ctx.batch), w_(ctx.nests), leaf_(ctx.nests.level.front()), reff_(n.leaf()), rows_(n),
        gradient_(gradient), scale_(n.qscale * root_two)
  {
  }

  int run()
  {
    int good = 0;
    for (int slot = 0; slot < b_.slots; ++slot) {
      const int leaf = w_.leaf_of_slot[static_cast<std::size_t>(slot)];
      if (w_.failure[static_cast<std::size_t>(w_.nest_of_leaf[static_cast<std::size_t>(leaf)])] == 0)
        w_.columns[static_cast<std::size_t>(good++)] = slot;
    }
    std::fill(w_.peak.begin(), w_.peak.end(), model::failed_point);
    std::fill(w_.total.begin(), w_.total.end(), 0.0);
    const int own = static_cast<int>(std::min<long>(leaf_.points, most_points));
    const int outer = own < leaf_.points ? 1 : static_cast<int>(std::min<long>(leaf_.outer, most_points / own));
    const int most = std::min(most_slots, evaluation::most_pairs / (own * outer));
    const int blocks = (good + most - 1) / most;
    for (int block = 0, first = 0; block < blocks; ++block) {
      const int count = (good - first) / (blocks - block);
      if (const int rc = add_block(w_.columns.data() + first, count, own, outer); rc != 0) return rc;
      first += count;
    }
    static const auto build = evaluation::build_for_machine(take_logarithms<Four>, take_logarithms_avx2);
    build(b_, w_, leaf_.outer);
    return 0;
  }

private:
  // Peaks become the logs of the integrals; rows are a whole number of vectors.
  template <class T> static void take_logarithms(const BatchWork& b, NestWork& w, long outer)
  {
    using Group = evaluation::SlotGroup<T>;
    const T failed = T{} + model::failed_point;
    for (long p = 0; p < outer; ++p)
      for (long at = p * b.mode_stride; at < p * b.mode_stride + b.slots; at += Group::width) {
        const T total = Group::load(w.total.data() + at), peak = Group::load(w.peak.data() + at);
        const T log_total = Group::logarithm(total > 0.0 ? total : T{} + 1.0);
        Group::store(total > 0.0 ? log_total + peak : failed, w.peak.data() + at);
      }
  }
  TORVALE_AVX2_BUILD static void take_logarithms_avx2(const BatchWork& b, NestWork& w, long outer)
  {
    take_logarithms<Four>(b, w, outer);
  }

  int add_block(const int* slots, int count, int own, int outer)
  {
    for (long p = 0; p < leaf_.outer; p += outer)
      for (long q = 0; q < leaf_.points; q += own) {
        c_.first_outer = p;
        c_.first_own = q;
        c_.outer = static_cast<int>(std::min<long>(outer, leaf_.outer - p));
        c_.own = static_cast<int>(std::min<long>(own, leaf_.points - q));
        c_.pairs = {slots, count, c_.outer * c_.own};
        if (c_.aside() && leaf_.own == 1 && w_.level.size() <= modes::most_single_levels)
          place_slots_aside();
        else
          for (int i = 0; i < count; ++i) place(i);
        if (const int rc = add_chunk(); rc != 0) return rc;
      }
    return 0;
  }

  void place_slots_aside()
  {
    static const auto build = evaluation::build_for_machine(place_plain, place_avx2);
    build(*this);
  }
  static void place_plain(LeafPoints& points) { points.place_aside(); }
  TORVALE_AVX2_BUILD static void place_avx2(LeafPoints& points) { points.place_aside(); }

  // The same as `place` for all entries, of leaves with one effect and slots side by side: loops over slots.
  void place_aside()
  {
    const int count = c_.pairs.count;
    double mean[most_slots], factor[most_slots], spread[most_slots], centre[most_slots];
    int node[modes::most_single_levels][most_slots]; // by level
    for (int i = 0; i < count; ++i) {
      const int leaf = node[0][i] = w_.leaf_of_slot[static_cast<std::size_t>(c_.pairs.slots[i])];
      factor[i] = modes::factor_of(leaf_, leaf)[0];
      mean[i] = leaf_.mean[static_cast<std::size_t>(leaf_.prior_of(leaf))];
      spread[i] = leaf_.spread[static_cast<std::size_t>(leaf)];
    }
    for (std::size_t up = 1; up < w_.level.size(); ++up)
      for (int i = 0; i < count; ++i)
        node[up][i] = w_.level[up - 1].nodes->parent[static_cast<std::size_t>(node[up - 1][i])];
    for (int p = 0; p < c_.outer; ++p) {
      for (int i = 0; i < count; ++i) centre[i] = leaf_.z[static_cast<std::size_t>(node[0][i])];
      for (std::size_t up = w_.level.size(); --up > 0;) {
        const NestLevel& a = w_.level[up];
        const long joint = a.joint(), at = (c_.first_outer + p) % joint;
        for (int k = 0; k < a.own; ++k) {
          double* const u = b_.ran.data() + (a.place + k) * b_.pair_stride;
          double* const first = u + c_.pair(0, p, 0);
          const double* const tilt = leaf_.tilt.data() + a.place + k;
          for (int i = 0; i < count; ++i) {
            const long from = (static_cast<long>(node[up][i]) * a.own + k) * joint + at;
            first[i] = a.effects[static_cast<std::size_t>(from)];
            centre[i] +=
                tilt[static_cast<long>(node[0][i]) * leaf_.above] * a.deviation[static_cast<std::size_t>(from)];
          }
          for (int q = 1; q < c_.own; ++q) std::copy_n(first, count, u + c_.pair(0, p, q));
        }
      }
      for (int q = 0; q < c_.own; ++q) {
        const double x = standard(0)[q], log_weight = reff_.logw[static_cast<std::size_t>(c_.first_own + q)];
        double* const u = b_.ran.data() + leaf_.place * b_.pair_stride + c_.pair(0, p, q);
        double* const prior = b_.prior.data() + c_.pair(0, p, q);
        for (int i = 0; i < count; ++i) {
          const double z = centre[i] + scale_ * (spread[i] * x);
          prior[i] = log_weight - 0.5 * z * z;
          u[i] = mean[i] + factor[i] * z;
        }
      }
    }
  }

  // Effects of the chain and the log of weight times the leaf's prior kernel at the points of entry i.
  void place(int i)
  {
    const int node = w_.leaf_of_slot[static_cast<std::size_t>(c_.pairs.slots[i])];
    const int own = leaf_.own;
    const double* const l = modes::factor_of(leaf_, node);
    const double* const m = leaf_.mean.data() + static_cast<long>(leaf_.prior_of(node)) * own;
    const double* const spread = leaf_.spread.data() + static_cast<long>(node) * leaf_.triangle();
    const double* const b = leaf_.tilt.data() + static_cast<long>(node) * (own * leaf_.above);
    for (int p = 0; p < c_.outer; ++p) {
      double deviation[modes::most_effects], centre[modes::most_effects];
      place_ancestors(i, p, node, deviation);
      for (int k = 0; k < own; ++k) {
        centre[k] = leaf_.z[static_cast<std::size_t>(node * own + k)];
        for (int a = 0; a < leaf_.above; ++a) centre[k] += b[k * leaf_.above + a] * deviation[a];
      }
      for (int q = 0; q < c_.own; ++q) {
        const int pair = c_.pair(i, p, q);
        double z[modes::most_effects];
        double log_weight = reff_.logw[static_cast<std::size_t>(c_.first_own + q)];
        for (int k = 0; k < own; ++k) {
          double t = 0.0;
          for (int j = 0; j <= k; ++j) t += spread[packed(k, j)] * standard(j)[q];
          z[k] = centre[k] + scale_ * t;
          log_weight -= 0.5 * z[k] * z[k];
          double u = m[k];
          for (int j = 0; j <= k; ++j) u += l[packed(k, j)] * z[j];
          b_.ran[static_cast<std::size_t>((leaf_.place + k) * b_.pair_stride + pair)] = u;
        }
        b_.prior[static_cast<std::size_t>(pair)] = log_weight;
      }
    }
  }

  void place_ancestors(int i, int p, int node, double* deviation)
  {
    for (std::size_t up = 1; up < w_.level.size(); ++up) {
      node = w_.level[up - 1].nodes->parent[static_cast<std::size_t>(node)];
      const NestLevel& a = w_.level[up];
      const long joint = a.joint(), at = (c_.first_outer + p) % joint;
      for (int k = 0; k < a.own; ++k) {
        const long from = (static_cast<long>(node) * a.own + k) * joint + at;
        deviation[a.place + k] = a.deviation[static_cast<std::size_t>(from)];
        double* const u = b_.ran.data() + (a.place + k) * b_.pair_stride;
        for (int q = 0; q < c_.own; ++q) u[c_.pair(i, p, q)] = a.effects[static_cast<std::size_t>(from)];
      }
    }
  }

  const double* standard(int k) const { return reff_.points.data() + k * reff_.nqpr + c_.first_own; }

  int add_chunk()
  {
    const model::ModelProgram& program = gradient_ ? n_.programs.gradient : n_.programs.value;
    const int all = c_.pairs.count * c_.pairs.points;
    ctx_.frame->set_points(b_.ran.data(), all, static_cast<int>(b_.pair_stride));
    const int rc = evaluation::tvllogl(n_, ctx_, c_.pairs, {program, b_.point_sums.data(), b_.pair_stride});
    if (rc != 0) return rc;
    make_weights(all);
    weigh();
    if (gradient_) add_moments(all);
    return 0;
  }

  // Calls f(first pair of a row, first sum of its group) for the rows of `width` pairs.
  template <class F> void for_rows(F&& f) const
  {
    const int width = c_.width();
    for (int g = 0; g < c_.rows(); ++g)
      for (int q = 0; q < c_.own; ++q) f((g * c_.own + q) * width, g * width, q);
  }

  void make_weights(int all)
  {
    double* const e = b_.prior.data();
    const double* const ll = b_.point_sums.data();
    const int width = c_.width();
    evaluation::join_above(e, ll, model::impossible_loglik, model::failed_point, all);
    std::fill_n(peak_, c_.sums(), model::failed_point);
    for_rows([&](int pair, int sum, int) { evaluation::keep_larger(peak_ + sum, e + pair, width); });
    for_rows([&](int pair, int sum, int) {
      for (int j = 0; j < width; ++j) e[pair + j] -= peak_[sum + j];
    });
    evaluation::exponentials_of_nonpositive(e, all);
  }

  // Puts the chunk and what is there of earlier own points on the scale of the larger peak, and adds the weights.
  void weigh()
  {
    whole_ = c_.aside() && c_.own == leaf_.points &&
             c_.pairs.slots[c_.pairs.count - 1] - c_.pairs.slots[0] == c_.pairs.count - 1 &&
             evaluation::all_finite_above(model::failed_point, peak_, c_.sums());
    if (whole_)
      keep_rows(peak_, w_.peak, 0);
    else
      join_peaks();
    sum(b_.prior.data());
    keep_sums(w_.total, 0);
  }

  void join_peaks()
  {
    for (int i = 0; i < c_.pairs.count; ++i)
      for (int p = 0; p < c_.outer; ++p) {
        const int k = c_.sum(i, p);
        double& peak = w_.peak[place_of(0, i, p)];
        const double old = peak, now = peak_[k];
        fresh_[k] = !(old > model::failed_point);
        keep_[k] = fresh_[k] ? 0.0 : now > old ? std::exp(old - now) : 1.0;
        take_[k] = fresh_[k] || now >= old ? 1.0 : std::exp(now - old);
        if (fresh_[k] || now > old) peak = now;
      }
  }

  std::size_t place_of(int row, int i, int p) const
  {
    return static_cast<std::size_t>((row * leaf_.outer + c_.first_outer + p) * b_.mode_stride + c_.pairs.slots[i]);
  }

  // Sums of slots that lie side by side.
  void keep_rows(const double* sums, std::vector<double>& to, int row) const
  {
    for (int p = 0; p < c_.outer; ++p)
      std::copy_n(sums + c_.sum(0, p), c_.pairs.count, to.begin() + static_cast<std::ptrdiff_t>(place_of(row, 0, p)));
  }

  void keep_sums(std::vector<double>& to, int row) const
  {
    if (whole_) return keep_rows(sums_, to, row);
    for (int p = 0; p < c_.outer; ++p)
      for (int i = 0; i < c_.pairs.count; ++i) {
        const int k = c_.sum(i, p);
        double& kept = to[place_of(row, i, p)];
        if (peak_[k] > model::failed_point)
          kept = fresh_[k] ? sums_[k] : keep_[k] * kept + take_[k] * sums_[k];
        else if (fresh_[k])
          kept = 0.0;
      }
  }

  void add_moments(int all)
  {
    const double* const e = b_.prior.data();
    double* const product = w_.products.data();
    clear_dropped(all);
    int row = rows_.direct;
    for (const int k : n_.programs.gradient.outputs) {
      if (!n_.programs.parameter_place(k)) continue;
      sum_by_pair(e, derivative(k));
      keep_sums(w_.moments, row++);
    }
    const int own = leaf_.own;
    for (int k = 0; k < leaf_.chain(); ++k) {
      const double* const d = derivative(n_.programs.by_effect(k));
      for (int j = 0; j < all; ++j) product[j] = e[j] * d[j];
      sum(product);
      keep_sums(w_.moments, rows_.slope + k);
      for (int j = 0; k >= leaf_.place && j < own; ++j) {
        sum_by_point(product, standard(j));
        keep_sums(w_.moments, rows_.slope_by_point + (k - leaf_.place) * own + j);
      }
    }
    for (int k = 0; k < own; ++k) {
      const double* const x = standard(k);
      sum_by_point(e, x);
      keep_sums(w_.moments, rows_.point + k);
      for_rows([&](int pair, int, int q) {
        for (int j = 0; j < c_.width(); ++j) product[pair + j] = e[pair + j] * x[q];
      });
      for (int j = 0; j <= k; ++j) {
        sum_by_point(product, standard(j));
        keep_sums(w_.moments, rows_.square + packed(k, j));
      }
    }
  }

  double* derivative(int place) const { return b_.point_sums.data() + place * b_.pair_stride; }

  // A point without weight contributes nothing, whatever its derivatives are.
  void clear_dropped(int all)
  {
    const double* const e = b_.prior.data();
    bool dropped = false;
    for (int j = 0; j < all; ++j) dropped |= !(e[j] > 0.0);
    if (!dropped) return;
    for (const int k : n_.programs.gradient.outputs) {
      double* const d = derivative(k);
      for (int j = 0; j < all; ++j)
        if (!(e[j] > 0.0)) d[j] = 0.0;
    }
  }

  // --- sums over the own points, into sums_: of a, of a times a number of the point, of a times b ---

  void sum(const double* a)
  {
    std::fill_n(sums_, c_.sums(), 0.0);
    for_rows([&](int pair, int sum, int) { evaluation::add_lanes(sums_ + sum, a + pair, c_.width()); });
  }

  void sum_by_point(const double* a, const double* x)
  {
    std::fill_n(sums_, c_.sums(), 0.0);
    for_rows([&](int pair, int sum, int q) { evaluation::add_multiples(sums_ + sum, a + pair, x[q], c_.width()); });
  }

  void sum_by_pair(const double* a, const double* b)
  {
    std::fill_n(sums_, c_.sums(), 0.0);
    for_rows([&](int pair, int sum, int) { evaluation::add_products(sums_ + sum, a + pair, b + pair, c_.width()); });
  }

  const NX& n_;
  TVLThreadCtx& ctx_;
  BatchWork& b_;
  NestWork& w_;
  const NestLevel& leaf_;
  const REFFECT& reff_;
  const LeafMoments rows_;
  const bool gradient_;
  const double scale_;
  Chunk c_; // in hand
  // Per sum: the log of the chunk's largest weight; factors of what is there and of the chunk.
  double peak_[evaluation::most_pairs], keep_[evaluation::most_pairs], take_[evaluation::most_pairs];
  bool fresh_[evaluation::most_pairs];
  bool whole_ = false; // the chunk is all that its slots have, which lie side by side, and no sum has failed
  double sums_[evaluation::most_pairs + 8];
};

} // namespace

LeafMoments::LeafMoments(const NX& n)
{
  const auto& outputs = n.programs.gradient.outputs;
  const auto parameters =
      std::count_if(outputs.begin(), outputs.end(), [&](int place) { return n.programs.parameter_place(place); });
  direct = 0;
  slope = direct + static_cast<int>(parameters);
  slope_by_point = slope + n.programs.ne;
  point = slope_by_point + n.leaf().nr * n.leaf().nr;
  square = point + n.leaf().nr;
  rows = square + n.leaf().nrs;
}

int sum_leaf_points(const NX& n, TVLThreadCtx& ctx, bool gradient)
{
  return LeafPoints(n, ctx, gradient).run();
}

void size_leaf_points(const NX& n, TVLThreadCtx& ctx)
{
  BatchWork& b = ctx.batch;
  NestWork& w = ctx.nests;
  const long outer = w.level.front().outer;
  size(b.point_sums, std::max(n.programs.gradient.places, n.programs.value.places) * b.pair_stride);
  size(b.prior, b.pair_stride);
  size(w.products, b.pair_stride);
  size(w.peak, outer * b.mode_stride);
  size(w.total, outer * b.mode_stride);
  if (n.programs.gradient) size(w.moments, LeafMoments(n).rows * outer * b.mode_stride);
}

} // namespace torvale::integration
