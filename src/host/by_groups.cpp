#include "host/by_groups.h"
#include "host/text.h"

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
  data_ = &data;
  variables_ = std::move(variables);
  columns_.clear();
  groups_.clear();
  current_ = static_cast<std::size_t>(-1);
  for (const ByVariable& variable : variables_) {
    const std::size_t column = data.xvfind(variable.name);
    if (column == DataSet::npos) {
      MessageArguments arguments{{"name", variable.name}, {"data", data.name}};
      const std::string near = nearest_name(variable.name, data.column_names());
      if (!near.empty()) arguments.emplace_back("near", near);
      log.xpmlog(503, 9031, arguments);
      return -1;
    }
    columns_.push_back(column);
  }
  if (columns_.empty()) {
    groups_.push_back({0, data.rows()});
    return 0;
  }
  std::size_t begin = 0;
  for (std::size_t row = 1; row <= data.rows(); ++row) {
    const int order = row == data.rows() ? -1 : compare_keys(data, columns_, variables_, row - 1, row);
    if (order == 0) continue;
    groups_.push_back({begin, row});
    begin = row;
    if (order > 0 && !notsorted) {
      log.xpmlog(503, 9032,
                 {{"data", data.name},
                  {"before", key_text(data, columns_, row - 1)},
                  {"after", key_text(data, columns_, row)},
                  {"row", data.file_row(row)}});
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

std::optional<std::size_t> ByGroups::xbysync(const ByGroups& other, std::size_t group_of_other) const
{
  const std::size_t other_row = other.groups_[group_of_other].begin;
  for (std::size_t g = 0; g < groups_.size(); ++g) {
    bool same = columns_.size() == other.columns_.size();
    for (std::size_t i = 0; same && i < columns_.size(); ++i)
      same = compare_cells(data_->columns()[columns_[i]], groups_[g].begin, other.data_->columns()[other.columns_[i]],
                           other_row) == 0;
    if (same) return g;
  }
  return std::nullopt;
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
