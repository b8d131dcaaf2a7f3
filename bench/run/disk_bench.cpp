// A fit whose data lie in a scratch file (NOSORTSUB) beside the same fit in memory: 2,000,000 records of 200,000
// subjects, sorted. Counter `ratio`: the time of the whole run on disk, reading of the file included, over that in
// memory.

#include "expected_exit.h"
#include "torvale/torvale.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>

namespace {

constexpr int subjects = 200000, records = 10;

double seconds_of_run(const std::string& folder, const std::string& options)
{
  torvale::Settings settings;
  settings.program_folder = settings.output_folder = folder;
  std::string log;
  settings.log = [&](std::string_view text) { log += text; };
  torvale::Run run(settings);
  const auto start = std::chrono::steady_clock::now();
  const auto results = run.run("TORVALE DATA=large QPOINTS=1 " + options +
                               "; PARMS b0=1 b1=0.5 v=0.5 vu=0.5; MODEL y ~ NORMAL(b0 + b1*x + u, v);"
                               "RANDOM u ~ NORMAL(0, vu) SUBJECT=id; RUN;");
  const auto end = std::chrono::steady_clock::now();
  torvale::bench::expect_exit(results.exit_code, 0, log);
  return std::chrono::duration<double>(end - start).count();
}

void data_on_disk(benchmark::State& state)
{
  const auto folder = std::filesystem::temp_directory_path() / "torvale-disk-bench";
  std::filesystem::create_directories(folder);
  {
    std::mt19937 random(2026);
    std::normal_distribution<double> normal;
    std::ofstream file(folder / "large.csv");
    file << "id,x,y\n";
    for (int s = 1; s <= subjects; ++s) {
      const double u = 0.7 * normal(random);
      for (int r = 0; r < records; ++r) {
        const double x = 0.01 * std::floor(100.0 * normal(random));
        file << s << ',' << x << ',' << 1.0 + 0.5 * x + u + 0.7 * normal(random) << '\n';
      }
    }
  }
  for (auto _ : state) {
    double memory = 1e9, disk = 1e9;
    for (int k = 0; k < 2; ++k) { // by turns
      memory = std::min(memory, seconds_of_run(folder.string(), ""));
      disk = std::min(disk, seconds_of_run(folder.string(), "NOSORTSUB"));
    }
    state.counters["memory_s"] = memory;
    state.counters["disk_s"] = disk;
    state.counters["ratio"] = disk / memory;
  }
  std::filesystem::remove_all(folder);
}
BENCHMARK(data_on_disk)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace
