#include "system/session.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <unistd.h>

namespace torvale::tests {

const host::Table* Run::table(const std::string& name, std::size_t group) const
{
  if (outcome.results.steps.empty() || outcome.results.steps[0].groups.size() <= group) return nullptr;
  for (const auto& t : outcome.results.steps[0].groups[group].tables)
    if (t.name == name) return &t;
  return nullptr;
}

std::vector<double> Run::column(const std::string& name, const std::string& column, std::size_t group) const
{
  const host::Table* t = table(name, group);
  if (t == nullptr) return {};
  const auto at = t->column(column);
  std::vector<double> values;
  if (at != host::Table::npos)
    for (const auto& row : t->rows())
      values.push_back(row[at].integer() != nullptr ? static_cast<double>(*row[at].integer()) : row[at].as_number());
  return values;
}

double Run::number(const std::string& name, const std::string& key, const std::string& column_name,
                   std::size_t group) const
{
  const host::Table* t = table(name, group);
  if (t == nullptr) return std::numeric_limits<double>::quiet_NaN();
  const auto values = column(name, column_name, group);
  for (std::size_t r = 0; r < values.size(); ++r)
    if (const auto* text = t->rows()[r][0].text(); text != nullptr && *text == key) return values[r];
  return std::numeric_limits<double>::quiet_NaN();
}

bool Run::said(int group, int number) const
{
  for (const auto& step : outcome.results.steps)
    for (const auto& m : step.messages)
      if (m.group == group && m.number == number) return true;
  return false;
}

Run run_text(const std::string& program, const std::string& folder, int threads,
             const std::vector<std::pair<std::string, std::string>>& data, bool pictures, std::uint64_t memory,
             const std::string& output_folder)
{
  Run run;
  RunSettings settings;
  settings.memory = memory;
  settings.program_name = "test.tvl";
  settings.program_folder = std::filesystem::path(folder).is_absolute() ? folder : source_file(folder);
  settings.output_folder = output_folder.empty() ? std::filesystem::temp_directory_path().string() : output_folder;
  settings.threads = threads;
  settings.data = data;
  settings.pictures = pictures;
  settings.log = [&](std::string_view s) { run.log += s; };
  settings.listing = [&](std::string_view s) { run.listing += s; };
  Session session(std::move(settings));
  run.outcome = session.run(program);
  return run;
}

std::string example(const std::string& name, const std::string& options)
{
  std::string text = read_text(source_file("examples/" + name + ".tvl"));
  text.insert(text.find(';'), " " + options);
  return text;
}

std::string source_file(const std::string& path)
{
  return std::string(TORVALE_SOURCE_DIR) + "/" + path;
}

std::string read_text(const std::string& path)
{
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file) << path;
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::vector<std::string> split(const std::string& text, char at)
{
  std::vector<std::string> parts;
  std::stringstream rest(text);
  for (std::string part; std::getline(rest, part, at);) parts.push_back(part);
  return parts;
}

std::string output_of(const std::string& command)
{
  std::string out;
  FILE* const pipe = ::popen(command.c_str(), "r");
  char piece[4096];
  while (const std::size_t n = std::fread(piece, 1, sizeof piece, pipe)) out.append(piece, n);
  ::pclose(pipe);
  return out;
}

TemporaryFile::TemporaryFile(const std::string& name, const std::string& text)
    : path_((std::filesystem::temp_directory_path() / (std::to_string(getpid()) + "-" + name)).string())
{
  std::ofstream(path_, std::ios::binary) << text;
}

TemporaryFile::~TemporaryFile()
{
  std::filesystem::remove(path_);
}

} // namespace torvale::tests
