#include "host/formats.h"
#include "host/table_writers.h"
#include "run/session.h"
#include "torvale/commands.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>

namespace torvale::app {

namespace {

using host::CellKind;

// A value of a column as its format shows it.
std::string shown(const host::Column& column, double value)
{
  std::string problem;
  const auto format = host::parse_value_format(column.format().empty() ? "BEST10." : column.format(), problem);
  return column.numeric() && format ? std::string(host::stripped(host::format_value(value, *format))) : std::string();
}

host::Table variable_table(const host::DataSet& data)
{
  host::Table table("Variables", data.name,
                    {{"Variable", CellKind::text, "Variable", "", ""},
                     {"Type", CellKind::text, "Type", "", ""},
                     {"Format", CellKind::text, "Format", "", ""},
                     {"Missing", CellKind::integer, "Missing", "", ""},
                     {"Distinct", CellKind::integer, "Distinct", "", ""},
                     {"Minimum", CellKind::text, "Minimum", "", ""},
                     {"Maximum", CellKind::text, "Maximum", "", ""}});
  for (const host::Column& column : data.columns()) {
    long missing = 0;
    double low = host::missing, high = host::missing;
    std::vector<double> numbers;
    for (std::size_t row = 0; row < column.rows(); ++row) {
      if (column.is_missing(row)) {
        ++missing;
      } else if (column.numeric()) {
        numbers.push_back(column.number(row));
      }
    }
    long distinct = static_cast<long>(column.dictionary().size());
    if (column.numeric()) {
      std::sort(numbers.begin(), numbers.end());
      if (!numbers.empty()) {
        low = numbers.front();
        high = numbers.back();
      }
      distinct = static_cast<long>(std::unique(numbers.begin(), numbers.end()) - numbers.begin());
    }
    const char* const type = !column.numeric()                       ? "character"
                             : column.moment() == host::Moment::none ? "numeric"
                                                                     : "date or time";
    table.row({column.name(), type, column.format(), missing, distinct, shown(column, low), shown(column, high)});
  }
  return table;
}

} // namespace

int describe_command(const std::string& data, const std::vector<std::pair<std::string, std::string>>& libraries,
                     char separator)
{
  RunSettings settings;
  settings.libraries = libraries;
  settings.separator = separator;
  settings.log = [](std::string_view s) { std::fwrite(s.data(), 1, s.size(), stderr); };
  Session session(std::move(settings));
  // A file as it stands in the current folder is meant before a name is.
  std::error_code error;
  const bool is_path = data.find('/') != std::string::npos || data.find(".csv") != std::string::npos ||
                       std::filesystem::is_regular_file(data, error);
  const auto set = session.data_set(data, is_path);
  if (set == nullptr) return 4;
  std::printf("%zu rows, %zu variables\n\n", set->rows(), set->columns().size());
  const std::string text = host::listing_text(variable_table(*set));
  std::fwrite(text.data(), 1, text.size(), stdout);
  return std::fflush(stdout) == 0 ? 0 : 1;
}

int explain_command(const std::string& code)
{
  const std::string text = explain(code);
  if (text.empty()) {
    std::fprintf(stderr, "torvale: there is no message %s\n", code.c_str());
    return 2;
  }
  std::printf("%s", text.c_str());
  return 0;
}

} // namespace torvale::app
