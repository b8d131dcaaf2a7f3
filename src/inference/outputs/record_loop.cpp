#include "inference/outputs/record_loop.h"

namespace torvale::inference {

using model::NX;

std::vector<RecordChunk> deal_records(const NX& n)
{
  constexpr std::int64_t chunk_rows = 4096;
  std::vector<RecordChunk> chunks;
  const std::int64_t rows = n.store->nobs;
  if (n.nreff() == 0) {
    for (std::int64_t first = 0; first < rows; first += chunk_rows)
      chunks.push_back({first, std::min(first + chunk_rows, rows), 0, 0});
    return chunks;
  }
  const auto& subjects = n.leaf().SubInfo;
  RecordChunk chunk;
  for (std::size_t s = 0; s < subjects.size(); ++s) {
    const std::int64_t end = subjects[s].first_row + subjects[s].SubCount;
    if (s > chunk.first_subject && end - chunk.first > chunk_rows) {
      chunks.push_back(chunk);
      chunk = {subjects[s].first_row, end, s, s};
    }
    chunk.last = end;
    chunk.last_subject = s + 1;
  }
  if (chunk.last > chunk.first) chunks.push_back(chunk);
  return chunks;
}

bool starts_anew(const NX& n, std::int64_t row)
{
  const std::int32_t* const starts = n.store->view.subject_start; // null: one run of records
  return row == 0 || (starts != nullptr && starts[row] == row);
}

void take_records(const NX& n, const RecordChunk& c, const double* effects, std::size_t nr, RecordWork& w,
                  engine::Frame& frame)
{
  frame.set_range(c.first, c.last - c.first);
  const std::size_t subjects = c.last_subject - c.first_subject, points = std::max<std::size_t>(subjects, 1);
  w.effects.assign(std::max<std::size_t>(nr, 1) * points, 0.0);
  for (std::size_t s = 0; s < subjects; ++s)
    for (std::size_t e = 0; e < nr; ++e) w.effects[e * points + s] = effects[(c.first_subject + s) * nr + e];
  frame.set_points(w.effects.data(), static_cast<int>(points), static_cast<int>(points));
  const auto count = static_cast<std::size_t>(c.last - c.first);
  w.rows.resize(count);
  w.points.assign(count, 0);
  w.state.assign(1, 0);
  for (std::size_t k = 0; k < count; ++k) w.rows[k] = static_cast<std::int32_t>(c.first + static_cast<std::int64_t>(k));
  for (std::size_t s = c.first_subject; s < c.last_subject; ++s) {
    const auto& subject = n.leaf().SubInfo[s];
    std::fill_n(w.points.begin() + (subject.first_row - c.first), subject.SubCount,
                static_cast<std::int32_t>(s - c.first_subject));
  }
}

} // namespace torvale::inference
