// Predictions with standard errors of 1,000,000 records, written to CSV, beside the fit that they belong to: a logistic
// model with a random intercept and slope, 100,000 subjects of 10 records, 3 points a dimension. Counter `ratio`: the
// time that PREDICT adds to the run, reading and writing of the data included in it as far as PREDICT causes them, over
// the time of the run without it. Processor time of all threads; the run has one.

#include "run/timed_run.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>

namespace {

constexpr int subjects = 100000, records = 10;

void write_data(std::ofstream file)
{
  std::mt19937 random(2026);
  std::normal_distribution<double> normal;
  file << "id,x,y\n";
  for (int s = 0; s < subjects; ++s) {
    const double u = 0.8 * normal(random), v = 0.4 * normal(random);
    for (int r = 0; r < records; ++r) {
      const double x = 0.01 * std::floor(100.0 * normal(random)),
                   p = 1.0 / (1.0 + std::exp(-(0.2 + u + (0.7 + v) * x)));
      file << s + 1 << ',' << x << ',' << std::bernoulli_distribution(p)(random) << '\n';
    }
  }
}

double seconds_of_run(const std::string& folder, const std::string& statement)
{
  return torvale::bench::timed_run(folder, "TORVALE DATA=million QPOINTS=3; PARMS b0=0 b1=0.5 v0=0.5 v01=0 v1=0.2;"
                                           "BOUNDS v0 >= 0, v1 >= 0; p = 1/(1 + exp(-(b0 + u + (b1 + v)*x)));"
                                           "MODEL y ~ BINARY(p); RANDOM u v ~ NORMAL([0,0],[v0,v01,v1]) SUBJECT=id;" +
                                               statement + " RUN;")
      .seconds;
}

void predictions_of_a_million_records(benchmark::State& state)
{
  const torvale::bench::DataFolder folder("torvale-prediction-bench");
  write_data(folder.file("million.csv"));
  for (auto _ : state) {
    const double fit = seconds_of_run(folder.path(), ""),
                 both = seconds_of_run(folder.path(), "PREDICT p OUT=predicted;");
    state.counters["fit_s"] = fit;
    state.counters["predict_s"] = both - fit;
    state.counters["ratio"] = (both - fit) / fit;
  }
}

} // namespace

BENCHMARK(predictions_of_a_million_records)->Iterations(1)->Unit(benchmark::kSecond);
