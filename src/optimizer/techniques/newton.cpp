#include "optimizer/techniques/newton.h"

#include "optimizer/active_set/active_set.h"
#include "optimizer/derivatives/objective_access.h"
#include "optimizer/techniques/technique.h"
#include "optimizer/techniques/trust_region.h"
#include "optimizer/updates/updates.h"

#include "matrix/cholesky.h"
#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

using matrix::packed_diagonal;
using matrix::packed_row;
using matrix::packed_size;

// A pivot below this share of its own diagonal element is no more than rounding. Its own, because parameters may differ
// by many powers of ten: measured by the largest diagonal, badly scaled problems would never see a bare Newton step.
constexpr double relative_pivot = 1.110223024625157e-14;

} // namespace

int NewtonModel::start(bool first)
{
  str->ridg = 0.0;
  return evaluate(first) == 0 ? 0 : first ? code_start_derivative : code_hessian;
}

int NewtonModel::evaluate(bool first)
{
  if (objective_hessian(str) != 0) return 1;
  refresh_scale(str, str->hess, first);
  project();
  return 0;
}

void NewtonModel::project()
{
  znlpgmx(str);
  // A copy, because the objective may write its own Hessian at every trial point.
  h = str->hpro;
  if (constrained(*str))
    znlpsym(*str, str->hess, h, str->wrk2);
  else
    std::copy_n(str->hess, packed_size(str->nvar), h);
  most = matrix::zvamx(h, packed_size(free_dimension(*str)));
}

// The factor of H + ridge S^2 into half. Returns 0 or 1, see step.
int NewtonModel::factor(double ridge, double& deficit)
{
  const long m = free_dimension(*str);
  double* const l = str->half;
  std::copy_n(h, packed_size(m), l);
  for (long i = 0; i < m; ++i) {
    const double scale = free_scale(*str, i);
    l[packed_diagonal(i)] += ridge * scale * scale;
  }
  for (long i = 0; i < m; ++i) {
    double* const row = l + packed_row(i);
    double s = row[i];
    const double limit = relative_pivot * std::abs(s);
    for (long j = 0; j < i; ++j) {
      const double* const other = l + packed_row(j);
      row[j] = (row[j] - matrix::zvdot11(row, other, j)) / other[j];
      s -= row[j] * row[j];
    }
    if (!(s > limit)) {
      deficit = std::isfinite(s) ? std::max(-s, 0.0) : 0.0;
      return 1;
    }
    row[i] = std::sqrt(s);
  }
  return 0;
}

double NewtonModel::full_reduction()
{
  const long m = free_dimension(*str);
  double deficit = 0.0;
  if (factor(0.0, deficit) != 0) return largest;
  std::copy_n(str->gpro, m, str->wrk2);
  matrix::zchol2(static_cast<int>(m), str->half, str->wrk2);
  return 0.5 * matrix::zvdot11(str->wrk2, str->wrk2, m);
}

int NewtonModel::step(double ridge, double& deficit)
{
  const long m = free_dimension(*str);
  double* const l = str->half;
  double* const d = str->wrk2;
  double* const w = str->wrk2 + str->nvar;
  if (factor(ridge, deficit) != 0) return 1;
  for (long i = 0; i < m; ++i) d[i] = -str->gpro[i];
  matrix::zchol2(static_cast<int>(m), l, d);
  matrix::zbaksub(static_cast<int>(m), l, d);
  multiply_symmetric(m, h, d, w);
  slope = matrix::zvdot11(str->gpro, d, m);
  curvature = matrix::zvdot11(d, w, m);
  znlpvex(*str, d, str->sdir);
  return std::isfinite(slope) ? 0 : 1;
}

double NewtonModel::raised_for_factor(double ridge, double deficit) const
{
  // No step may be longer than ten thousand times the size of the point.
  const double size = 1.0 + matrix::zvenorm(str->nvar, 1, str->x);
  return std::max({5.0 * ridge, ridge + 2.0 * deficit, 1e-12 * most, 1e-4 * str->gmax / size, tiny_threshold});
}

double NewtonModel::first_ridge() const
{
  const long m = free_dimension(*str);
  double* const radius = str->wrk2 + str->nvar;
  std::fill_n(radius, m, 0.0);
  double least_gradient = largest;
  double least_disc = 0.0;
  for (long i = 0; i < m; ++i) {
    least_gradient = std::min(least_gradient, std::abs(str->gpro[i]));
    for (long j = 0; j < i; ++j) {
      const double a = std::abs(h[packed_row(i) + j]);
      radius[i] += a;
      radius[j] += a;
    }
  }
  for (long i = 0; i < m; ++i) least_disc = std::min(least_disc, h[packed_diagonal(i)] - radius[i]);
  return std::max({least_gradient < largest ? least_gradient : 0.0, 1e-4 * most, -0.1 * least_disc, tiny_threshold});
}

} // namespace torvale::optimizer
