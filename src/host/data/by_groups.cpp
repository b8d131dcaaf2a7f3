#include "host/data/by_groups.h"
#include "host/messages/names/files.h"
#include "host/values/text.h"
#include <algorithm>
#include <numeric>

namespace torvale::host {

namespace {

// The two rows' keys in the order asked for: negative, 0, positive.
int compare_keys(const DataSet& data, const std::vector<std::size_t>& columns, const std::vector<ByVariable>& variables,
                 std::size_t a, std::size_t b)
{
  for (std::size_t i = 0; i < columns.size(); ++i) {
    const Column& column = data.columns()[columns[i]];
    const int order = compare_cells(column, a, column, b);
    if (order != 0) return variables[i].descending ? -order : order;
  }
  return 0;
}

std::string key_text(const DataSet& data, const std::vector<std::size_t>& columns, std::size_t row)
{
  std::string out;
  for (const std::size_t i : columns)
    out += (out.empty() ? "" : " ") + data.columns()[i].name() + "=" + data.columns()[i].shown(row);
  return out;
}

} // namespace

int ByGroups::build(const DataSet& data, std::vector<ByVariable> variables, bool notsorted, MessageSink& log)
{
  by_key_.clear();
  data_ = &data;
  variables_ = std::move(variables);
  columns_.clear();
  groups_.clear();
  current_ = static_cast<std::size_t>(-1);
  for (const ByVariable& variable : variables_) {
    const std::size_t column = data.xvfind(variable.name);
    if (column == DataSet::npos) {
      log.xpmlog(message::no_by_variable{
          .name = variable.name, .data = data.name, .near = nearest_name(variable.name, data.column_names())});
      return -1;
    }
    columns_.push_back(column);
  }
  if (columns_.empty()) {
    groups_.push_back({0, data.rows()});
    return 0;
  }
  const int code = find_groups(notsorted, log);
  by_key_.resize(groups_.size());
  std::iota(by_key_.begin(), by_key_.end(), std::size_t{0});
  std::stable_sort(by_key_.begin(), by_key_.end(),
                   [&](std::size_t a, std::size_t b) { return compare_group(a, *this, b) < 0; });
  return code;
}

int ByGroups::find_groups(bool notsorted, MessageSink& log)
{
  const DataSet& data = *data_;
  std::size_t begin = 0;
  for (std::size_t row = 1; row <= data.rows(); ++row) {
    const int order = row == data.rows() ? -1 : compare_keys(data, columns_, variables_, row - 1, row);
    if (order == 0) continue;
    groups_.push_back({begin, row});
    begin = row;
    if (order > 0 && !notsorted) {
      log.xpmlog(message::by_not_sorted{.data = data.name,
                                        .after = key_text(data, columns_, row),
                                        .before = key_text(data, columns_, row - 1),
                                        .row = data.file_row(row)});
      groups_.clear();
      return -1;
    }
  }
  return 0;
}

ByValues ByGroups::values(std::size_t i) const
{
  ByValues out;
  for (const std::size_t c : columns_) {
    const Column& column = data_->columns()[c];
    const std::size_t row = groups_[i].begin;
    out.emplace_back(column.name(), column.numeric() ? Cell(column.number(row)) : Cell(column.text(row)));
  }
  return out;
}

bool ByGroups::xbynext()
{
  if (current_ + 1 >= groups_.size()) return false;
  ++current_;
  return true;
}

int ByGroups::compare_group(std::size_t group, const ByGroups& other, std::size_t other_group) const
{
  const std::size_t row = groups_[group].begin, other_row = other.groups_[other_group].begin;
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    const Column& column = data_->columns()[columns_[i]];
    const int order = compare_cells(column, row, other.data_->columns()[other.columns_[i]], other_row);
    if (order != 0) return order;
  }
  return 0;
}

std::optional<std::size_t> ByGroups::xbysync(const ByGroups& other, std::size_t group_of_other) const
{
  if (columns_.size() != other.columns_.size()) return std::nullopt;
  const auto at = std::partition_point(by_key_.begin(), by_key_.end(),
                                       [&](std::size_t g) { return compare_group(g, other, group_of_other) < 0; });
  if (at == by_key_.end() || compare_group(*at, other, group_of_other) != 0) return std::nullopt;
  return *at;
}

int ByGroups::xbylist(const DataSet& main, const DataSet& second, const std::vector<ByVariable>& variables)
{
  for (const ByVariable& variable : variables) {
    const Column* a = main.find(variable.name);
    const Column* b = second.find(variable.name);
    if (!a || !b) return 2;
    if (a->kind() != b->kind()) return 1;
  }
  return 0;
}

} // namespace torvale::host
