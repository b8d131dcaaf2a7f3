#include "data/subject_index.h"

#include "data/ordered_subjects.h"
#include "host/messages/names/statements.h"
#include "host/values/missing.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <numeric>
#include <unordered_map>

namespace torvale::data {

namespace {

long count_missing(const host::Column& column, const host::ByGroup& rows, std::size_t& first)
{
  if (column.numeric()) {
    std::uint64_t some = 0; // nearly never: found out in vectors
    for (const double x : column.numbers().subspan(rows.begin, rows.rows())) some |= x == x ? 0U : 1U;
    if (some == 0) return 0;
  }
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

// The keys of rows: equal keys, same subject. Characters are dictionary codes.
struct NumberKeys {
  const double* values;
  std::uint64_t operator[](std::size_t i) const { return std::bit_cast<std::uint64_t>(values[i] + 0.0); }
};

// Numbers the subjects of a level, row by row, by first appearance. `subject` holds those of the next outer level,
// empty where there is none, and receives this level's; `parent` receives the outer subject of each. Returns the
// changes of the value in file order.
template <class Keys>
long number_level(const Keys& keys, std::size_t rows, std::vector<std::int32_t>& subject,
                  std::vector<std::int32_t>& parent)
{
  std::unordered_map<NestedKey, std::int32_t, NestedKeyHash> known; // looked up, never walked
  const bool outermost = subject.empty();
  subject.resize(rows);
  parent.clear();
  long changes = 0;
  NestedKey before{};
  for (std::size_t i = 0; i < rows; ++i) {
    const NestedKey key{outermost ? -1 : subject[i], keys[i]};
    if (i > 0 && key == before) {
      subject[i] = subject[i - 1];
      continue;
    }
    before = key;
    ++changes;
    const auto next = static_cast<std::int32_t>(parent.size());
    subject[i] = known.try_emplace(key, next).first->second;
    if (subject[i] == next) parent.push_back(key.parent);
  }
  return changes;
}

// Puts the subjects of a level in the order of their parents: returns the new number of each, nothing where they stand
// in that order.
std::vector<std::int32_t> order_by_parent(std::vector<std::int32_t>& parent,
                                          const std::vector<std::int32_t>& parent_number)
{
  if (!parent_number.empty())
    for (std::int32_t& p : parent) p = parent_number[static_cast<std::size_t>(p)];
  if (std::is_sorted(parent.begin(), parent.end())) return {};
  std::vector<std::int32_t> order(parent.size()), number(parent.size()), sorted(parent.size());
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

// Where each leaf's rows start when they lie together in the order of the leaves.
void start_from_rows(const std::vector<std::int32_t>& subject, SubjectRows& leaves)
{
  leaves.start.assign(leaves.parent.size() + 1, static_cast<std::int32_t>(subject.size()));
  leaves.start[0] = 0;
  for (std::size_t i = 1; i < subject.size(); ++i)
    if (subject[i] != subject[i - 1]) leaves.start[static_cast<std::size_t>(subject[i])] = static_cast<std::int32_t>(i);
}

// A counting pass puts each leaf's rows together, in file order.
void deal_rows(const std::vector<std::int32_t>& subject, SubjectRows& leaves, std::vector<std::int32_t>& order)
{
  leaves.start.assign(leaves.parent.size() + 1, 0);
  for (const std::int32_t s : subject) ++leaves.start[static_cast<std::size_t>(s) + 1];
  for (std::size_t s = 1; s < leaves.start.size(); ++s) leaves.start[s] += leaves.start[s - 1];
  std::vector<std::int32_t> next(leaves.start.begin(), leaves.start.end() - 1);
  order.resize(subject.size());
  for (std::size_t i = 0; i < subject.size(); ++i)
    order[static_cast<std::size_t>(next[static_cast<std::size_t>(subject[i])]++)] = static_cast<std::int32_t>(i);
}

} // namespace

int tvlsubj(model::NX& n, SubjectIndex& index)
{
  if (n.rows.rows() == 0) {
    n.host->log().xpmlog(message::no_usable_observation{});
    return 2;
  }
  if (index_ordered_rows(n, index)) return 0; // as most files are
  const auto column_of = [&](const model::REFFECT& reff) -> const host::Column& {
    return n.fid->columns()[static_cast<std::size_t>(reff.sub_dsvarno - 1)];
  };
  for (auto reff = n.reff.rbegin(); reff != n.reff.rend(); ++reff)
    if (report_missing(n, column_of(*reff))) return 2;

  // Number the subjects level by level, the outermost first.
  index.level.resize(n.reff.size());
  std::vector<std::int32_t> subject, number;
  for (std::size_t k = n.reff.size(); k-- > 0;) {
    const host::Column& column = column_of(n.reff[k]);
    auto& parent = index.level[k].parent;
    index.changes =
        column.numeric()
            ? number_level(NumberKeys{column.numbers().data() + n.rows.begin}, n.rows.rows(), subject, parent)
            : number_level(column.codes().subspan(n.rows.begin), n.rows.rows(), subject, parent);
    number = order_by_parent(parent, number);
  }
  if (!number.empty())
    for (std::int32_t& s : subject) s = number[static_cast<std::size_t>(s)];
  index.order.clear();
  if (std::is_sorted(subject.begin(), subject.end()))
    start_from_rows(subject, index.level.front());
  else
    deal_rows(subject, index.level.front(), index.order);
  for (std::size_t k = 1; k < index.level.size(); ++k) start_from_children(index.level[k - 1], index.level[k]);
  index.level.back().parent = {};
  return 0;
}

} // namespace torvale::data
