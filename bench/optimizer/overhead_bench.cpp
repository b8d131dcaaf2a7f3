// Time of the optimizer's own work per iteration, the objective kept out: a run with the clock stopped inside the
// callbacks. The objective is a chain of quartics, far from its minimum for the number of iterations that are timed.

#include "optimizer/optimizer.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>

using namespace torvale::optimizer;

namespace {

struct Work {
  double inside = 0.0; // seconds in callbacks
};

double seconds()
{
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int objective(MINSTR* str)
{
  const double start = seconds();
  ++str->nfct;
  double f = 0.0;
  for (long i = 0; i < str->nvar; ++i) {
    const double d = str->x[i] - (i > 0 ? 0.9 * str->x[i - 1] : 1.0);
    f += d * d * (1.0 + 0.1 * static_cast<double>(i % 7)) + 0.01 * d * d * d * d;
  }
  str->crit = f;
  static_cast<Work*>(str->comstr)->inside += seconds() - start;
  return 0;
}

int gradient(MINSTR* str)
{
  const double start = seconds();
  ++str->ngrd;
  std::fill_n(str->grad, str->nvar, 0.0);
  for (long i = 0; i < str->nvar; ++i) {
    const double d = str->x[i] - (i > 0 ? 0.9 * str->x[i - 1] : 1.0);
    const double g = 2.0 * d * (1.0 + 0.1 * static_cast<double>(i % 7)) + 0.04 * d * d * d;
    str->grad[i] += g;
    if (i > 0) str->grad[i - 1] -= 0.9 * g;
  }
  static_cast<Work*>(str->comstr)->inside += seconds() - start;
  return 0;
}

void overhead(benchmark::State& state, int technique)
{
  const long n = state.range(0);
  Work work;
  MINSTR str;
  tvlopti(&str);
  str.nvar = n;
  str.usfct = objective;
  str.usgrd = gradient;
  str.comstr = &work;
  str.tech = technique;
  str.tupd = technique == QUANEW ? 6 : 0;
  str.maxi = 20;
  str.agtl = str.gtol = str.ftol = 0.0;
  tvlopta(&str);
  tvloptc(&str);
  double iterations = 0.0, own = 0.0;
  for (auto _ : state) {
    for (long i = 0; i < n; ++i) str.x[i] = 5.0 * std::sin(static_cast<double>(i));
    work.inside = 0.0;
    const double start = seconds();
    znlpdrv(&str, 1, 0, 0, 0);
    znlpdrv(&str, 2, 0, 0, 0);
    own += seconds() - start - work.inside;
    iterations += str.nitr;
  }
  state.counters["us_per_iteration"] = 1e6 * own / iterations;
}

} // namespace

BENCHMARK_CAPTURE(overhead, duquan, DUQUAN)->Arg(5)->Arg(50)->Arg(500);
BENCHMARK_CAPTURE(overhead, quanew, QUANEW)->Arg(5)->Arg(50)->Arg(500);
BENCHMARK_CAPTURE(overhead, congra, CONGRA)->Arg(5)->Arg(50)->Arg(500);
