// What a report costs beside its fit: the two-effect kinetic model of examples/theoph.tvl with 1,000 simulated
// subjects. "fit" runs the program, "fit_with_pictures" draws the pictures too, "page" puts the results together. A
// report should take less than the fit, and a fit that nobody reports on pays nothing.

#include "expected_exit.h"
#include "report/page.h"
#include "run/session.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <unistd.h>

namespace torvale {

namespace {

constexpr int subjects = 1000;

// A file of its own that is gone at the end.
class Sample {
public:
  Sample() : path_(std::filesystem::temp_directory_path() / ("report-bench-" + std::to_string(getpid()) + ".csv"))
  {
    std::mt19937 random(7);
    std::normal_distribution<double> normal;
    std::uniform_real_distribution<double> doses(3, 6);
    std::ofstream file(path_);
    file << "subject,time,dose,conc\n";
    for (int s = 1; s <= subjects; ++s) {
      const double dose = doses(random), cl = std::exp(-3.22 + 0.17 * normal(random)),
                   ka = std::exp(0.47 + 0.6 * normal(random)), ke = std::exp(-2.45);
      for (const double t : {0.25, 0.5, 1.0, 2.0, 3.5, 5.0, 7.0, 9.0, 12.0, 24.0})
        file << s << ',' << t << ',' << dose << ','
             << dose * ke * ka / cl * (std::exp(-ke * t) - std::exp(-ka * t)) / (ka - ke) + 0.7 * normal(random)
             << '\n';
    }
  }
  ~Sample() { std::filesystem::remove(path_); }
  std::string path() const { return path_.string(); }

private:
  std::filesystem::path path_;
};

RunOutcome fit(bool pictures)
{
  static const Sample sample;
  std::ifstream program(TORVALE_SOURCE_DIR "/examples/theoph.tvl");
  RunSettings settings;
  settings.data = {{"theoph", sample.path()}};
  settings.pictures = pictures;
  std::string log;
  settings.log = [&](std::string_view text) { log += text; };
  RunOutcome outcome = Session(std::move(settings)).run(std::string(std::istreambuf_iterator<char>(program), {}));
  bench::expect_exit(outcome.exit_code, 0, log);
  return outcome;
}

void fit_alone(benchmark::State& state)
{
  for (auto _ : state) benchmark::DoNotOptimize(fit(false).exit_code);
}

void fit_with_pictures(benchmark::State& state)
{
  for (auto _ : state) benchmark::DoNotOptimize(fit(true).exit_code);
}

void page(benchmark::State& state)
{
  const RunOutcome outcome = fit(true);
  std::size_t bytes = 0;
  for (auto _ : state) bytes = report::report_page(outcome.results).size();
  state.counters["bytes"] = static_cast<double>(bytes);
}

BENCHMARK(fit_alone)->Unit(benchmark::kMillisecond);
BENCHMARK(fit_with_pictures)->Unit(benchmark::kMillisecond);
BENCHMARK(page)->Unit(benchmark::kMillisecond);

} // namespace

} // namespace torvale
