#include "optimizer/updates/secant_matrix.h"

#include "optimizer/active_set/active_set.h"
#include "optimizer/derivatives/objective_access.h"
#include "optimizer/derivatives/units.h"
#include "optimizer/updates/updates.h"

#include "matrix/cholesky.h"
#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace torvale::optimizer {
namespace {

using matrix::packed_diagonal;
using matrix::packed_row;
using matrix::packed_size;

void fill_diagonal(double* a, long order, double value)
{
  std::fill_n(a, packed_size(order), 0.0);
  for (long i = 0; i < order; ++i) a[packed_diagonal(i)] = value;
}

} // namespace

SecantMatrix::SecantMatrix(MINSTR* record, bool dual_form)
    : str(record), n(record->nvar), whole(constrained(*record)), dual(dual_form),
      matrix(whole ? record->hpro : record->hess), s(record->wrk2), y(record->wrk2 + n), w1(record->wrk2 + 2 * n),
      w2(record->wrk2 + 3 * n), w3(record->wrk2 + 5 * n)
{
}

int SecantMatrix::start()
{
  if (str->load != 0) {
    fresh = true;
    skipped = 0;
    return start_from_hessian();
  }
  start_anew();
  return 0;
}

void SecantMatrix::start_anew()
{
  fresh = true;
  skipped = 0;
  const double r = is_missing(str->dhes) || !(str->dhes > 0.0) ? 1.0 : str->dhes;
  if (whole) fill_diagonal(str->hess, n, r);
  fill_diagonal(matrix, free_dimension(*str), !dual ? 1.0 / r : whole ? std::sqrt(r) : r);
}

bool SecantMatrix::project()
{
  if (!whole) return true;
  const long m = free_dimension(*str);
  znlpsym(*str, str->hess, matrix, str->awrk);
  return factor(m);
}

void SecantMatrix::direction()
{
  const long m = free_dimension(*str);
  double* const d = whole ? s : str->sdir;
  const double* const g = whole ? str->gpro : str->grad;
  if (dual) {
    for (long i = 0; i < m; ++i) d[i] = -g[i];
    if (whole) {
      matrix::zchol2(static_cast<int>(m), matrix, d);
      matrix::zbaksub(static_cast<int>(m), matrix, d);
    } else {
      solve_ldl(m, matrix, d);
    }
  } else {
    multiply_symmetric(m, matrix, g, d);
    for (long i = 0; i < m; ++i) d[i] = -d[i];
  }
  if (whole) znlpvex(*str, d, str->sdir);
}

double SecantMatrix::quadratic_form(const double* v)
{
  multiply(v, w1);
  return matrix::zvdot11(v, w1, free_dimension(*str));
}

// r := B v on the free space, from the factor.
void SecantMatrix::multiply(const double* v, double* r)
{
  const long m = free_dimension(*str);
  if (!whole) return multiply_ldl(m, matrix, v, r, w2);
  std::fill_n(w2, m, 0.0);
  for (long i = 0; i < m; ++i) matrix::zvxay11(w2, matrix + packed_row(i), i + 1, v[i]); // L'v
  for (long i = 0; i < m; ++i) r[i] = matrix::zvdot11(matrix + packed_row(i), w2, i + 1);
}

double SecantMatrix::diagonal(long i) const
{
  if (whole) return str->hess[packed_diagonal(i)];
  const double* const row = matrix + packed_row(i);
  double sum = row[i];
  for (long j = 0; j < i; ++j) sum += row[j] * row[j] * matrix[packed_diagonal(j)];
  return sum;
}

// How far B is from telling y = B s, squared, for the step from xold to x.
double SecantMatrix::misses(const double* b, bool factored)
{
  for (long i = 0; i < n; ++i) s[i] = str->x[i] - str->xold[i];
  if (factored)
    multiply_ldl(n, b, s, w1, w2);
  else
    multiply_symmetric(n, b, s, w1);
  double sum = 0.0;
  for (long i = 0; i < n; ++i) {
    const double miss = w1[i] - (str->grad[i] - str->gold[i]);
    sum += miss * miss;
  }
  return sum;
}

void SecantMatrix::follow_metric()
{
  constexpr double clearly = 0.5;
  if (!dual || str->metric_follows == 0 || str->load == 0) return;
  kept.assign(str->hess, str->hess + packed_size(n));
  if (whole) kept_part.assign(str->hpro, str->hpro + packed_size(n));
  const double missed = misses(kept.data(), !whole);
  if (!metric_of_caller()) return;
  const bool better = misses(str->hess, false) < clearly * missed && (whole ? project() : factor(n));
  if (better) return;
  std::copy(kept.begin(), kept.end(), str->hess);
  if (whole) std::copy(kept_part.begin(), kept_part.end(), str->hpro);
}

int SecantMatrix::update()
{
  for (long i = 0; i < n; ++i) {
    str->xold[i] = str->x[i] - str->xold[i];
    str->gold[i] = str->grad[i] - str->gold[i];
  }
  const bool scale =
      (n > 10 || str->start_scale != 0) && str->load == 0 && (str->itre == 1 || (str->itre == 2 && str->alfa > 1.0));
  fresh = false;
  if (!whole) return update_free(scale, str->xold, str->gold);
  if (str->chac != 0) {
    str->scal = 1.0;
    const int rc = update_whole();
    return project() ? rc : -1;
  }
  znlpvre(*str, str->xold, s);
  znlpvre(*str, str->gold, y);
  const int rc = update_free(scale, s, y);
  if (rc == 0) update_whole();
  return rc;
}

// The update of the matrix of the free space. One that is skipped for lack of curvature leaves the matrix as it is;
// after a second one in succession the same step would come back for ever, so that one is damped.
int SecantMatrix::update_free(bool scale, double* step, double* change)
{
  const int job = !dual ? 1 : whole ? 3 : 2;
  if (skipped > 0) damp(step, change);
  const int rc = str->updat(str, job, scale, step, change, matrix, w1, w2, w3);
  skipped = rc > 0 ? skipped + 1 : 0;
  return rc;
}

// Powell's damping: the pair is moved towards what the matrix expects until its curvature is a tenth of that: y towards
// B s, or s towards H y where the inverse is kept.
void SecantMatrix::damp(double* step, double* change)
{
  const long m = free_dimension(*str);
  double* const moved = dual ? change : step;
  const double* const fixed = dual ? step : change;
  if (dual)
    multiply(fixed, w1);
  else
    multiply_symmetric(m, matrix, fixed, w1);
  const double expected = matrix::zvdot11(fixed, w1, m), found = matrix::zvdot11(fixed, moved, m);
  if (!(expected > tiny_threshold) || !(found < 0.1 * expected)) return;
  const double theta = 0.9 * expected / (expected - found);
  for (long i = 0; i < m; ++i) moved[i] = theta * moved[i] + (1.0 - theta) * w1[i];
}

// Turns the packed matrix of the free space into the form in use.
bool SecantMatrix::factor(long m)
{
  double largest_diagonal = 0.0;
  for (long i = 0; i < m; ++i) largest_diagonal = std::max(largest_diagonal, std::abs(matrix[packed_diagonal(i)]));
  const double tolerance = str->sing * str->sing * largest_diagonal; // pivots are squares
  if (dual && !whole) return factor_ldl(m, matrix, tolerance);
  for (long i = 0; i < m; ++i)
    if (matrix::zchol(static_cast<int>(i), matrix, tolerance) != 0) return false;
  if (!dual) invert_from_cholesky(m);
  return true;
}

// H = L'^-1 L^-1.
void SecantMatrix::invert_from_cholesky(long m)
{
  matrix::zinvlo(matrix, static_cast<int>(m), w1, 0.0);
  // Row i of L^-1 is final; H(i, j) = sum over k >= i of Linv(k, i) Linv(k, j), from the first row on.
  for (long i = 0; i < m; ++i) {
    for (long j = 0; j <= i; ++j) {
      double sum = 0.0;
      for (long k = i; k < m; ++k) sum += matrix[packed_row(k) + i] * matrix[packed_row(k) + j];
      matrix[packed_row(i) + j] = sum;
    }
  }
}

// The metric that the caller may have, in the units of the run.
bool SecantMatrix::metric_of_caller()
{
  if (str->usmet == nullptr) return false;
  {
    const UserUnits view(str);
    if (str->usmet(str) != 0) return false;
  }
  if (!str->inner_units) return true;
  for (long i = 0; i < n; ++i)
    for (long j = 0; j <= i; ++j) str->hess[packed_row(i) + j] *= str->unit[i] * str->unit[j];
  return true;
}

// The Hessian with the smallest ridge of 1e-4 times a power of 4 that makes it definite.
int SecantMatrix::start_from_hessian()
{
  if (!metric_of_caller() && objective_hessian(str) != 0) return code_hessian;
  for (str->ridg = 0.0; str->ridg <= 1073741824.0; str->ridg = std::max(1e-4, 4.0 * str->ridg)) {
    double* const trial = str->hpro;
    std::copy_n(str->hess, packed_size(n), trial);
    for (long i = 0; i < n; ++i) trial[packed_diagonal(i)] += str->ridg;
    double* const own = matrix;
    matrix = trial; // judged on the whole space, so that a constraint may be dropped later
    const bool definite = factor(n);
    matrix = own;
    if (!definite) continue;
    if (!whole) {
      std::copy_n(trial, packed_size(n), matrix);
      return 0;
    }
    for (long i = 0; i < n; ++i) str->hess[packed_diagonal(i)] += str->ridg;
    return project() ? 0 : code_no_progress;
  }
  return code_no_progress;
}

// The same update on B itself, written out: B + y y'/sy - w w'/q (BFGS), with v v' more for DFP; w = B s, q = s'w.
// BFGS of a factor damps y (see uvbfgs), and so does this.
int SecantMatrix::update_whole()
{
  double* const b = str->hess;
  const double* const step = str->xold;
  double* const dg = str->gold;
  if (str->scal != 1.0) matrix::zvscl11(b, b, packed_size(n), str->scal);
  multiply_symmetric(n, b, step, w1);
  const double q = matrix::zvdot11(step, w1, n);
  double sy = matrix::zvdot11(step, dg, n);
  const bool bfgs = str->updat == znlpbfg;
  if (!(q > tiny_threshold) || (!(sy > tiny_threshold) && !(bfgs && dual))) return 3;
  if (bfgs && dual && sy < 0.1 * q) {
    const double theta = 0.9 * q / (q - sy);
    for (long i = 0; i < n; ++i) dg[i] = theta * dg[i] + (1.0 - theta) * w1[i];
    sy = 0.1 * q;
  }
  const double root = std::sqrt(q);
  for (long i = 0; i < n; ++i) w2[i] = bfgs ? 0.0 : root * (dg[i] / sy - w1[i] / q);
  for (long i = 0; i < n; ++i) {
    double* const row = b + packed_row(i);
    for (long j = 0; j <= i; ++j) row[j] += dg[i] * dg[j] / sy - w1[i] * w1[j] / q + w2[i] * w2[j];
  }
  return 0;
}

} // namespace torvale::optimizer
