#include "optimizer/techniques/trust_region.h"

#include "optimizer/active_set/active_set.h"
#include "optimizer/derivatives/objective_access.h"

#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace torvale::optimizer {

void begin_decision(DGWSTR* state)
{
  state->irc = 4;
  state->rest = 0;
  state->rinc = 0;
  state->radf = 1.0;
}

void assess(DGWSTR* state)
{
  MINSTR* const str = state->minstr;
  const double decrease = str->cold - str->crit;
  str->dfes = decrease;
  str->rhor = str->pred > 0.0 ? decrease / str->pred : 0.0;
  const double slope = state->gtst; // negative

  if (state->rinc > 0 && !(str->crit < state->clgd)) {
    // The larger radius did not pay: back to the saved step, and no further trial.
    state->rest = 3;
    state->irc = 4;
    state->radf = 1.0;
    return;
  }
  if (!(decrease > 0.0001 * str->pred)) {
    // A poor step. The length is cut by the quadratic through the slope and the values, at least to a tenth.
    state->irc = 1;
    --state->rinc;
    state->radf = decrease < 0.0 ? std::max(0.1, 0.5 * slope / (decrease + slope)) : state->decf;
    if (state->radf > 0.5) state->radf = 0.5;
    return;
  }
  state->irc = 4;
  if (decrease <= 0.1 * str->pred) {
    state->radf = 0.5;
    return;
  }
  if (decrease < -0.75 * slope || state->rinc < 0) {
    state->irc = 3;
    state->radf = 1.0;
    return;
  }
  // Nearly the linear prediction: the model is too cautious.
  state->radf = decrease < -0.875 * slope ? std::max(state->incf, 0.5 * slope / (slope + decrease)) : 4.0;
  const bool newton_step = str->lamb == 0.0;
  const bool newton_near = state->dst0 >= 0.0 && (state->dst0 < 2.0 * state->dstn || state->nred < 1.2 * decrease);
  if (newton_step || newton_near) return;
  state->irc = 5;
  ++state->rinc;
  state->rest = 2;
  state->nfgc = str->nfct;
  state->clgd = str->crit;
  state->plgd = str->pred;
  state->dsts = state->dstn;
  state->gtsl = slope;
}

double relative_step(const MINSTR& str)
{
  double most = 0.0;
  for (long i = 0; i < str.nvar; ++i) {
    const double size = std::max({std::abs(str.x[i]), std::abs(str.xold[i]), tiny_threshold});
    most = std::max(most, std::abs(str.x[i] - str.xold[i]) / size);
  }
  return most;
}

void refresh_scale(MINSTR* str, const double* hess, bool first)
{
  if (str->hesc == 0) return;
  for (long i = 0; i < str->nvar; ++i) {
    const double root = std::sqrt(std::abs(hess[matrix::packed_diagonal(i)]));
    double& scale = str->dsca[i];
    if (first) scale = 0.0;
    // 1: never smaller than before; 2: at most 0.6 times smaller; 3: as the diagonal says.
    const double memory = str->hesc == 1 ? scale : str->hesc == 2 ? 0.6 * scale : 0.0;
    scale = std::max(root, memory);
    if (!(scale > 1e-8)) scale = 1.0;
  }
}

int try_trust_step(MINSTR* str, long m, const double* p, double* scratch)
{
  for (long j = 0; j < m; ++j) scratch[j] = p[j] / free_scale(*str, j);
  znlpvex(*str, scratch, str->sdir);
  long blocking = -1;
  str->stub = constrained(*str) ? std::min(1.0, znlpstl(*str, str->xold, str->sdir, &blocking)) : 1.0;
  move_along(str, str->stub, str->sdir);
  if (std::memcmp(str->x, str->xold, sizeof(double) * static_cast<std::size_t>(str->nvar)) == 0) return 2;
  return objective_value(str) != 0 ? 1 : 0;
}

} // namespace torvale::optimizer
