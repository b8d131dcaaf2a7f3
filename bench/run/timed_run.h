#pragma once
// A program run by the library on a folder of data, and the processor time that it takes.

#include "expected_exit.h"
#include "torvale/torvale.h"

#include <cmath>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

namespace torvale::bench {

// A folder in the system's temporary folder, empty at first, removed at the end.
class DataFolder {
public:
  explicit DataFolder(const std::string& name) : path_(std::filesystem::temp_directory_path() / name)
  {
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~DataFolder() { std::filesystem::remove_all(path_); }
  DataFolder(const DataFolder&) = delete;
  DataFolder& operator=(const DataFolder&) = delete;
  std::ofstream file(const std::string& name) const { return std::ofstream(path_ / name); }
  std::string path() const { return path_.string(); }

private:
  std::filesystem::path path_;
};

struct TimedRun {
  double seconds = NAN;   // of the processor, all threads
  double minus2 = NAN;    // first row of "FitStatistics"
  double evaluations = 0; // calls in the last row of "IterHistory"
};

// Runs a program on one thread; it must end with the exit code `expected`.
inline TimedRun timed_run(const std::string& folder, const std::string& program, int expected = 0)
{
  std::string log;
  Settings settings;
  settings.program_folder = settings.output_folder = folder;
  settings.log = [&](std::string_view text) { log += text; };
  Run run(std::move(settings));
  TimedRun out;
  const std::clock_t start = std::clock();
  const Results results = run.run(program);
  out.seconds = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
  expect_exit(results.exit_code, expected, log);
  const Group& group = results.steps.back().groups.back();
  if (const Table* fit = group.table("FitStatistics")) out.minus2 = fit->number(0, "Value");
  if (const Table* history = group.table("IterHistory"))
    out.evaluations = history->number(history->rows.size() - 1, "Calls");
  return out;
}

} // namespace torvale::bench
