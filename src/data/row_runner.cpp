#include "data/row_runner.h"

#include "parallel/worker_pool.h"

#include <algorithm>
#include <array>
#include <numeric>

namespace torvale::data {

namespace {

constexpr std::int64_t block_rows = 16 * engine::max_lanes;

// The random effects of rows, laid out for Frame::set_points.
class Effects {
public:
  explicit Effects(const RowPoints& points) : points_(points), ne_(points.common.size()) {}

  // One point for all rows, or one for each of them.
  template <class RowOf> void set(engine::Frame& frame, int rows, RowOf&& row_of)
  {
    if (!points_.of) return frame.set_points(points_.common.data(), 1, 1);
    one_.assign(ne_, 0.0);
    values_.resize(ne_ * static_cast<std::size_t>(rows));
    for (int j = 0; j < rows; ++j) {
      points_.of(row_of(j), one_.data());
      for (std::size_t e = 0; e < ne_; ++e)
        values_[e * static_cast<std::size_t>(rows) + static_cast<std::size_t>(j)] = one_[e];
    }
    frame.set_points(values_.data(), rows, rows);
  }
  bool vary() const { return static_cast<bool>(points_.of); }

private:
  const RowPoints& points_;
  const std::size_t ne_;
  std::vector<double> one_, values_;
};

} // namespace

RowRunner::RowRunner(const model::NX& n, const std::vector<double>& theta) : n_(n)
{
  const long workers = n.workers != nullptr ? n.workers->contexts() : 1;
  for (long k = 0; k < std::min(workers, blocks()); ++k) {
    frames_.push_back(std::make_unique<engine::Frame>(*n.gcmp, n.bound));
    frames_.back()->set_parameters(theta.data());
  }
}

long RowRunner::blocks() const
{
  return std::max<long>(1, static_cast<long>((n_.store->nobs + block_rows - 1) / block_rows));
}

int RowRunner::run_block(engine::Frame& frame, const engine::Program& program, const RowPoints& points,
                         const Visitor& visit, long block, std::int64_t& at) const
{
  Effects effects(points);
  const std::int64_t last = std::min((block + 1) * block_rows, n_.store->nobs);
  for (at = block * block_rows; at < last; at += engine::max_lanes) {
    const RowTile rows{at, static_cast<int>(std::min<std::int64_t>(engine::max_lanes, last - at)), nullptr};
    frame.set_range(at, rows.lanes);
    effects.set(frame, rows.lanes, [&](int j) { return at + j; });
    engine::Tile tile;
    tile.lanes = rows.lanes;
    tile.first = static_cast<std::int32_t>(at);
    tile.first_point = effects.vary() ? 0 : -1;
    if (const int rc = frame.run(program, tile); rc > 2) return rc;
    visit(rows, frame, block);
  }
  return 0;
}

int RowRunner::run(const engine::Program& program, const RowPoints& points, const Visitor& visit,
                   std::vector<std::int32_t>& stopped)
{
  if (engine::sequential(program)) return run_in_order(program, points, visit, stopped);
  struct Stop {
    int code = 0;
    std::int64_t at = 0;
  };
  std::vector<Stop> stops(static_cast<std::size_t>(blocks()));
  auto kernel = [&](int context, long block) {
    Stop& stop = stops[static_cast<std::size_t>(block)];
    stop.code = run_block(*frames_[static_cast<std::size_t>(context)], program, points, visit, block, stop.at);
  };
  if (n_.workers != nullptr && frames_.size() == static_cast<std::size_t>(n_.workers->contexts()))
    n_.workers->run(blocks(), kernel);
  else
    for (long block = 0; block < blocks(); ++block) kernel(0, block);
  for (const Stop& stop : stops) {
    if (stop.code == 0) continue;
    stopped.resize(static_cast<std::size_t>(std::min<std::int64_t>(engine::max_lanes, n_.store->nobs - stop.at)));
    std::iota(stopped.begin(), stopped.end(), static_cast<std::int32_t>(stop.at));
    return stop.code;
  }
  return 0;
}

// Record by record: the lanes of a tile are subjects.
int RowRunner::run_in_order(const engine::Program& program, const RowPoints& points, const Visitor& visit,
                            std::vector<std::int32_t>& stopped)
{
  constexpr std::size_t batch = 64;
  engine::Frame& frame = *frames_.front();
  Effects effects(points);
  std::vector<std::pair<std::int64_t, std::int64_t>> spans; // first row, rows
  if (n_.nreff() == 0) {
    spans.emplace_back(0, n_.store->nobs);
  } else {
    for (const auto& s : n_.leaf().SubInfo) spans.emplace_back(s.first_row, s.SubCount);
  }
  std::array<std::int32_t, batch> row{}, state{}, point{};
  for (std::size_t first = 0; first < spans.size(); first += batch) {
    const std::size_t last = std::min(first + batch, spans.size());
    std::int64_t longest = 0;
    for (std::size_t s = first; s < last; ++s) longest = std::max(longest, spans[s].second);
    frame.set_range(spans[first].first, spans[last - 1].first + spans[last - 1].second - spans[first].first);
    frame.reset_state(program, static_cast<int>(last - first));
    for (std::int64_t record = 0; record < longest; ++record) {
      int lanes = 0;
      for (std::size_t s = first; s < last; ++s) {
        if (record >= spans[s].second) continue;
        const auto j = static_cast<std::size_t>(lanes);
        row[j] = static_cast<std::int32_t>(spans[s].first + record);
        state[j] = static_cast<std::int32_t>(s - first);
        point[j] = effects.vary() ? lanes : 0;
        ++lanes;
      }
      effects.set(frame, lanes, [&](int j) { return row[static_cast<std::size_t>(j)]; });
      engine::Tile tile;
      tile.lanes = lanes;
      tile.observation = row.data();
      tile.point = point.data();
      tile.state = state.data();
      if (const int rc = frame.run(program, tile); rc > 2) {
        stopped.assign(row.begin(), row.begin() + lanes);
        return rc;
      }
      visit({0, lanes, row.data()}, frame, 0);
    }
  }
  return 0;
}

} // namespace torvale::data
