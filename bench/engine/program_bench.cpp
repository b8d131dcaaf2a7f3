// Nanoseconds per lane of specialised programs, and their ratio to hand-written loops on the same instruction set. The
// tile is `lanes` records at one point; what depends on the point or on data alone is computed before the clock starts,
// on both sides. Prints the table of docs/performance.md.

#include "engine/hand_loops.h"
#include "engine/program_models.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

namespace {

using namespace torvale;
using namespace torvale::bench;

constexpr const char* wanted_names[] = {"value", "value, gradient", "mode search"};

// Best of several rounds: the machine may be shared.
double nanoseconds(int lanes, const std::function<void()>& run)
{
  run();
  double best = 1e300;
  for (int round = 0; round < 25; ++round) {
    const int calls = 10000 / lanes + 1;
    const auto start = std::chrono::steady_clock::now();
    for (int k = 0; k < calls; ++k) run();
    const std::chrono::duration<double, std::nano> spent = std::chrono::steady_clock::now() - start;
    best = std::min(best, spent.count() / calls / lanes);
  }
  return best;
}

// Both sides must compute the same; a ratio to something else says nothing.
void compare(const char* name, CompiledModel& model, const std::vector<double>& hand)
{
  model.run(engine::max_lanes);
  for (int k = 0; k < model.outputs(); ++k)
    for (int i = 0; i < engine::max_lanes; ++i) {
      const double a = model.output(k, i), b = hand[static_cast<std::size_t>(k * engine::max_lanes + i)];
      if (std::fabs(a - b) <= 1e-8 * (1.0 + std::fabs(a))) continue;
      std::fprintf(stderr, "%s, output %d, lane %d: %.17g and by hand %.17g\n", name, k, i, a, b);
      std::exit(1);
    }
}

} // namespace

// engine_program_bench [INSTRUCTIONS]: all instruction sets, or one.
int main(int argc, char** argv)
{
  const struct {
    const char* isa;
    const HandLoops& loops;
  } builds[] = {{"baseline", hand_loops_baseline}, {"avx2", hand_loops_avx2}, {"avx512", hand_loops_avx512}};
  std::vector<double> log_factorial;
  for (const double y : record_values()) log_factorial.push_back(std::lgamma(1.0 + std::floor(3.0 * y)));
  alignas(64) static double out[64 * engine::max_lanes];
  std::vector<double> times(record_times()), values(record_values());
  alignas(64) static double aligned[3][engine::max_lanes];
  std::copy(times.begin(), times.end(), aligned[0]);
  std::copy(values.begin(), values.end(), aligned[1]);
  std::copy(log_factorial.begin(), log_factorial.end(), aligned[2]);

  std::printf("| model | outputs | instructions | steps (lane / in all) | 8 lanes | 32 lanes | 64 lanes | 512 lanes "
              "|\n|---|---|---|---|---|---|---|---|\n");
  for (std::size_t m = 0; m < models().size(); ++m)
    for (int w = 0; w < 3; ++w)
      for (const auto& build : builds) {
        if ((argc > 1 && std::strcmp(argv[1], build.isa) != 0) || !engine::set_isa(build.isa)) continue;
        const ModelText& text = models()[m];
        CompiledModel model(text, static_cast<Wanted>(w));
        HandInput in;
        in.time = aligned[0];
        in.dv = aligned[1];
        in.log_factorial = aligned[2];
        in.theta = text.theta.data();
        in.effects = effect_values;
        const HandLoop loop = build.loops.loop[m][w];
        loop(in, out, engine::max_lanes);
        in.new_point = false;
        compare(text.name, model, std::vector<double>(out, out + model.outputs() * engine::max_lanes));
        const engine::ProgramSize size = engine::program_size(model.program());
        std::printf("| %s | %s | %s | %d / %d |", text.name, wanted_names[w], build.isa, size.lane,
                    size.lane + size.parameter + size.data + size.observation + size.point);
        for (const int lanes : {8, 32, 64, 512}) {
          const double ours = nanoseconds(lanes, [&] { model.run(lanes); });
          const double hand = nanoseconds(lanes, [&] { loop(in, out, lanes); });
          std::printf(" %.2f (%.2f) |", ours, ours / hand);
        }
        std::printf("\n");
        std::fflush(stdout);
      }
}
