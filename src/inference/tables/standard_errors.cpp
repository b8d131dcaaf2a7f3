#include "inference/tables/standard_errors.h"

#include "host/messages/names/fit.h"
#include "host/values/missing.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::inference {

using host::missing;
using model::NX;

namespace {

double diagonal(const std::vector<double>& packed, int i)
{
  return packed[static_cast<std::size_t>(i) * static_cast<std::size_t>(i + 3) / 2];
}

// The part of g along a unit direction of the null space, beside the length of g, that rounding can leave.
constexpr double along_by_rounding = 1e-7;

} // namespace

bool moves_along_flat(const NX& n, const double* g)
{
  const auto np = static_cast<std::size_t>(n.nparm);
  if (np == 0) return false;
  const std::vector<double>& basis = n.verdict.null_basis;
  for (std::size_t first = 0; first + np <= basis.size(); first += np) {
    double along = 0.0, size = 0.0;
    for (std::size_t j = 0; j < np; ++j) {
      const double term = g[j] * basis[first + j];
      along += term;
      size += std::abs(term);
    }
    if (std::abs(along) > along_by_rounding * size) return true;
  }
  return false;
}

double standard_error(const NX& n, int i)
{
  if (n.covmat.empty()) return missing;
  const double s = n.str->ster[i];
  if (!(s > 0.0) || !std::isfinite(s)) return missing;
  const double curvature = n.hessmat.empty() ? 0.0 : diagonal(n.hessmat, i);
  return curvature > 0.0 && s * s * curvature < n.singvar ? missing : s;
}

double standard_error(const NX& n, const double* g, double v)
{
  if (!(v > 0.0) || !std::isfinite(v) || moves_along_flat(n, g)) return missing;
  double most = 0.0;
  for (int j = 0; j < n.nparm; ++j) most += std::abs(g[j]) * std::sqrt(std::max(diagonal(n.covmat, j), 0.0));
  // On the edge of the effects' covariance matrix the covariance of the estimates has a null direction that is known
  // to the accuracy of the Hessian only: a correlation of 1 is a number without an error, not one with a tiny one.
  const double rounding = n.verdict.singular_effects ? 1e-9 : 64 * std::numeric_limits<double>::epsilon();
  return v <= rounding * most * most ? missing : std::sqrt(v);
}

void warn_without_influence(NX& n)
{
  if (n.hessmat.empty() || n.znlprc <= 0) return;
  const auto& identified = n.verdict.identified; // what the judgement of the fit has named needs no second message
  for (int i = 0; i < n.nparm; ++i) {
    if (static_cast<std::size_t>(i) < identified.size() && identified[static_cast<std::size_t>(i)] == 0) continue;
    bool responds = n.parmstr[static_cast<std::size_t>(i)].held() || n.str->grad[i] != 0.0;
    for (int j = 0; j < n.nparm && !responds; ++j) {
      const auto r = static_cast<std::size_t>(std::max(i, j)), c = static_cast<std::size_t>(std::min(i, j));
      responds = n.hessmat[r * (r + 1) / 2 + c] != 0.0;
    }
    if (responds) continue;
    n.host->log().xpmlog(message::parameter_without_influence{.name = n.parmstr[static_cast<std::size_t>(i)].parmname});
    n.raise(4);
  }
}

} // namespace torvale::inference
