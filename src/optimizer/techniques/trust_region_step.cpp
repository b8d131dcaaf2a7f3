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
using matrix::zvdot11;

constexpr int most_rounds = 80;
constexpr double radius_tolerance = 0.1;     // |p| within this of the radius
constexpr double hard_case_tolerance = 0.19; // 1 - (1 - radius_tolerance)^2: the step is then as good

double norm(const double* a, long m)
{
  return matrix::zvenorm(m, 1, a);
}

void gerschgorin(long m, const double* h, double* radius, double& low, double& high, double& least_diagonal)
{
  std::fill_n(radius, m, 0.0);
  for (long i = 0; i < m; ++i) {
    const double* const row = h + packed_row(i);
    for (long j = 0; j < i; ++j) {
      radius[i] += std::abs(row[j]);
      radius[j] += std::abs(row[j]);
    }
  }
  low = least_diagonal = largest;
  high = -largest;
  for (long i = 0; i < m; ++i) {
    const double d = h[packed_diagonal(i)];
    low = std::min(low, d - radius[i]);
    high = std::max(high, d + radius[i]);
    least_diagonal = std::min(least_diagonal, d);
  }
}

// Cholesky of H + alpha I. Returns -1, or the row whose pivot failed, with the pivot.
long factor_shifted(long m, const double* h, double alpha, double* l, double& pivot)
{
  std::copy_n(h, packed_size(m), l);
  for (long k = 0; k < m; ++k) {
    double* const row = l + packed_row(k);
    row[k] += alpha;
    double s = row[k];
    for (long i = 0; i < k; ++i) {
      const double* const other = l + packed_row(i);
      row[i] = (row[i] - zvdot11(row, other, i)) / other[i];
      s -= row[i] * row[i];
    }
    pivot = s;
    if (!(s > 0.0) || !std::isfinite(s)) return k;
    row[k] = std::sqrt(s);
  }
  return -1;
}

// How far alpha must at least rise when pivot k of H + alpha I failed: with v_k = 1 and the rest from L'v = -row k,
// v'(H + alpha I)v is the pivot, so alpha must exceed its present value by -pivot/|v|^2.
double least_rise(long k, const double* l, double pivot, double* v)
{
  const double* const row = l + packed_row(k);
  for (long i = 0; i < k; ++i) v[i] = -row[i];
  matrix::zbaksub(static_cast<int>(k), l, v);
  return std::max(-pivot, 0.0) / (1.0 + zvdot11(v, v, k));
}

// A unit vector z with |L'z| near the smallest singular value of L: right sides of +-1 chosen for growth in L w = e,
// then L'z = w. The usual condition estimator (Cline, Moler, Stewart and Wilkinson, 1979). Returns |L'z|.
double near_null_vector(long m, const double* l, double* z)
{
  for (long i = 0; i < m; ++i) {
    const double* const row = l + packed_row(i);
    const double s = zvdot11(row, z, i);
    z[i] = (s > 0.0 ? -1.0 - s : 1.0 - s) / row[i];
  }
  const double w = norm(z, m);
  matrix::zbaksub(static_cast<int>(m), l, z);
  const double length = norm(z, m);
  if (!(length > 0.0) || !std::isfinite(length)) return largest;
  matrix::zvscl11(z, z, m, 1.0 / length);
  return w / length;
}

double shifted_form(long m, const double* l, const double* p, double* work)
{
  std::fill_n(work, m, 0.0);
  for (long i = 0; i < m; ++i) matrix::zvxay11(work, l + packed_row(i), i + 1, p[i]);
  return zvdot11(work, work, m);
}

} // namespace

double newton_reduction(const DGWSTR& state, long m, const double* h, const double* g, double* factor, double* work)
{
  if (state.dst0 >= 0.0) return state.newton_gain;
  double pivot = 0.0;
  if (factor_shifted(m, h, 0.0, factor, pivot) >= 0) return largest;
  std::copy_n(g, m, work);
  matrix::zchol2(static_cast<int>(m), factor, work);
  return 0.5 * zvdot11(work, work, m);
}

int gqtstp(DGWSTR* state, long m, const double* h, const double* g, double* p, double* factor, double* work)
{
  MINSTR* const str = state->minstr;
  const double radius = str->delt;
  double* const z = work;
  double* const v = work + m;
  double least_diagonal = 0.0;
  const double gnorm = norm(g, m);
  state->dgnm = gnorm;
  gerschgorin(m, h, v, state->emin, state->emax, least_diagonal);
  // lk < alpha < uk always; phi(alpha) = |p(alpha)| - radius falls.
  double lk = std::max({0.0, -least_diagonal, gnorm / radius - state->emax});
  double uk = std::max(0.0, gnorm / radius - state->emin);
  if (uk <= lk) uk = 1.001 * lk + 0.001 * std::max(1.0, std::abs(state->emin));
  // A smaller radius needs a larger parameter, so what was enough before is a lower bound now.
  double alpha = state->kagqt < 0 ? lk : std::max(lk, str->lamb);
  if (state->kagqt < 0) state->dst0 = -1.0;
  state->kagqt = 0;
  bool have_step = false;
  double step_alpha = 0.0;

  for (; state->kagqt < most_rounds; ++state->kagqt) {
    if (alpha > 0.0 && !(alpha > lk && alpha < uk)) alpha = std::max(0.001 * uk, std::sqrt(lk * uk));
    double pivot = 0.0;
    const long failed = factor_shifted(m, h, alpha, factor, pivot);
    if (failed >= 0) {
      if (!std::isfinite(pivot)) return 1;
      lk = std::max(lk, alpha + least_rise(failed, factor, pivot, v));
      if (uk <= lk) uk = lk * (1.0 + 1e-7) + smallest_normal;
      alpha = std::max(0.001 * uk, std::sqrt(lk * uk));
      if (alpha <= lk) alpha = 0.5 * (lk + uk);
      continue;
    }
    for (long i = 0; i < m; ++i) p[i] = -g[i];
    matrix::zchol2(static_cast<int>(m), factor, p);
    matrix::zbaksub(static_cast<int>(m), factor, p);
    have_step = true;
    step_alpha = alpha;
    const double length = norm(p, m);
    if (alpha == 0.0) {
      state->dst0 = length;
      state->newton_gain = -0.5 * zvdot11(g, p, m);
    }
    if (alpha == 0.0 && length <= radius * (1.0 + radius_tolerance)) break;
    const double phi = length - radius;
    if (std::abs(phi) <= radius_tolerance * radius) break;
    if (phi < 0.0) {
      uk = std::min(uk, alpha);
      // The hard case: p is too short however small alpha; a direction of (almost) least curvature fills the radius.
      const double least = near_null_vector(m, factor, z);
      const double pz = zvdot11(p, z, m);
      const double room = radius * radius - length * length;
      const double root = std::sqrt(pz * pz + room);
      const double tau = room / (pz + (pz >= 0.0 ? root : -root));
      const double form = shifted_form(m, factor, p, v);
      if (tau * tau * least * least <= hard_case_tolerance * (form + alpha * radius * radius)) {
        matrix::zvxay11(p, z, m, tau);
        break;
      }
      lk = std::max(lk, alpha - least * least);
    } else {
      lk = std::max(lk, alpha);
    }
    if (uk - lk <= 1e-14 * uk) break;
    // Newton's step on 1/|p| - 1/radius.
    std::copy_n(p, m, v);
    matrix::zchol2(static_cast<int>(m), factor, v);
    const double w = norm(v, m);
    alpha = w > 0.0 ? alpha + (phi / radius) * (length / w) * (length / w) : 0.5 * (lk + uk);
    if (!(alpha > 0.0)) alpha = std::max(0.001 * uk, std::sqrt(lk * uk));
  }
  if (!have_step) return 1;
  str->lamb = step_alpha;
  state->dstn = norm(p, m);
  state->gtst = zvdot11(g, p, m);
  multiply_symmetric(m, h, p, v);
  str->pred = -(state->gtst + 0.5 * zvdot11(p, v, m));
  state->nred = state->dst0 >= 0.0 ? std::max(str->pred, 0.0) : 0.0;
  return 0;
}

} // namespace torvale::optimizer
