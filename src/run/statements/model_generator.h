#pragma once
// The MODEL generator: turns a distribution into programming statements that assign the log likelihood `_ll`.

#include <string>
#include <vector>

namespace torvale::run {

// Without SINGVAR= a variance may be as small as the units of the response make it, and its derivatives still be
// numbers.
inline constexpr double smallest_variance = 1e-60;

// What MODEL says, and the option that its statements depend on.
struct ModelText {
  int code = 0;          // distribution: 0 normal, 1 t, 2 binary, 3 binomial, 4 Poisson, 5 general, 6 negative
                         // binomial, 7 gamma
  std::string dependent; // name of the dependent variable
  std::vector<std::string> arguments; // texts of the argument expressions
  double singvar = smallest_variance; // smallest accepted variance
};

// Arguments that a distribution takes.
int expected_arguments(int code);

// tvlmodl: the statements, one line each, in order. (tvl procedure, modl MODEL.) Each argument is bound once to a
// variable, so that compound expressions keep their meaning and are evaluated once; constants are written with all
// their digits.
std::vector<std::string> tvlmodl(const ModelText& model);

} // namespace torvale::run
