// Nanoseconds per lane of the lane kernels, and the ratio to the plain loop of hand_loops.cpp on the same instruction
// set. Operands lie in the first-level cache, as the registers of a tile do; many sets of them take turns, so that no
// branch predictor learns the data.
//
//   ninja engine_kernels_bench && engine_kernels_bench
//
// Every kernel is measured; `ratio` stands where there is a hand-written loop.

#include "engine/kernels/kernels.h"
#include "hand_loops.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

namespace torvale::bench {
namespace {

using engine::Kernel;
using engine::KernelTable;

constexpr int sets = 4;
constexpr int most_lanes = 512;

// Operands inside every domain: a in (0, 1), b and c about 2, further ones orders of derivatives.
struct Operands {
  alignas(64) double value[sets][engine::kernel_operands_max][most_lanes];
  alignas(64) double out[most_lanes];
  Operands()
  {
    for (int s = 0; s < sets; ++s)
      for (int i = 0; i < most_lanes; ++i) {
        const double u = ((i * 37 + s * 101) % 997 + 0.5) / 997.0;
        const double row[engine::kernel_operands_max] = {u, 1.0 + 2.0 * u, 2.5 - u, 1.0 - u, 1.0};
        for (int k = 0; k < engine::kernel_operands_max; ++k) value[s][k][i] = row[k];
      }
  }
};
Operands operands;

using Loop = void (*)(double* out, const double* const* in, int n);

double seconds(Loop run, int lanes, int repeats)
{
  const auto start = std::chrono::steady_clock::now();
  for (int r = 0; r < repeats; ++r) {
    const double* in[engine::kernel_operands_max];
    for (int k = 0; k < engine::kernel_operands_max; ++k) in[k] = operands.value[r % sets][k];
    run(operands.out, in, lanes);
    benchmark::ClobberMemory();
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

const HandLoop* find(const HandLoop* list, std::string_view kernel)
{
  for (; list->kernel != nullptr; ++list)
    if (kernel == list->kernel) return list;
  return nullptr;
}

void measure(benchmark::State& state, Loop kernel, const HandLoop* hand, int lanes)
{
  double kernel_seconds = 0.0, hand_seconds = 0.0;
  constexpr int repeats = 64; // in turns, so that a change of clock speed meets both
  for (auto _ : state) {
    const double t = seconds(kernel, lanes, repeats);
    state.SetIterationTime(t);
    kernel_seconds += t;
    if (hand != nullptr) hand_seconds += seconds(hand->run, lanes, repeats);
  }
  const double calls = static_cast<double>(state.iterations()) * repeats;
  state.counters["ns_per_lane"] = kernel_seconds / calls / lanes * 1e9;
  if (hand != nullptr) state.counters["ratio"] = kernel_seconds / hand_seconds;
}

} // namespace
} // namespace torvale::bench

int main(int argc, char** argv)
{
  using namespace torvale;
  int n = 0;
  const engine::KernelTable* const* tables = engine::usable_kernels(n);
#if defined(__x86_64__)
  const bench::HandLoop* const hand[] = {bench::hand_loops_baseline, bench::hand_loops_avx2, bench::hand_loops_avx512};
#else
  const bench::HandLoop* const hand[] = {bench::hand_loops_baseline};
#endif
  for (int t = 0; t < n; ++t)
    for (std::size_t k = 0; k < engine::kernel_count; ++k)
      for (const int lanes : {8, 32, 64, 512}) {
        const auto name = engine::kernel_info(static_cast<engine::Kernel>(k)).name;
        const std::string title = std::string(tables[t]->isa) + "/" + std::string(name) + "/" + std::to_string(lanes);
        const bench::HandLoop* const loop = bench::find(hand[t], name);
        benchmark::RegisterBenchmark(
            title.c_str(), [=](benchmark::State& state) { bench::measure(state, tables[t]->fn[k], loop, lanes); })
            ->UseManualTime()
            ->MinTime(0.01);
      }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
