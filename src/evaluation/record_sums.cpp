#include "evaluation/record_sums.h"

#include "evaluation/lane_loops.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>

namespace torvale::evaluation {

using model::NX;
using model::PairRun;
using model::TVLThreadCtx;

namespace {

// 0, 1, 2, ...: the points of a run of pairs, and the slots of their kept values.
constexpr auto counting = [] {
  std::array<std::int32_t, tile_pairs> a{};
  for (std::size_t k = 0; k < a.size(); ++k) a[k] = static_cast<std::int32_t>(k);
  return a;
}();

// Segment: the lanes of one record place (first, second, ... record of each subject): pairs 0..pairs-1 of the run.
struct Segment {
  int lane;    // first lane
  int pairs;
  int record;  // place of the record
};

// A tile in the making: whole segments until it is full.
class TileBuilder {
public:
  TileBuilder(const NX& n, TVLThreadCtx& ctx, std::span<const PairRun> runs, const RecordSums& what)
      : n_(n), ctx_(ctx), runs_(runs), what_(what), sequential_(engine::sequential(*what.program))
  {
  }

  int add_all()
  {
    int pairs = 0;
    consecutive_ = true;
    repeat_ = runs_.empty() ? 1 : runs_[0].pairs;
    for (const PairRun& run : runs_) {
      if (run.pairs != repeat_) repeat_ = 1;
      std::fill_n(first_row_.data() + pairs, run.pairs, run.rows[0]);
      pairs += run.pairs;
      consecutive_ = consecutive_ && run.rows[run.records - 1] - run.rows[0] == run.records - 1;
    }
    if (sequential_) ctx_.frame->reset_state(*what_.program, pairs);
    std::size_t live = runs_.size(); // runs that still have records
    for (int record = 0;; ++record) {
      while (live > 0 && runs_[live - 1].records <= record) pairs -= runs_[--live].pairs;
      if (live == 0) break;
      if (lanes_ + pairs > engine::max_lanes)
        if (const int rc = flush(); rc != 0) return rc;
      add_segment(live, pairs, record);
      if (sequential_)
        if (const int rc = flush(); rc != 0) return rc;
    }
    return flush();
  }

private:
  void add_segment(std::size_t live, int pairs, int record)
  {
    std::int32_t* row = observation_.data() + lanes_;
    if (consecutive_) {
      shift_rows(row, first_row_.data(), record, pairs);
    } else {
      for (std::size_t r = 0; r < live; ++r) row = std::fill_n(row, runs_[r].pairs, runs_[r].rows[record]);
    }
    std::memcpy(point_.data() + lanes_, counting.data(), static_cast<std::size_t>(pairs) * sizeof(std::int32_t));
    segments_[static_cast<std::size_t>(segment_count_++)] = {lanes_, pairs, record};
    lanes_ += pairs;
  }

  int flush()
  {
    if (lanes_ == 0) return 0;
    engine::Tile tile;
    tile.lanes = lanes_;
    tile.observation = observation_.data();
    tile.point = point_.data();
    tile.state = sequential_ ? point_.data() : nullptr;
    tile.repeat = repeat_;
    if (const int rc = tvlexec(ctx_, *what_.program, tile); rc > 2) return rc;
    if (sequential_)
      add_used_lanes();
    else
      add_segments();
    lanes_ = 0;
    segment_count_ = 0;
    return 0;
  }

  void add_segments() const
  {
    for (std::size_t k = 0; k < what_.places.size(); ++k) {
      const double* const value = ctx_.frame->output(static_cast<int>(k));
      double* const sum = what_.sums + what_.places[k] * what_.stride;
      for (int s = 0; s < segment_count_; ++s) {
        const Segment& g = segments_[static_cast<std::size_t>(s)];
        const double* const from = value + g.lane;
        if (g.record == 0)
          std::memcpy(sum, from, static_cast<std::size_t>(g.pairs) * sizeof(double));
        else
          add_lanes(sum, from, g.pairs);
      }
    }
  }

  // Every record was run; only the used ones count.
  void add_used_lanes() const
  {
    const Segment& g = segments_[0];
    for (std::size_t k = 0; k < what_.places.size(); ++k) {
      const double* const value = ctx_.frame->output(static_cast<int>(k));
      double* const sum = what_.sums + what_.places[k] * what_.stride;
      if (g.record == 0) std::fill_n(sum, g.pairs, 0.0);
      for (int j = 0; j < g.pairs; ++j)
        if (n_.store->badobs[static_cast<std::size_t>(observation_[static_cast<std::size_t>(j)])] == model::BadCause::none)
          sum[j] += value[j];
    }
  }

  const NX& n_;
  TVLThreadCtx& ctx_;
  std::span<const PairRun> runs_;
  const RecordSums& what_;
  const bool sequential_;
  int lanes_ = 0;
  int segment_count_ = 0;
  int repeat_ = 1;           // pairs of every subject, when they have equally many
  bool consecutive_ = false; // every subject's records are consecutive rows: those of record k lie k behind the first
  std::array<std::int32_t, tile_pairs> first_row_;
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

int tvllogl(const NX& n, TVLThreadCtx& ctx, std::span<const PairRun> runs, const RecordSums& what)
{
  return TileBuilder(n, ctx, runs, what).add_all();
}

} // namespace torvale::evaluation
