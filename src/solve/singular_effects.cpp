#include "solve/singular_effects.h"

#include "host/messages/names/fit.h"
#include "matrix/packed.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace torvale::solve {

using matrix::packed_index;
using model::NX;

namespace {

constexpr double edge = 1e-9; // of a pivot of the correlation matrix

double element(const std::vector<double>& g, int i, int j)
{
  return g[static_cast<std::size_t>(packed_index(std::max(i, j), std::min(i, j)))];
}

bool estimated(NX& n, const model::REFFECT& reff)
{
  for (const auto* argument : reff.distrsym.s)
    for (const auto* input : engine::cmpdeps(*n.gcmp, argument))
      if (input->parameter >= 0 && !n.parmstr[static_cast<std::size_t>(input->parameter)].held()) return true;
  return false;
}

// The least pivot of the Cholesky factor of the correlations of `effects`.
double least_pivot(const std::vector<double>& g, const std::vector<int>& effects)
{
  const std::size_t r = effects.size();
  std::vector<double> factor(r * r);
  double least = 1.0;
  for (std::size_t i = 0; i < r; ++i)
    for (std::size_t j = 0; j <= i; ++j) {
      const int a = effects[i], b = effects[j];
      double rest = element(g, a, b) / std::sqrt(element(g, a, a) * element(g, b, b));
      for (std::size_t k = 0; k < j; ++k) rest -= factor[i * r + k] * factor[j * r + k];
      if (i == j) {
        least = std::min(least, rest);
        factor[i * r + i] = std::sqrt(std::max(rest, edge));
      } else {
        factor[i * r + j] = rest / factor[j * r + j];
      }
    }
  return least;
}

} // namespace

void warn_singular_effects(NX& n, const model::REFFECT& reff, const std::vector<double>& g)
{
  std::vector<int> effects;
  for (int i = 0; i < reff.nr; ++i)
    if (element(g, i, i) > 0.0) effects.push_back(i);
  if (effects.size() < 2 || !(least_pivot(g, effects) <= edge) || !estimated(n, reff)) return;
  n.verdict.singular_effects = true;
  std::string names, pair;
  double correlation = 0.0;
  for (const int i : effects) {
    const std::string& name = reff.names[static_cast<std::size_t>(i)];
    names += (names.empty() ? "" : " ") + name;
    for (const int j : effects) {
      const double r = element(g, i, j) / std::sqrt(element(g, i, i) * element(g, j, j));
      if (j >= i || 1.0 - r * r > edge || !pair.empty()) continue;
      pair = reff.names[static_cast<std::size_t>(j)] + " and " + name;
      correlation = r > 0.0 ? 1.0 : -1.0;
    }
  }
  n.host->log().xpmlog(pair.empty()
                           ? message::effects_singular{.names = names}
                           : message::effects_singular{.names = names, .pair = pair, .correlation = correlation});
  n.raise(4);
}

} // namespace torvale::solve
