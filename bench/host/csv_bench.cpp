// Reading and writing CSV, per byte of text. Each figure stands beside a plain loop over the same bytes in the same
// binary: splitting at commas and line ends and std::from_chars per field, without kinds, quotes or missing values. The
// text is larger than the caches. Disk time is kept out of it.
#include "host/data/csv.h"
#include "host/results/results.h"
#include <benchmark/benchmark.h>
#include <charconv>
#include <random>

namespace torvale::host {

namespace {

constexpr int rows = 200000;

const std::string& sample(bool with_text)
{
  static const auto make = [](bool text) {
    std::mt19937 random(1);
    std::normal_distribution<double> normal(10.0, 3.0);
    std::string out = "subject,time,dose,conc,group\n";
    char buffer[32];
    for (int i = 0; i < rows; ++i) {
      out += std::to_string(i / 10) + ",";
      for (int k = 0; k < 3; ++k) {
        out.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, normal(random)).ptr);
        out += ',';
      }
      out += text ? (i % 2 ? "placebo" : "treated") : (i % 2 ? "0" : "1");
      out += '\n';
    }
    return out;
  };
  static const std::string numbers = make(false), mixed = make(true);
  return with_text ? mixed : numbers;
}

void read_plain_loop(benchmark::State& state)
{
  const std::string& text = sample(false);
  for (auto _ : state) {
    double sum = 0.0;
    const char* p = text.data() + text.find('\n') + 1;
    const char* const end = text.data() + text.size();
    while (p < end) {
      double x = 0.0;
      p = std::from_chars(p, end, x).ptr + 1;
      sum += x;
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void read_csv_bytes(benchmark::State& state)
{
  const std::string& text = sample(state.range(0) != 0);
  MessageLog log;
  for (auto _ : state) benchmark::DoNotOptimize(read_csv_text(text, "sample.csv", log)->rows());
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void write_cells(benchmark::State& state)
{
  MessageLog log;
  const DataSet data = *read_csv_text(sample(true), "sample.csv", log);
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string out;
    for (std::size_t row = 0; row < data.rows(); ++row) {
      for (const Column& column : data.columns()) {
        append_csv_cell(out, column, row, false);
        out += ',';
      }
      out.back() = '\n';
    }
    bytes = out.size();
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

void results_as_json(benchmark::State& state)
{
  RunResults results;
  Table table("Parameters", "Starting Points",
              {{"a", CellKind::number, "", "", ""},
               {"b", CellKind::number, "", "", ""},
               {"NegLogLike", CellKind::number, "", "", ""}});
  for (int i = 0; i < 100000; ++i) table.row({i * 0.1, i * 0.3, 1.0 / (i + 1)});
  results.steps.emplace_back().groups.emplace_back().tables.push_back(std::move(table));
  std::size_t bytes = 0;
  for (auto _ : state) bytes = results_json(results).size();
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

BENCHMARK(read_plain_loop);
BENCHMARK(read_csv_bytes)->ArgName("text")->Arg(0)->Arg(1);
BENCHMARK(write_cells);
BENCHMARK(results_as_json);

} // namespace

} // namespace torvale::host

BENCHMARK_MAIN();
