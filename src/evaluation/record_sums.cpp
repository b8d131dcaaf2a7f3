#include "evaluation/record_sums.h"

#include "evaluation/lane_loops.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace torvale::evaluation {

using model::BatchWork;
using model::NX;
using model::TVLThreadCtx;

namespace {

// 0, 1, 2, ...: indices of pairs.
constexpr auto counting = [] {
  std::array<std::int32_t, most_pairs> a{};
  for (std::size_t k = 0; k < a.size(); ++k) a[k] = static_cast<std::int32_t>(k);
  return a;
}();

// Segment: lanes of one level of records (first, second, ... of each subject), and the pairs that they belong to. The
// same pairs at the next levels follow in as many lanes each.
struct Segment {
  int lane; // first lane
  int lanes;
  int pair;  // first pair
  int level; // the first
  int levels;
};

void copy_twins(const RecordSums& what, int pairs)
{
  for (std::size_t k = 0; k < what.places.size(); ++k)
    if (what.has_twin(k))
      std::memcpy(what.sums + what.places[k] * what.stride, what.sums + what.twins[k] * what.stride,
                  static_cast<std::size_t>(pairs) * sizeof(double));
}

constexpr std::size_t most_outputs = 256; // whose sums have an address each

// Where the sums of the distinct outputs of a program go.
void place_sums(const RecordSums& what, const engine::Program& program, double** sums)
{
  for (std::size_t k = 0; k < what.places.size(); ++k)
    if (!what.has_twin(k))
      sums[engine::distinct_output(program, static_cast<int>(k))] = what.sums + what.places[k] * what.stride;
}

// From the sums of the terms. Outputs may come to the same sum where they are not the same of a record.
int make_totals(TVLThreadCtx& ctx, int from, int pairs, const RecordSums& what)
{
  const engine::Program& program = *what.by_totals->totals;
  std::array<double*, most_outputs> sums;
  place_sums(what, program, sums.data());
  engine::Tile tile;
  tile.sums = sums.data();
  for (int first = 0; first < pairs; first += tile.lanes) {
    tile.lanes = std::min(engine::max_lanes, pairs - first);
    tile.first_point = tile.first_sum = from + first;
    if (const int rc = ctx.frame->run(program, tile); rc > 2) return rc;
  }
  for (std::size_t k = 0; k < what.places.size(); ++k) {
    if (what.has_twin(k)) continue;
    double* const to = what.sums + what.places[k] * what.stride + from;
    const double* const at =
        sums[static_cast<std::size_t>(engine::distinct_output(program, static_cast<int>(k)))] + from;
    if (at != to) std::memcpy(to, at, static_cast<std::size_t>(pairs) * sizeof(double));
  }
  return 0;
}

// Level by level: long stretches of lanes whose records and points are consecutive make a tile each, that the engine
// reads in place. Others are packed into one tile until it is full.
class LevelLoop {
public:
  LevelLoop(const NX& n, TVLThreadCtx& ctx, const Pairs& pairs, const RecordSums& what)
      : n_(n), ctx_(ctx), b_(ctx.batch), pairs_(pairs), what_(what), sequential_(engine::sequential(*what.program)),
        packed_slots_(pairs.points < long_run ? engine::max_lanes / pairs.points : 1)
  {
  }

  int add_all()
  {
    if (pairs_.count == 0) return 0;
    if (sequential_) ctx_.frame->reset_state(*what_.program, pairs_.count * pairs_.points);
    if (!pairs_.slots_aside() && pairs_.points < long_run)
      for (int i = 0; i < pairs_.count; ++i)
        std::fill_n(slot_.data() + i * pairs_.points, pairs_.points, pairs_.slots[i]);
    if (what_.lanes.outputs > 0) place_levels();
    find_sums();
    int live = pairs_.count; // slots that still have records
    for (int level = 0; level < b_.levels; ++level) {
      while (live > 0 && place(level, live - 1) >= b_.level[level + 1]) --live;
      if (live == 0) break;
      if (const int rc = pairs_.slots_aside() ? add_slots(level, live) : add_points(level, live); rc != 0) return rc;
      if (sequential_)
        if (const int rc = flush(); rc != 0) return rc;
    }
    if (const int rc = flush(); rc != 0) return rc;
    copy_twins(what_, pairs_.count * pairs_.points);
    return 0;
  }

private:
  std::int32_t place(int level, int i) const { return b_.level[level] + pairs_.slots[i]; }

  // Programs add to the sums themselves where these are all that is wanted of them, and each formula has one.
  void find_sums()
  {
    sums_in_place_ = !sequential_ && what_.lanes.outputs == 0 && what_.places.size() <= sums_.size() &&
                     (what_.each_once || what_.twins.size() == what_.places.size());
    if (sums_in_place_) place_sums(what_, *what_.program, sums_.data());
  }

  void place_levels()
  {
    long* const at = what_.lanes.level;
    at[0] = 0;
    int live = pairs_.count;
    for (int level = 0; level < b_.levels; ++level) {
      while (live > 0 && place(level, live - 1) >= b_.level[level + 1]) --live;
      at[level + 1] = at[level] + static_cast<long>(live) * pairs_.points;
    }
  }

  int add_slots(int level, int live)
  {
    const bool consecutive = pairs_.slots[live - 1] - pairs_.slots[0] == live - 1;
    for (int q = 0; q < pairs_.points; ++q) {
      const int pair = q * pairs_.count;
      if (consecutive && live >= long_run && !sequential_) {
        if (const int rc = run_consecutive({0, live, pair, level, 1}, place(level, 0), 1); rc != 0) return rc;
        continue;
      }
      if (const int rc = make_room(live); rc != 0) return rc;
      shift_rows(observation_.data() + lanes_, pairs_.slots, b_.level[level], live);
      pack(live, pair, level);
    }
    return 0;
  }

  int add_points(int level, int live)
  {
    const int points = pairs_.points;
    for (int i = 0; i < live; i += packed_slots_) {
      const int pair = i * points, lanes = std::min(packed_slots_, live - i) * points;
      if (points >= long_run && !sequential_) {
        if (const int rc = run_consecutive({0, points, pair, level, 1}, place(level, i), points); rc != 0) return rc;
        continue;
      }
      if (const int rc = make_room(lanes); rc != 0) return rc;
      if (points < long_run)
        shift_rows(observation_.data() + lanes_, slot_.data() + pair, b_.level[level], lanes);
      else
        std::fill_n(observation_.data() + lanes_, points, place(level, i));
      pack(lanes, pair, level);
    }
    return 0;
  }

  // What is packed comes first: earlier levels of a pair are added before later ones, whichever way they run.
  int run_consecutive(const Segment& lanes, std::int32_t first_record, int repeat)
  {
    if (const int rc = flush(); rc != 0) return rc;
    engine::Tile tile;
    tile.lanes = lanes.lanes;
    tile.first = first_record;
    if (!pairs_.one_point) tile.first_point = pairs_.first + lanes.pair;
    tile.repeat = repeat;
    if (sums_in_place_) {
      tile.sums = sums_.data();
      tile.first_sum = lanes.pair;
      tile.adds = lanes.level > 0;
    }
    if (const int rc = tvlexec(ctx_, *what_.program, tile); rc > 2) return rc;
    if (!sums_in_place_) add_segments({&lanes, 1});
    return 0;
  }

  int make_room(int lanes) { return lanes_ + lanes > engine::max_lanes ? flush() : 0; }

  void pack(int lanes, int pair, int level)
  {
    if (!pairs_.one_point)
      std::memcpy(point_.data() + lanes_, counting.data() + pairs_.first + pair,
                  static_cast<std::size_t>(lanes) * sizeof(std::int32_t));
    Segment* const last = segment_count_ > 0 ? &segments_[static_cast<std::size_t>(segment_count_ - 1)] : nullptr;
    if (last != nullptr && last->pair == pair && last->lanes == lanes)
      ++last->levels;
    else
      segments_[static_cast<std::size_t>(segment_count_++)] = {lanes_, lanes, pair, level, 1};
    lanes_ += lanes;
  }

  int flush()
  {
    if (lanes_ == 0) return 0;
    engine::Tile tile;
    tile.lanes = lanes_;
    tile.observation = observation_.data();
    tile.point = pairs_.one_point ? nullptr : point_.data();
    tile.state = sequential_ ? point_.data() : nullptr;
    tile.repeat = pairs_.slots_aside() ? 1 : pairs_.points;
    if (const int rc = tvlexec(ctx_, *what_.program, tile); rc > 2) return rc;
    const std::span<const Segment> segments{segments_.data(), static_cast<std::size_t>(segment_count_)};
    if (sequential_)
      add_used_lanes(segments);
    else
      add_segments(segments);
    lanes_ = 0;
    segment_count_ = 0;
    return 0;
  }

  void add_segments(std::span<const Segment> segments) const
  {
    for (std::size_t k = 0; k < what_.places.size(); ++k) {
      if (what_.has_twin(k)) continue;
      const double* const value = ctx_.frame->output(static_cast<int>(k));
      double* const sum = what_.sums + what_.places[k] * what_.stride;
      for (const Segment& g : segments) {
        const bool begins = g.level == 0;
        if (begins) std::memcpy(sum + g.pair, value + g.lane, static_cast<std::size_t>(g.lanes) * sizeof(double));
        const double* const rest = value + g.lane + (begins ? g.lanes : 0);
        if (const int levels = g.levels - (begins ? 1 : 0); levels == 1)
          add_lanes(sum + g.pair, rest, g.lanes);
        else if (levels > 1)
          add_rows(sum + g.pair, rest, g.lanes, levels);
      }
    }
    for (int k = 0; k < what_.lanes.outputs; ++k) keep_lanes(segments, k);
  }

  void keep_lanes(std::span<const Segment> segments, int k) const
  {
    const double* const value = ctx_.frame->output(static_cast<int>(what_.places.size()) + k);
    double* const to = what_.lanes.values + k * what_.lanes.stride;
    for (const Segment& g : segments)
      for (int l = 0; l < g.levels; ++l) {
        const long level = what_.lanes.level[g.level + l];
        const long at =
            pairs_.slots_aside() ? level + static_cast<long>(g.pair / pairs_.count) * g.lanes : level + g.pair;
        std::memcpy(to + at, value + g.lane + l * g.lanes, static_cast<std::size_t>(g.lanes) * sizeof(double));
      }
  }

  // Every record was run; only the used ones count.
  void add_used_lanes(std::span<const Segment> segments) const
  {
    for (std::size_t k = 0; k < what_.places.size(); ++k) {
      if (what_.has_twin(k)) continue;
      const double* const value = ctx_.frame->output(static_cast<int>(k));
      for (const Segment& g : segments) {
        double* const sum = what_.sums + what_.places[k] * what_.stride + g.pair;
        if (g.level == 0) std::fill_n(sum, g.lanes, 0.0);
        for (int j = 0; j < g.lanes; ++j)
          if (used(observation_[static_cast<std::size_t>(g.lane + j)])) sum[j] += value[g.lane + j];
      }
    }
  }

  bool used(std::int32_t record) const
  {
    return n_.store->badobs[static_cast<std::size_t>(b_.rows[record])] == model::BadCause::none;
  }

  const NX& n_;
  TVLThreadCtx& ctx_;
  const BatchWork& b_;
  const Pairs pairs_;
  const RecordSums& what_;
  const bool sequential_;
  const int packed_slots_; // with all their points, at once
  int lanes_ = 0;
  int segment_count_ = 0;
  bool sums_in_place_ = false;
  std::array<double*, most_outputs> sums_;    // of the program's distinct outputs
  std::array<std::int32_t, most_pairs> slot_; // per pair, when few points of one slot lie side by side
  std::array<std::int32_t, engine::max_lanes> observation_;
  std::array<std::int32_t, engine::max_lanes> point_;
  std::array<Segment, engine::max_lanes> segments_;
};

} // namespace

int tvlexec(TVLThreadCtx& ctx, const engine::Program& program, const engine::Tile& tile)
{
  ctx.ncmpRuns += tile.lanes;
  return ctx.frame->run(program, tile);
}

int tvllogl(const NX& n, TVLThreadCtx& ctx, const Pairs& pairs, const RecordSums& what)
{
  if (what.by_totals == nullptr || what.lanes.outputs > 0 || ctx.frame->shifts_records())
    return LevelLoop(n, ctx, pairs, what).add_all();
  const auto terms = static_cast<std::size_t>(what.by_totals->term_count);
  double* const sums = ctx.batch.term_sums.data();
  ctx.frame->set_totals(sums, term_stride);
  // So many slots go through all of their records while the sums of their terms stay in the first cache.
  constexpr std::size_t few_terms = 10;
  const int block = terms <= few_terms ? 256 : 128;
  const int together = pairs.points == 1 ? block : pairs.count;
  for (int first = 0; first < pairs.count; first += together) {
    Pairs some = pairs;
    some.slots += first;
    some.count = std::min(together, pairs.count - first);
    some.first = first;
    RecordSums of_terms{what.by_totals->terms, {counting.data(), terms}, sums + first, term_stride};
    of_terms.each_once = true;
    if (const int rc = LevelLoop(n, ctx, some, of_terms).add_all(); rc != 0) return rc;
    if (const int rc = make_totals(ctx, first, some.count * some.points, what); rc != 0) return rc;
  }
  copy_twins(what, pairs.count * pairs.points);
  return 0;
}

} // namespace torvale::evaluation
