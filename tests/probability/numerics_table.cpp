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
  std::printf("\n## %s\n\n| function | region | rows | worst error | allowed there | at |\n|---|---|---|---|---|---|\n",
              title);
  for (const auto& [key, w] : worst)
    std::printf("| %s | %s | %d | %.1e | %.1e | %s |\n", key.first.c_str(), key.second.c_str(), w.rows, w.error,
                w.tolerance, w.inputs.c_str());
}

} // namespace

constexpr const char* preface = R"(# Accuracy of the probability functions

Made by one command, which measures every function against the tables of 20 digits in `tests/data/special`:

    ninja -C build/release numerics_table && build/release/tests/probability/numerics_table > docs/numerics.md

The matrix kernels have a page of their own, `numerics/matrix.md`.

Errors are relative unless the region says otherwise. "Allowed there" is what the test `Accuracy` allows in the row that
comes nearest to its limit, which is the row shown; for a quantile it is 1e-14 times `cond`, the relative change of the quantile
for a relative change of the probability.

Rules that limit accuracy, and are kept:

- `zferfc`, `zprbnrm` give 0 where the tail is below the normal numbers (x below about -37.5). `zlognrm` goes on.
- `zprobit` has fixed values at 0 and 1 (-37.64 and 7.94), which are not limits: its neighbours lie beyond them.
- `zibeta` refuses shapes above 2^53 (code 1). `beta_tails`, `zprbf` and `zqt` have no such limit.
- `zrannor` never exceeds 6.56, the most that one uniform of 31 bits can give.

How shapes of 1e8 keep their digits: the kernels x^a (1-x)^b/B(a,b) and z^a exp(-z)/Gamma(a) are written by the distance from
the mean with log(1 + u) - u, so that the large exponents cancel in the formula and not in the arithmetic; from shapes of 100
up the tail is the kernel times a Gauss-Legendre quadrature whose integrand starts at 1. Probabilities are exp of an accurate
logarithm t, which costs |t| units of 1e-16: 1e-13 at 1e-300.
)";

int main()
{
  std::printf("%s", preface);
  print("Elementary functions", measure_elementary());
  print("Derivatives and differences of log gamma", measure_gamma_derivatives());
  print("Normal distribution", measure_normal());
  print("Incomplete beta and gamma functions, F and t tails", measure_incomplete());
  print("Logarithms of tails, shapes from 1e-9 to 4e8", measure_log_tails());
  print("Quantiles", measure_quantiles());
}
