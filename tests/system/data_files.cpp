#include "system/data_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <unistd.h>

namespace torvale::tests {

std::vector<std::string> CsvFile::column(const std::string& name) const
{
  const auto at = std::find(names.begin(), names.end(), name);
  std::vector<std::string> fields;
  if (at == names.end()) return fields;
  for (const auto& row : rows) fields.push_back(row[static_cast<std::size_t>(at - names.begin())]);
  return fields;
}

std::vector<double> CsvFile::numbers(const std::string& name) const
{
  std::vector<double> values;
  for (const std::string& field : column(name))
    values.push_back(field.empty() ? std::numeric_limits<double>::quiet_NaN() : std::stod(field));
  return values;
}

CsvFile read_csv_file(const std::string& path)
{
  CsvFile csv;
  std::ifstream file(path);
  EXPECT_TRUE(file) << path;
  for (std::string line; std::getline(file, line);) {
    std::vector<std::string> fields;
    std::istringstream in(line + ",");
    for (std::string field; std::getline(in, field, ',');) fields.push_back(field);
    if (csv.names.empty())
      csv.names = fields;
    else
      csv.rows.push_back(fields);
  }
  return csv;
}

Folder::Folder()
{
  static int count = 0;
  const std::string name = "torvale-outputs-" + std::to_string(getpid()) + "-" + std::to_string(++count);
  path_ = (std::filesystem::temp_directory_path() / name).string();
  std::filesystem::create_directories(path_);
}

Folder::~Folder()
{
  std::filesystem::remove_all(path_);
}

bool Folder::holds(const std::string& name) const
{
  return std::filesystem::exists(file(name));
}

} // namespace torvale::tests
