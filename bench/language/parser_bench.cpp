// Parsing: programs of 5,000 to 80,000 lines of statements, from text in memory to the typed tree. Reading the file is
// left out. The figure to watch is lines per second, which must not fall with length.
#include "language/parser.h"

#include <benchmark/benchmark.h>
#include <string>

namespace {

std::string program(int lines)
{
  std::string text = "torvale data=x;\nparms a=1 b=2;\n";
  for (int i = 0; i < lines; ++i) {
    const std::string n = std::to_string(i % 500);
    switch (i % 3) {
    case 0:
      text += "x" + n + " = a + b*exp(-k*t)/(1 + x" + n + "**2);\n";
      break;
    case 1:
      text += "if x" + n + " > 1 and y = 2 then z" + n + " = log(x); else z = 3;\n";
      break;
    default:
      text += "do i = 1 to 3; s + v" + n + "*2; end;\n";
      break;
    }
  }
  return text + "run;\n";
}

void parse_lines(benchmark::State& state)
{
  using namespace torvale;
  const std::string text = program(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    syntax::SourceMap sources;
    syntax::Arena arena;
    language::ParseRequest request;
    request.sources = &sources;
    request.arena = &arena;
    request.program = sources.add("bench.tvl", text);
    language::Parser parser(request);
    language::ParseResult step = parser.parse_step();
    benchmark::DoNotOptimize(step.proc.program.statements.data());
  }
  state.counters["lines"] = benchmark::Counter(
      static_cast<double>(state.range(0)) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(parse_lines)->Arg(5000)->Arg(20000)->Arg(80000)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
