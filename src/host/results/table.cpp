#include "host/results/table.h"
#include "host/values/text.h"
#include <cassert>

namespace torvale::host {

double Cell::as_number() const
{
  if (const double* x = number()) return *x;
  if (const long long* i = integer()) return static_cast<double>(*i);
  return missing;
}

Table::Table(std::string table_name, std::string table_label, std::vector<TableColumn> table_columns)
    : name(std::move(table_name)), path("Stat.TVL." + name), label(std::move(table_label)),
      columns(std::move(table_columns))
{
}

void Table::row(std::vector<Cell> cells)
{
  assert(cells.size() == columns.size());
  cells.resize(columns.size(), Cell(missing));
  rows_.push_back(std::move(cells));
}

std::size_t Table::column(std::string_view column_name) const
{
  for (std::size_t i = 0; i < columns.size(); ++i)
    if (equal_names(columns[i].name, column_name)) return i;
  return npos;
}

} // namespace torvale::host
