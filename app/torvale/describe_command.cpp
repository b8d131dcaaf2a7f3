#include "host/values/formats.h"
#include "host/values/text.h"
#include "host/writers/table_writers.h"
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

// What describe tells of one column.
struct Description {
  long missing = 0;
  std::vector<double> numbers; // of a numeric column, ascending
  double mean = host::missing, deviation = host::missing;
  long distinct = 0, runs = 0; // runs: stretches of equal values
  long leading = 0;            // texts that begin with a blank
};

Description described(const host::Column& column)
{
  Description d;
  for (std::size_t row = 0; row < column.rows(); ++row) {
    const bool same = row > 0 && (column.numeric() ? column.number(row) == column.number(row - 1)
                                                   : column.codes()[row] == column.codes()[row - 1]);
    d.runs += same ? 0 : 1;
    if (column.is_missing(row))
      ++d.missing;
    else if (column.numeric())
      d.numbers.push_back(column.number(row));
    else
      d.leading += column.text(row).front() == ' ' ? 1 : 0;
  }
  if (!column.numeric()) {
    for (const std::string& level : column.dictionary()) d.distinct += level.empty() ? 0 : 1;
    return d;
  }
  std::sort(d.numbers.begin(), d.numbers.end());
  for (std::size_t i = 0; i < d.numbers.size(); ++i) d.distinct += i == 0 || d.numbers[i] != d.numbers[i - 1] ? 1 : 0;
  if (d.numbers.empty()) return d;
  const auto count = static_cast<double>(d.numbers.size());
  d.mean = 0;
  for (const double x : d.numbers) d.mean += x / count;
  double squares = 0;
  for (const double x : d.numbers) squares += (x - d.mean) * (x - d.mean);
  if (count > 1) d.deviation = std::sqrt(squares / (count - 1));
  return d;
}

// Between order statistics, linearly: 0.25 gives the lower quartile.
double quantile(const std::vector<double>& sorted, double p)
{
  if (sorted.empty()) return host::missing;
  const double at = p * static_cast<double>(sorted.size() - 1);
  const auto k = static_cast<std::size_t>(at);
  if (k + 1 >= sorted.size()) return sorted.back();
  return sorted[k] + (at - static_cast<double>(k)) * (sorted[k + 1] - sorted[k]);
}

host::TableColumn integer(const char* name)
{
  return {name, CellKind::integer, name, "", ""};
}

host::TableColumn number(const char* name)
{
  return {name, CellKind::number, name, "BEST9", ""};
}

host::Table number_table(const host::DataSet& data, const std::vector<Description>& all)
{
  host::Table table("NumericVariables", "Numeric Variables",
                    {{"Variable", CellKind::text, "Variable", "", ""},
                     integer("Count"),
                     integer("Missing"),
                     integer("Distinct"),
                     number("Mean"),
                     number("StdDev"),
                     number("Minimum"),
                     number("Q1"),
                     number("Median"),
                     number("Q3"),
                     number("Maximum")});
  table.columns[5].label = "Std Dev";
  for (std::size_t k = 0; k < all.size(); ++k) {
    const Description& d = all[k];
    if (!data.columns()[k].numeric() || data.columns()[k].moment() != host::Moment::none) continue;
    // The digits of a mean follow from those of the spread.
    const auto shown = [&](double x) {
      if (std::isnan(d.deviation) || !(d.deviation > 0) || std::isnan(x)) return x;
      const double unit = std::pow(10.0, std::floor(std::log10(d.deviation)) - 3);
      return std::round(x / unit) * unit;
    };
    table.row({data.columns()[k].name(), d.numbers.size(), d.missing, d.distinct, shown(d.mean), shown(d.deviation),
               quantile(d.numbers, 0), quantile(d.numbers, 0.25), quantile(d.numbers, 0.5), quantile(d.numbers, 0.75),
               quantile(d.numbers, 1)});
  }
  return table;
}

// A value of a column as its format shows it.
std::string shown(const host::Column& column, double value)
{
  std::string problem;
  const auto format = host::parse_value_format(column.format().empty() ? "BEST10." : column.format(), problem);
  return format ? std::string(host::stripped(host::format_value(value, *format))) : std::string();
}

host::Table date_table(const host::DataSet& data, const std::vector<Description>& all)
{
  const auto text = [](const char* name) { return host::TableColumn{name, CellKind::text, name, "", ""}; };
  host::Table table("DateVariables", "Date and Time Variables",
                    {text("Variable"), text("Format"), integer("Count"), integer("Missing"), integer("Distinct"),
                     text("Minimum"), text("Median"), text("Maximum")});
  for (std::size_t k = 0; k < all.size(); ++k) {
    const host::Column& column = data.columns()[k];
    const Description& d = all[k];
    if (column.moment() == host::Moment::none) continue;
    table.row({column.name(), column.format(), d.numbers.size(), d.missing, d.distinct,
               shown(column, quantile(d.numbers, 0)), shown(column, quantile(d.numbers, 0.5)),
               shown(column, quantile(d.numbers, 1))});
  }
  return table;
}

host::Table text_table(const host::DataSet& data, const std::vector<Description>& all)
{
  constexpr std::size_t most_levels = 8;
  host::Table table("TextVariables", "Text Variables",
                    {{"Variable", CellKind::text, "Variable", "", ""},
                     integer("Count"),
                     integer("Missing"),
                     integer("Distinct"),
                     {"Levels", CellKind::text, "Levels, with their counts", "", ""}});
  for (std::size_t k = 0; k < all.size(); ++k) {
    const host::Column& column = data.columns()[k];
    if (column.numeric()) continue;
    std::vector<long> counts(column.dictionary().size(), 0);
    for (const std::uint32_t code : column.codes()) ++counts[code];
    std::string levels;
    std::size_t shown = 0;
    for (std::size_t code = 0; code < counts.size(); ++code) {
      if (column.dictionary()[code].empty() || shown == most_levels) continue;
      ++shown;
      levels += (levels.empty() ? "" : ", ") + std::string(host::cut_name(column.dictionary()[code], 16)) + " (" +
                std::to_string(counts[code]) + ")";
    }
    if (static_cast<std::size_t>(all[k].distinct) > shown) levels += ", ...";
    if (all[k].leading > 0) levels += "; " + std::to_string(all[k].leading) + " begin with a blank";
    table.row(
        {column.name(), static_cast<long>(column.rows()) - all[k].missing, all[k].missing, all[k].distinct, levels});
  }
  return table;
}

// Columns that may name the subjects: values that come back in blocks, several rows each, none missing, whole numbers
// or texts. Best first.
std::string subject_candidates(const host::DataSet& data, const std::vector<Description>& all)
{
  std::vector<std::pair<long, std::string>> found;
  for (std::size_t k = 0; k < all.size(); ++k) {
    const Description& d = all[k];
    const auto rows = static_cast<long>(data.rows());
    const bool whole = std::all_of(d.numbers.begin(), d.numbers.end(), [](double x) { return x == std::floor(x); });
    const bool blocks = d.runs <= d.distinct + d.distinct / 10; // nearly every value stands in one stretch
    if (d.missing == 0 && whole && blocks && d.distinct >= 3 && d.distinct * 3 <= rows * 2)
      found.emplace_back(-d.distinct, data.columns()[k].name());
  }
  std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::string out;
  for (std::size_t k = 0; k < found.size() && k < 3; ++k)
    out += (out.empty() ? "" : ", ") + found[k].second + " (" + std::to_string(-found[k].first) + " values)";
  return out;
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
  std::vector<Description> all;
  for (const host::Column& column : set->columns()) all.push_back(described(column));
  std::string text = std::to_string(set->rows()) + " rows, " + std::to_string(set->columns().size()) + " variables\n";
  for (const host::Table& table : {number_table(*set, all), date_table(*set, all), text_table(*set, all)})
    if (!table.rows().empty()) text += "\n" + host::listing_text(table, 110);
  if (const std::string subjects = subject_candidates(*set, all); !subjects.empty())
    text += "\nMay name the subjects: " + subjects + "\n";
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
