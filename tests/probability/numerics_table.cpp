// Prints the table of worst errors per function and region as a page in Markdown: numerics_table > docs/numerics.md

#include "probability/accuracy.h"

#include <cstdio>
#include <map>

using namespace torvale::probability;

namespace {

struct Worst {
  double error = -1.0;
  double tolerance = 0.0;
  int rows = 0;
  std::string inputs;
};

void print(const char* title, const Measurements& all)
{
  std::map<std::pair<std::string, std::string>, Worst> worst;
  for (const Measurement& m : all) {
    Worst& w = worst[{m.function, m.region}];
    ++w.rows;
    if (m.error / m.tolerance > w.error / (w.tolerance > 0.0 ? w.tolerance : 1.0)) {
      w.error = m.error;
      w.tolerance = m.tolerance;
      w.inputs = m.inputs;
    }
  }
  std::printf("\n## %s\n\n| function | region | rows | worst error | allowed there | at |\n|---|---|---|---|---|---|\n", title);
  for (const auto& [key, w] : worst)
    std::printf("| %s | %s | %d | %.1e | %.1e | %s |\n", key.first.c_str(), key.second.c_str(), w.rows, w.error, w.tolerance,
                w.inputs.c_str());
}

} // namespace

int main()
{
  std::printf("# Accuracy of the probability functions\n");
  print("Elementary functions", measure_elementary());
  print("Normal distribution", measure_normal());
  print("Incomplete beta and gamma functions, F and t tails", measure_incomplete());
  print("Quantiles", measure_quantiles());
}
