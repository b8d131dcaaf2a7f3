#include "torvale/result_files.h"

#include "graphics/canvas.h"
#include "host/data/csv.h"
#include "host/data/sqlite_table.h"
#include "host/storage/run_output.h"
#include "host/values/text.h"
#include "host/writers/table_writers.h"

#include <algorithm>
#include <filesystem>

namespace torvale::app {

using host::Cell;
using host::CellKind;
using host::Table;
using host::TableColumn;

namespace {

// One appearance of a table.
struct Part {
  std::size_t step;
  const host::GroupResult* group;
  const Table* table;
};

// A name that no column has yet, whatever its case.
std::string new_name(const std::vector<TableColumn>& columns, const std::string& name)
{
  const auto taken = [&](const std::string& s) {
    return std::any_of(columns.begin(), columns.end(), [&](const auto& c) { return host::equal_names(c.name, s); });
  };
  std::string out = name;
  for (int k = 2; taken(out); ++k) out = name + "_" + std::to_string(k);
  return out;
}

CellKind kind_of(const Cell& cell)
{
  return cell.text() != nullptr ? CellKind::text : CellKind::number;
}

Cell nothing(CellKind kind)
{
  return kind == CellKind::text ? Cell(std::string()) : Cell(host::missing);
}

Table combined(const std::vector<Part>& parts)
{
  const bool steps =
      std::any_of(parts.begin(), parts.end(), [&](const Part& p) { return p.step != parts.front().step; });
  std::vector<TableColumn> columns;
  if (steps) columns.push_back({"Step", CellKind::integer, "", "", ""});
  std::vector<std::pair<std::string, std::size_t>> by, own; // name as written, column
  for (const Part& p : parts)
    for (const auto& [name, value] : p.group->by)
      if (std::none_of(by.begin(), by.end(), [&, &n = name](const auto& b) { return host::equal_names(b.first, n); })) {
        by.emplace_back(name, columns.size());
        columns.push_back({new_name(columns, name), kind_of(value), "", "", ""});
      }
  for (const Part& p : parts)
    for (const TableColumn& c : p.table->columns)
      if (std::none_of(own.begin(), own.end(), [&](const auto& o) { return o.first == c.name; })) {
        own.emplace_back(c.name, columns.size());
        TableColumn column = c;
        column.name = new_name(columns, c.name);
        columns.push_back(std::move(column));
      }
  Table out(parts.front().table->name, parts.front().table->label, columns);
  for (const Part& p : parts)
    for (const auto& row : p.table->rows()) {
      std::vector<Cell> cells;
      for (const TableColumn& c : columns) cells.push_back(nothing(c.kind));
      if (steps) cells[0] = p.step;
      for (const auto& [name, value] : p.group->by)
        for (const auto& [known, at] : by)
          if (host::equal_names(known, name)) cells[at] = value;
      for (std::size_t i = 0; i < row.size(); ++i)
        for (const auto& [known, at] : own)
          if (known == p.table->columns[i].name) cells[at] = row[i];
      out.row(std::move(cells));
    }
  return out;
}

bool sqlite_target(const std::string& path)
{
  const std::string ending = std::filesystem::path(path).extension().string();
  return ending == ".db" || ending == ".sqlite" || ending == ".sqlite3" || host::is_sqlite_file(path);
}

} // namespace

std::vector<Table> combined_tables(const host::RunResults& results)
{
  std::vector<std::vector<Part>> families; // in the order of the first of each
  for (std::size_t s = 0; s < results.steps.size(); ++s)
    for (const auto& group : results.steps[s].groups)
      for (const Table& table : group.tables) {
        auto at = std::find_if(families.begin(), families.end(),
                               [&](const auto& f) { return f.front().table->name == table.name; });
        if (at == families.end()) at = families.insert(families.end(), std::vector<Part>());
        at->push_back({s + 1, &group, &table});
      }
  std::vector<Table> out;
  for (const auto& parts : families) out.push_back(combined(parts));
  return out;
}

bool write_figures(const host::RunResults& results, const std::string& folder, std::string& problem)
{
  if (!host::make_folder(folder, problem)) return false;
  std::size_t groups = 0;
  for (const auto& step : results.steps) groups += step.groups.size();
  for (std::size_t s = 0; s < results.steps.size(); ++s)
    for (std::size_t g = 0; g < results.steps[s].groups.size(); ++g)
      for (const auto& figure : results.steps[s].groups[g].pictures) {
        std::string name = figure.name + ".svg";
        if (groups > 1) name = "step" + std::to_string(s + 1) + "-group" + std::to_string(g + 1) + "-" + name;
        if (!host::write_file((std::filesystem::path(folder) / name).string(), graphics::standalone(figure.svg),
                              problem))
          return false;
      }
  return true;
}

bool write_tables(const host::RunResults& results, const std::string& target,
                  const std::vector<std::pair<std::string, std::string>>& libraries, std::string& problem)
{
  std::string path = target;
  for (const auto& [name, place] : libraries)
    if (host::equal_names(name, target)) path = place;
  const bool sqlite = sqlite_target(path);
  if (!sqlite && !host::make_folder(path, problem)) return false;
  host::MessageLog log([&](std::string_view line) { problem += (problem.empty() ? "" : " ") + std::string(line); });
  for (const Table& table : combined_tables(results)) {
    const host::DataSet data = host::table_data_set(table);
    const int rc = sqlite ? host::write_sqlite(data, path, table.name, log)
                          : host::write_csv(data, (std::filesystem::path(path) / (table.name + ".csv")).string(), log);
    if (rc != 0) return false;
  }
  return true;
}

} // namespace torvale::app
