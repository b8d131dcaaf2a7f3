#include "data/row_runner.h"

#include <algorithm>
#include <array>

namespace torvale::data {

namespace {

struct Lanes {
  std::array<std::int32_t, engine::max_lanes> observation{};
  std::array<std::int32_t, engine::max_lanes> point{};
  std::array<std::int32_t, engine::max_lanes> state{};
};

class Walk {
public:
  Walk(engine::Frame& frame, const engine::Program& program, const std::vector<std::int32_t>& points,
       const TileVisitor& visit, std::vector<std::int32_t>& stopped)
      : frame_(frame), program_(program), points_(points), visit_(visit), stopped_(stopped)
  {
  }

  void add(std::int64_t row, std::int32_t state)
  {
    const auto j = static_cast<std::size_t>(count_++);
    lanes_.observation[j] = static_cast<std::int32_t>(row);
    lanes_.point[j] = points_.empty() ? 0 : points_[static_cast<std::size_t>(row)];
    lanes_.state[j] = state;
  }
  bool full() const { return count_ == engine::max_lanes; }

  int flush(bool sequential)
  {
    if (count_ == 0) return 0;
    engine::Tile tile;
    tile.lanes = count_;
    tile.observation = lanes_.observation.data();
    tile.point = lanes_.point.data();
    tile.state = sequential ? lanes_.state.data() : nullptr;
    count_ = 0;
    const int rc = frame_.run(program_, tile);
    if (rc <= 2) return visit_(tile, frame_);
    stopped_.assign(tile.observation, tile.observation + tile.lanes);
    return rc;
  }

private:
  engine::Frame& frame_;
  const engine::Program& program_;
  const std::vector<std::int32_t>& points_;
  const TileVisitor& visit_;
  std::vector<std::int32_t>& stopped_;
  Lanes lanes_;
  int count_ = 0;
};

// Rows of subjects, record by record: the lanes of a tile are subjects.
int walk_records(const model::NX& n, engine::Frame& frame, const engine::Program& program, Walk& walk)
{
  constexpr std::size_t batch = 64;
  std::vector<std::pair<std::int64_t, std::int64_t>> spans; // first row, rows
  if (n.nreff() == 0) {
    spans.emplace_back(0, n.store->nobs);
  } else {
    for (const auto& s : n.leaf().SubInfo) spans.emplace_back(s.first_row, s.SubCount);
  }
  for (std::size_t first = 0; first < spans.size(); first += batch) {
    const std::size_t last = std::min(first + batch, spans.size());
    std::int64_t longest = 0;
    for (std::size_t s = first; s < last; ++s) longest = std::max(longest, spans[s].second);
    frame.set_range(spans[first].first, spans[last - 1].first + spans[last - 1].second - spans[first].first);
    frame.reset_state(program, static_cast<int>(last - first));
    for (std::int64_t record = 0; record < longest; ++record) {
      for (std::size_t s = first; s < last; ++s)
        if (record < spans[s].second) walk.add(spans[s].first + record, static_cast<std::int32_t>(s - first));
      if (const int rc = walk.flush(true); rc != 0) return rc;
    }
  }
  return 0;
}

} // namespace

int run_rows(const model::NX& n, engine::Frame& frame, const engine::Program& program,
             const std::vector<std::int32_t>& point_of_row, const TileVisitor& visit,
             std::vector<std::int32_t>& stopped)
{
  Walk walk(frame, program, point_of_row, visit, stopped);
  if (engine::sequential(program)) return walk_records(n, frame, program, walk);
  for (std::int64_t first = 0; first < n.store->nobs; first += engine::max_lanes) {
    const std::int64_t last = std::min<std::int64_t>(first + engine::max_lanes, n.store->nobs);
    frame.set_range(first, last - first);
    for (std::int64_t row = first; row < last; ++row) walk.add(row, 0);
    if (const int rc = walk.flush(false); rc != 0) return rc;
  }
  return 0;
}

} // namespace torvale::data
