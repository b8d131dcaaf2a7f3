#include "data/subject_index.h"

#include "host/message_names.h"
#include "host/missing.h"

#include <bit>
#include <unordered_map>

namespace torvale::data {

namespace {

// The key of a row's subject value: equal keys, same subject. Characters are dictionary codes.
std::vector<std::uint64_t> subject_keys(const host::Column& column, const host::ByGroup& rows)
{
  std::vector<std::uint64_t> keys(rows.rows());
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const std::size_t row = rows.begin + i;
    keys[i] = column.numeric() ? std::bit_cast<std::uint64_t>(column.number(row) + 0.0) : column.codes()[row];
  }
  return keys;
}

long count_missing(const host::Column& column, const host::ByGroup& rows, std::size_t& first)
{
  long missing = 0;
  for (std::size_t row = rows.begin; row < rows.end; ++row) {
    if (!column.is_missing(row)) continue;
    if (missing++ == 0) first = row;
  }
  return missing;
}

} // namespace

int tvlsubj(model::NX& n, const model::REFFECT& reff, SubjectRows& index)
{
  auto& log = n.host->log();
  if (n.rows.rows() == 0) {
    log.xpmlog(message::no_usable_observation{});
    return 2;
  }
  const host::Column& column = n.fid->columns()[static_cast<std::size_t>(reff.sub_dsvarno - 1)];
  std::size_t first = 0;
  if (const long missing = count_missing(column, n.rows, first); missing > 0) {
    host::MessagePlace place;
    place.row = n.fid->file_row(first);
    log.xpmlog(
        message::subject_missing{.name = column.name(), .observation = first - n.rows.begin + 1, .count = missing},
        place);
    return 2;
  }

  // Deal rows to subjects by first appearance; then a counting pass puts each subject's rows together, in file order.
  const auto keys = subject_keys(column, n.rows);
  std::vector<std::int32_t> subject(keys.size());
  std::unordered_map<std::uint64_t, std::int32_t> known; // looked up, never walked
  std::vector<std::int32_t> size;
  index.changes = 0;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const bool changed = i == 0 || keys[i] != keys[i - 1];
    index.changes += changed;
    if (!changed) {
      subject[i] = subject[i - 1];
    } else {
      const auto next = static_cast<std::int32_t>(size.size());
      subject[i] = n.nosort ? next : known.try_emplace(keys[i], next).first->second;
      if (subject[i] == next) size.push_back(0);
    }
    ++size[static_cast<std::size_t>(subject[i])];
  }

  index.start.assign(size.size() + 1, 0);
  for (std::size_t s = 0; s < size.size(); ++s) index.start[s + 1] = index.start[s] + size[s];
  std::vector<std::int32_t> next(index.start.begin(), index.start.end() - 1);
  index.order.resize(keys.size());
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const auto s = static_cast<std::size_t>(subject[i]);
    index.order[static_cast<std::size_t>(next[s]++)] = static_cast<std::int32_t>(i);
  }
  return 0;
}

} // namespace torvale::data
