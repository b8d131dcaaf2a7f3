#include "data/subject_index.h"

#include "host/messages/names/statements.h"
#include "host/values/missing.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <numeric>
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

// A missing value of a level's subject variable ends the group.
bool report_missing(model::NX& n, const host::Column& column)
{
  std::size_t first = 0;
  const long missing = count_missing(column, n.rows, first);
  if (missing == 0) return false;
  host::MessagePlace place;
  place.row = n.fid->file_row(first);
  n.host->log().xpmlog(
      message::subject_missing{.name = column.name(), .observation = first - n.rows.begin + 1, .count = missing},
      place);
  return true;
}

// A subject value within one subject of the next outer level.
struct NestedKey {
  std::int32_t parent;
  std::uint64_t value;
  bool operator==(const NestedKey&) const = default;
};
struct NestedKeyHash {
  std::size_t operator()(const NestedKey& k) const
  {
    return std::hash<std::uint64_t>()(k.value ^ (static_cast<std::uint64_t>(k.parent + 1) * 0x9e3779b97f4a7c15U));
  }
};

// Values that only grow within a parent, and parents that only grow: what has changed is new.
bool ascending(const std::vector<std::uint64_t>& keys, const std::vector<std::int32_t>& parent)
{
  for (std::size_t i = 1; i < keys.size(); ++i)
    if (parent[i] < parent[i - 1] || (parent[i] == parent[i - 1] && keys[i] < keys[i - 1])) return false;
  return true;
}

// Numbers the subjects of a level by first appearance: `subject` holds the parents' numbers and receives the level's.
std::int32_t number_level(const std::vector<std::uint64_t>& keys, bool by_change, std::vector<std::int32_t>& subject,
                          std::vector<std::int32_t>& parent, long& changes)
{
  std::unordered_map<NestedKey, std::int32_t, NestedKeyHash> known; // looked up, never walked
  by_change = by_change || ascending(keys, subject);
  changes = 0;
  parent.clear();
  NestedKey before{};
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const NestedKey key{subject[i], keys[i]};
    const bool changed = i == 0 || !(key == before);
    before = key;
    changes += changed;
    if (!changed) {
      subject[i] = subject[i - 1];
      continue;
    }
    const auto next = static_cast<std::int32_t>(parent.size());
    subject[i] = by_change ? next : known.try_emplace(key, next).first->second;
    if (subject[i] == next) parent.push_back(key.parent);
  }
  return static_cast<std::int32_t>(parent.size());
}

// Puts the subjects of a level in the order of their parents: returns the new number of each.
std::vector<std::int32_t> order_by_parent(std::vector<std::int32_t>& parent,
                                          const std::vector<std::int32_t>& parent_number)
{
  std::vector<std::int32_t> order(parent.size()), number(parent.size()), sorted(parent.size());
  if (!parent_number.empty())
    for (std::int32_t& p : parent) p = parent_number[static_cast<std::size_t>(p)];
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](std::int32_t a, std::int32_t b) {
    return parent[static_cast<std::size_t>(a)] < parent[static_cast<std::size_t>(b)];
  });
  for (std::size_t k = 0; k < order.size(); ++k) {
    number[static_cast<std::size_t>(order[k])] = static_cast<std::int32_t>(k);
    sorted[k] = parent[static_cast<std::size_t>(order[k])];
  }
  parent = std::move(sorted);
  return number;
}

// Where the subjects of a level start, from those of the level below.
void start_from_children(const SubjectRows& children, SubjectRows& level)
{
  level.start.assign(level.parent.size() + 1, children.start.back());
  for (std::size_t c = children.parent.size(); c-- > 0;)
    level.start[static_cast<std::size_t>(children.parent[c])] = children.start[c];
}

} // namespace

int tvlsubj(model::NX& n, SubjectIndex& index)
{
  if (n.rows.rows() == 0) {
    n.host->log().xpmlog(message::no_usable_observation{});
    return 2;
  }
  const auto column_of = [&](const model::REFFECT& reff) -> const host::Column& {
    return n.fid->columns()[static_cast<std::size_t>(reff.sub_dsvarno - 1)];
  };
  for (auto reff = n.reff.rbegin(); reff != n.reff.rend(); ++reff)
    if (report_missing(n, column_of(*reff))) return 2;

  // Number the subjects level by level, the outermost first.
  index.level.resize(n.reff.size());
  std::vector<std::int32_t> subject(n.rows.rows(), -1), number;
  for (std::size_t k = n.reff.size(); k-- > 0;) {
    auto& parent = index.level[k].parent;
    number_level(subject_keys(column_of(n.reff[k]), n.rows), n.nosort, subject, parent, index.changes);
    number = order_by_parent(parent, number);
  }

  // A counting pass puts each leaf's rows together, in file order.
  SubjectRows& leaves = index.level.front();
  leaves.start.assign(leaves.parent.size() + 1, 0);
  for (std::int32_t& s : subject) {
    s = number[static_cast<std::size_t>(s)];
    ++leaves.start[static_cast<std::size_t>(s) + 1];
  }
  for (std::size_t s = 1; s < leaves.start.size(); ++s) leaves.start[s] += leaves.start[s - 1];
  std::vector<std::int32_t> next(leaves.start.begin(), leaves.start.end() - 1);
  index.order.resize(subject.size());
  for (std::size_t i = 0; i < subject.size(); ++i)
    index.order[static_cast<std::size_t>(next[static_cast<std::size_t>(subject[i])]++)] = static_cast<std::int32_t>(i);
  for (std::size_t k = 1; k < index.level.size(); ++k) start_from_children(index.level[k - 1], index.level[k]);
  return 0;
}

} // namespace torvale::data
