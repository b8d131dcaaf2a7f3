#include "host/data/csv.h"
#include "host/values/text.h"
#include "host/writers/table_writers.h"
#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <optional>

namespace torvale::host {

namespace {

// Column name, heading, format. A format is for numbers; texts are shown as they are.
constexpr ColumnTemplate templates[] = {
    {"Descr", "Description", ""},
    {"Value", "Value", "BEST10"},
    {"Parameter", "Parameter", ""},
    {"Label", "Label", ""},
    {"Row", "Row", "8"},
    {"Estimate", "Estimate", "D9.4"},
    {"StandardError", "Standard Error", "D9.4"},
    {"DF", "DF", "BEST6"},
    {"NumDF", "Num DF", "BEST6"},
    {"DenDF", "Den DF", "BEST6"},
    {"tValue", "t Value", "7.2"},
    {"FValue", "F Value", "7.2"},
    {"Probt", "Pr > |t|", "PVALUE6.4"},
    {"ProbF", "Pr > F", "PVALUE6.4"},
    {"Alpha", "Alpha", "BEST6"},
    {"Lower", "Lower {confidence}% Limit", "D9.4"},
    {"Upper", "Upper {confidence}% Limit", "D9.4"},
    {"Gradient", "Gradient", "D9.3"},
    {"LowerBC", "Lower Bound", "BEST9"},
    {"UpperBC", "Upper Bound", "BEST9"},
    {"ActiveBC", "Active Bound", ""},
    {"Iter", "Iteration", "6"},
    {"Flag1", "", ""},
    {"Flag2", "", ""},
    {"Restart", "Restarts", "6"},
    {"Calls", "Calls", "6"},
    {"Active", "Active Constraints", "6"},
    {"NegLogLike", "Negative Log Likelihood", "D14.7.2"},
    {"Diff", "Difference", "D10.4"},
    {"MaxGrad", "Maximum Gradient", "D10.4"},
    {"StdDev", "Standard Deviation", "D10.4"},
    {"Slope", "Slope", "D10.4"},
    {"Reason", "Convergence Status", ""},
    {"Status", "Status", "6"},
};

} // namespace

const ColumnTemplate* column_template(std::string_view column)
{
  for (const ColumnTemplate& t : templates)
    if (t.name == column) return &t;
  return nullptr;
}

std::string column_heading(const Table& table, const TableColumn& column)
{
  const ColumnTemplate* t = column_template(column.name);
  std::string heading = !column.label.empty() ? column.label : t ? std::string(t->heading) : column.name;
  for (const auto& [name, value] : table.dynamic) {
    const std::string mark = "{" + name + "}";
    const std::size_t at = heading.find(mark);
    if (at != std::string::npos) heading.replace(at, mark.size(), format_number(value, parse_format("BEST6")));
  }
  // A heading whose value was not given loses the mark and the percent sign behind it.
  if (const std::size_t at = heading.find(" {"); at != std::string::npos)
    heading.erase(at, heading.find(' ', at + 1) - at);
  return heading;
}

std::string column_format(const TableColumn& column)
{
  if (!column.format.empty()) return column.format;
  const ColumnTemplate* t = column_template(column.name);
  if (t && !t->format.empty()) return std::string(t->format);
  return column.kind == CellKind::integer ? "12" : "D10.4";
}

namespace {

// Columns whose digits follow the standard error of their row.
constexpr std::string_view error_columns[] = {"Estimate", "StandardError", "StdErrPred", "Pred", "Lower", "Upper"};

// The decimals that a standard error earns: its own three leading digits. Nothing when there is no error to go by, or
// when so many decimals would not be read as a number.
std::optional<int> earned_decimals(double error)
{
  if (!(error > 0) || !std::isfinite(error)) return std::nullopt;
  const int decimals = std::max(0, 2 - static_cast<int>(std::floor(std::log10(error))));
  return decimals <= 8 ? std::optional<int>(decimals) : std::nullopt;
}

// Blanks behind numbers, so that the points of a right-aligned column stand below each other.
void align_points(std::vector<std::string>& cells)
{
  const auto behind = [](const std::string& s) {
    const std::size_t point = s.find('.');
    return point == std::string::npos || s.size() == 1 ? std::size_t{0} : s.size() - point;
  };
  std::size_t most = 0;
  for (const std::string& s : cells)
    if (s.find('e') == std::string::npos) most = std::max(most, behind(s));
  for (std::string& s : cells) {
    if (s == "." && most > 0) s.append(most - 1, ' '); // a missing value is a point
    if (s.find('e') == std::string::npos && s.size() > 1 && s[0] != '.') s.append(most - behind(s), ' ');
  }
}

// A column of estimates or limits: each row with the digits that its standard error earns, on one point.
std::vector<std::string> cells_by_error(const Table& table, const std::vector<double>& values,
                                        const NumberFormat& format, std::size_t error_column)
{
  std::vector<std::string> out;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const auto decimals = earned_decimals(table.rows()[i][error_column].as_number());
    std::string text = format_number(values[i], format);
    if (decimals && std::isfinite(values[i])) {
      const std::string fixed = format_number(values[i], {NumberFormat::Kind::fixed, 40, *decimals});
      if (static_cast<int>(fixed.size()) <= format.width + 4) text = fixed;
    }
    out.push_back(std::move(text));
  }
  align_points(out);
  return out;
}

} // namespace

std::vector<std::string> formatted_cells(const Table& table, std::size_t column)
{
  const NumberFormat format = parse_format(column_format(table.columns[column]));
  std::vector<double> values;
  std::vector<std::string> out;
  for (const auto& row : table.rows()) values.push_back(row[column].as_number());
  std::size_t error = table.column("StandardError");
  if (error == Table::npos) error = table.column("StdErrPred");
  const bool by_error = error != Table::npos && table.columns[column].kind == CellKind::number &&
                        std::find(std::begin(error_columns), std::end(error_columns), table.columns[column].name) !=
                            std::end(error_columns);
  const std::vector<std::string> numbers =
      by_error ? cells_by_error(table, values, format, error) : format_column(values, format);
  for (std::size_t i = 0; i < values.size(); ++i) {
    const Cell& cell = table.rows()[i][column];
    if (cell.text())
      out.push_back(*cell.text());
    else if (cell.integer())
      out.push_back(std::to_string(*cell.integer()));
    else
      out.push_back(numbers[i]);
  }
  return out;
}

std::string csv_text(const Table& table)
{
  const DataSet data = table_data_set(table);
  std::string out;
  for (const Column& column : data.columns()) {
    if (!out.empty()) out += ',';
    append_csv_field(out, column.name());
  }
  out += '\n';
  for (std::size_t row = 0; row < data.rows(); ++row) {
    for (std::size_t i = 0; i < data.columns().size(); ++i) {
      if (i > 0) out += ',';
      append_csv_cell(out, data.columns()[i], row, data.columns().size() == 1);
    }
    out += '\n';
  }
  return out;
}

DataSet table_data_set(const Table& table)
{
  DataSet data;
  data.name = table.name;
  data.label = table.label;
  for (std::size_t i = 0; i < table.columns.size(); ++i) {
    const TableColumn& c = table.columns[i];
    Column column(c.name, c.kind == CellKind::text ? ColumnKind::character : ColumnKind::numeric, c.label);
    for (const auto& row : table.rows()) {
      const Cell& cell = row[i];
      if (column.numeric())
        column.append(cell.as_number());
      else if (cell.text())
        column.append(std::string_view(*cell.text()));
      else if (cell.is_missing())
        column.append_missing();
      else
        column.append(shortest(cell.as_number()));
    }
    data.add(std::move(column));
  }
  return data;
}

} // namespace torvale::host
