#include "engine/kernels/lane_arrays.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>

namespace torvale::engine {

LaneArray::LaneArray(std::size_t n, double fill)
{
  padded_ = (n + lane_padding - 1) / lane_padding * lane_padding;
  storage_.assign(padded_ + 8, fill);
  const auto address = reinterpret_cast<std::uintptr_t>(storage_.data());
  data_ = storage_.data() + (64 - address % 64) % 64 / sizeof(double);
}

std::vector<const KernelTable*> builds()
{
  int n = 0;
  const KernelTable* const* tables = usable_kernels(n);
  return {tables, tables + n};
}

std::vector<double> run_lanes(const KernelTable& table, Kernel k, const std::vector<std::vector<double>>& columns)
{
  const std::size_t n = columns[0].size();
  std::vector<LaneArray> in;
  for (const auto& column : columns) {
    in.emplace_back(n, column[0]); // padding lanes copy a real one, as in a tile
    for (std::size_t i = 0; i < n; ++i) in.back()[i] = column[i];
  }
  std::vector<const double*> pointers;
  for (const LaneArray& a : in) pointers.push_back(a.data());
  LaneArray out(n);
  table[k](out.data(), pointers.data(), out.lanes());
  return {out.data(), out.data() + n};
}

double run_one(const KernelTable& table, Kernel k, const std::vector<double>& operands)
{
  std::vector<std::vector<double>> columns;
  for (const double x : operands) columns.push_back({x});
  return run_lanes(table, k, columns)[0];
}

ReferenceTable read_reference(const std::string& name)
{
  ReferenceTable table;
  std::ifstream file(std::string(TORVALE_SOURCE_DIR "/tests/data/special/") + name + ".csv");
  for (std::string line; std::getline(file, line);) {
    std::vector<std::string> fields;
    std::istringstream split(line);
    for (std::string field; std::getline(split, field, ',');) fields.push_back(field);
    if (table.header.empty())
      table.header = fields;
    else
      table.text.push_back(fields);
  }
  return table;
}

std::size_t ReferenceTable::column(const std::string& name) const
{
  for (std::size_t k = 0; k < header.size(); ++k)
    if (header[k] == name) return k;
  std::abort();
}

std::vector<double> ReferenceTable::numbers(const std::string& name) const
{
  std::vector<double> values;
  for (const auto& row : text) values.push_back(std::strtod(row[column(name)].c_str(), nullptr));
  return values;
}

std::vector<long double> ReferenceTable::truths(const std::string& name) const
{
  std::vector<long double> values;
  for (const auto& row : text) values.push_back(std::strtold(row[column(name)].c_str(), nullptr));
  return values;
}

double units_off(double value, long double truth)
{
  constexpr double infinity = std::numeric_limits<double>::infinity();
  if (std::isnan(value)) return infinity;
  const long double size = std::fabs(truth);
  if (size < std::numeric_limits<double>::min())
    return std::fabs(value) <= 2 * std::numeric_limits<double>::min() ? 0.0 : infinity;
  if (size > std::numeric_limits<double>::max())
    return std::isinf(value) && (value > 0) == (truth > 0) ? 0.0 : infinity;
  return static_cast<double>(std::fabs(value - truth) / size * 0x1p52L);
}

} // namespace torvale::engine
