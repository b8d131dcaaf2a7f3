// Nanoseconds per call of the probability functions, over 1024 arguments in turn so that no branch is learnt by heart.
// Where the C library has the same function it stands beside ours, as the plain measure. Quantiles are whole searches.

#include "probability/beta.h"
#include "probability/gamma.h"
#include "probability/normal.h"
#include "probability/quantiles.h"
#include "probability/random.h"
#include "probability/special/log_gamma.h"
#include "probability/special/polygamma.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cmath>

using namespace torvale::probability;

namespace {

std::array<double, 1024> uniform_arguments(double low, double high)
{
  std::array<double, 1024> values;
  std::int64_t seed = 4711;
  for (double& v : values) v = low + (high - low) * zranuni(&seed);
  return values;
}

template <class Function> void run(benchmark::State& state, double low, double high, const Function& f)
{
  const auto arguments = uniform_arguments(low, high);
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(f(arguments[i++ & 1023]));
}

void normal_cdf(benchmark::State& s)
{
  run(s, -8.0, 8.0, zprbnrm);
}
void normal_cdf_by_libm(benchmark::State& s)
{
  run(s, -8.0, 8.0, [](double x) { return 0.5 * std::erfc(-x * 0.7071067811865476); });
}
void normal_quantile(benchmark::State& s)
{
  run(s, 0.0, 1.0, zprobit);
}
void log_gamma(benchmark::State& s)
{
  run(s, 0.0, 40.0, zlgamma);
}
void log_gamma_by_libm(benchmark::State& s)
{
  run(s, 0.0, 40.0, [](double x) { return std::lgamma(x); });
}
void log_gamma_half_step(benchmark::State& s)
{
  run(s, 0.0, 40.0, [](double x) { return log_gamma_ratio(x, 0.5); });
}
void digamma_of(benchmark::State& s)
{
  run(s, 0.0, 40.0, digamma);
}
void trigamma_of(benchmark::State& s)
{
  run(s, 0.0, 40.0, trigamma);
}
void gamma_series_or_fraction(benchmark::State& s)
{
  run(s, 5.0, 40.0, [](double z) { return gamma_tails(z, 20.0).lower; });
}
void gamma_quadrature(benchmark::State& s)
{
  run(s, 9e3, 11e3, [](double z) { return gamma_tails(z, 1e4).lower; });
}
void beta_fraction(benchmark::State& s)
{
  run(s, 0.0, 1.0, [](double x) { return beta_tails(beta_point(x), 4.0, 9.0).lower; });
}
void beta_quadrature(benchmark::State& s)
{
  run(s, 0.45, 0.55, [](double x) { return beta_tails(beta_point(x), 1e4, 1e4).lower; });
}
void student_quantile_search(benchmark::State& s)
{
  run(s, 0.0, 1.0, [](double p) {
    double q = 0.0;
    zqt(p, 17.0, &q);
    return q;
  });
}
void chi_square_quantile_search(benchmark::State& s)
{
  run(s, 0.0, 1.0, [](double p) {
    double q = 0.0;
    zqc(p, 6.0, &q);
    return q;
  });
}

void uniform_number(benchmark::State& state)
{
  std::int64_t seed = 1;
  for (auto _ : state) benchmark::DoNotOptimize(zranuni(&seed));
}

void normal_number(benchmark::State& state)
{
  std::int64_t seed = 1;
  for (auto _ : state) benchmark::DoNotOptimize(zrannor(&seed));
}

BENCHMARK(normal_cdf);
BENCHMARK(normal_cdf_by_libm);
BENCHMARK(normal_quantile);
BENCHMARK(log_gamma);
BENCHMARK(log_gamma_by_libm);
BENCHMARK(log_gamma_half_step);
BENCHMARK(digamma_of);
BENCHMARK(trigamma_of);
BENCHMARK(gamma_series_or_fraction);
BENCHMARK(gamma_quadrature);
BENCHMARK(beta_fraction);
BENCHMARK(beta_quadrature);
BENCHMARK(student_quantile_search);
BENCHMARK(chi_square_quantile_search);
BENCHMARK(uniform_number);
BENCHMARK(normal_number);

} // namespace

BENCHMARK_MAIN();
