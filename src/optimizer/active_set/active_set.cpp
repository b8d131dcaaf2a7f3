#include "optimizer/active_set/active_set.h"

#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

using matrix::packed_row;
using matrix::zvdot11;

// A constraint counts as touched within this relative distance. Far below LCEPS: a step that is blocked ends on the
// constraint but for rounding, and a parameter that only comes near its bound must stay free to move.
constexpr double contact_tolerance = 1e-12;

// A direction whose slope against a normal is below this, relative to both, runs along the constraint, not into it.
constexpr double crossing_tolerance = 1e-13;

const double* row_of(const MINSTR& str, long c)
{
  return str.alcn + (c - str.nvar) * str.nvar;
}
double right_side(const MINSTR& str, long c)
{
  return str.blcn[c - str.nvar];
}
bool is_equality_row(const MINSTR& str, long c)
{
  return c >= str.nvar && c - str.nvar < str.neqc;
}

bool fixed_by_bounds(const MINSTR& str, long i, double tolerance)
{
  return !(str.ub[i] - str.lb[i] > (std::abs(str.lb[i]) + 1.0) * tolerance);
}

double row_scale(const MINSTR& str, long c, const double* x)
{
  const double* const a = row_of(str, c);
  double scale = std::abs(right_side(str, c)) + 1.0;
  for (long i = 0; i < str.nvar; ++i) scale = std::max(scale, std::abs(a[i] * x[i]));
  return scale;
}

void note_change(MINSTR* str, long c, long sign)
{
  str->chac += sign;
  str->idac = str->idac == 0 ? sign * (c + 1) : 2147483647;
}

} // namespace

double feasibility_tolerance(const MINSTR& str, int ipre)
{
  return str.ceps * std::pow(10.0, ipre);
}

double constraint_violation(const MINSTR& str, const double* x, long c)
{
  if (c < str.nvar) return std::max({str.lb[c] - x[c], x[c] - str.ub[c], 0.0});
  const double residual = zvdot11(row_of(str, c), x, str.nvar) - right_side(str, c);
  return is_equality_row(str, c) ? std::abs(residual) : std::max(-residual, 0.0);
}

int znlpfch(MINSTR* str, int rebuild, int ipre)
{
  if (rebuild != 0) clear_factor(str);
  if (!constrained(*str)) return 0;
  const long n = str->nvar;
  const double t = feasibility_tolerance(*str, ipre);
  int violated = 0;
  if (rebuild != 0) str->nbec = 0;
  // Equalities come first in the factor, so that a row that coincides with one is the dependent one.
  for (long r = 0; r < str->neqc; ++r) {
    violated += constraint_violation(*str, str->x, n + r) > (std::abs(str->blcn[r]) + 1.0) * t;
    if (rebuild != 0) hold(str, n + r, 0);
  }
  for (long i = 0; str->bounds != 0 && i < n; ++i) {
    const double low = str->lb[i], high = str->ub[i], x = str->x[i];
    const bool has_low = low > -largest, has_high = high < largest;
    const double low_band = (std::abs(low) + 1.0) * t, high_band = (std::abs(high) + 1.0) * t;
    if (has_low && low - x > low_band)
      ++violated;
    else if (has_high && x - high > high_band)
      ++violated;
    if (rebuild == 0) continue;
    if (has_low && has_high && fixed_by_bounds(*str, i, t)) {
      ++str->nbec;
      // A fixed parameter whose unit vector depends on the equalities cannot move either.
      if (hold(str, i, 2) != 0) str->iabc[i] = 0;
    } else if (has_low && x - low <= (std::abs(low) + 1.0) * contact_tolerance) {
      hold(str, i, 1);
    } else if (has_high && high - x <= (std::abs(high) + 1.0) * contact_tolerance) {
      hold(str, i, -1);
    }
  }
  for (long r = str->neqc; r < str->ncon; ++r) {
    const double violation = zvdot11(row_of(*str, n + r), str->x, n) - str->blcn[r];
    violated += violation < -(std::abs(str->blcn[r]) + 1.0) * t;
    if (rebuild != 0 && violation <= row_scale(*str, n + r, str->x) * contact_tolerance) hold(str, n + r, 0);
  }
  return violated;
}

void znlpvre(const MINSTR& str, const double* v, double* r)
{
  const long m = free_dimension(str);
  if (str.opro == 0) {
    for (long j = 0; j < m; ++j) r[j] = v[str.ifxr[j]];
    return;
  }
  const long n = str.nvar;
  for (long j = 0; j < m; ++j) r[j] = zvdot11(str.qlcn + (n - m + j) * n, v, n);
}

void znlpvex(const MINSTR& str, const double* r, double* v)
{
  const long n = str.nvar;
  const long m = free_dimension(str);
  std::fill_n(v, n, 0.0);
  if (str.opro == 0) {
    for (long j = 0; j < m; ++j) v[str.ifxr[j]] = r[j];
    return;
  }
  for (long j = 0; j < m; ++j) matrix::zvxay11(v, str.qlcn + (n - m + j) * n, n, r[j]);
  // The basis is orthonormal to rounding only; a held parameter must not move at all.
  for (long i = 0; i < n; ++i)
    if (str.iabc[i] != 0) v[i] = 0.0;
}

void znlpsym(const MINSTR& str, const double* b, double* projected, double* work)
{
  const long n = str.nvar;
  const long m = free_dimension(str);
  if (str.opro == 0) {
    for (long i = 0; i < m; ++i)
      for (long j = 0; j <= i; ++j) projected[packed_row(i) + j] = b[matrix::packed_index(str.ifxr[i], str.ifxr[j])];
    return;
  }
  for (long i = 0; i < m; ++i) {
    const double* const zi = str.qlcn + (n - m + i) * n;
    for (long k = 0; k < n; ++k) work[k] = matrix::zvdots1(b + packed_row(k), k, zi, n);
    for (long j = 0; j <= i; ++j) projected[packed_row(i) + j] = zvdot11(str.qlcn + (n - m + j) * n, work, n);
  }
}

void znlpgmx(MINSTR* str)
{
  znlpvre(*str, str->grad, str->gpro);
  str->gmax = matrix::zvamx(str->gpro, free_dimension(*str));
}

double znlpgs(const MINSTR& str, const double* g, const double* d)
{
  return zvdot11(g, d, str.nvar);
}

void znlpfta(MINSTR* str)
{
  znlpgmx(str);
  znlpglm(str);
}

double znlpstl(const MINSTR& str, const double* x, const double* d, long* blocking)
{
  double step = largest;
  *blocking = -1;
  const auto offer = [&](long c, double room, double speed) {
    const double s = std::max(room, 0.0) / speed; // speed > 0: how fast the constraint is approached
    if (s < step) {
      step = s;
      *blocking = c;
    }
  };
  for (long i = 0; str.bounds != 0 && i < str.nvar; ++i) {
    if (str.iabc[i] != 0 || d[i] == 0.0) continue;
    if (d[i] < 0.0 && str.lb[i] > -largest) offer(i, x[i] - str.lb[i], -d[i]);
    if (d[i] > 0.0 && str.ub[i] < largest) offer(i, str.ub[i] - x[i], d[i]);
  }
  const double norm = str.ncon > str.neqc ? matrix::zvenorm(str.nvar, 1, d) : 0.0;
  for (long c = str.nvar + str.neqc; c < str.nvar + str.ncon; ++c) {
    if (held(str, c)) continue;
    const double* const a = row_of(str, c);
    const double slope = zvdot11(a, d, str.nvar);
    if (slope >= -crossing_tolerance * norm * matrix::zvenorm(str.nvar, 1, a)) continue;
    offer(c, zvdot11(a, x, str.nvar) - right_side(str, c), -slope);
  }
  return step;
}

void move_along(MINSTR* str, double a, const double* d)
{
  const long n = str->nvar;
  if (str->bounds == 0) {
    for (long i = 0; i < n; ++i) str->x[i] = str->xold[i] + a * d[i];
    return;
  }
  for (long i = 0; i < n; ++i) {
    const double from = str->xold[i];
    const double moved = from + a * d[i];
    // Not beyond a bound, but never back over a start that lies outside it by the tolerance; and on the bound when
    // only rounding keeps a blocked step from it.
    if (d[i] > 0.0) {
      const double high = std::max(str->ub[i], from);
      str->x[i] = high - moved <= 4.0 * unit_roundoff * (std::abs(from) + std::abs(high)) ? high : moved;
    } else if (d[i] < 0.0) {
      const double low = std::min(str->lb[i], from);
      str->x[i] = moved - low <= 4.0 * unit_roundoff * (std::abs(from) + std::abs(low)) ? low : moved;
    } else {
      str->x[i] = from;
    }
  }
}

namespace {

// Calls visit(c, side) for every constraint that is not held, that x touches and that d runs into, until it returns
// true.
template <class Visit> bool for_each_touched(const MINSTR& str, const double* d, Visit visit)
{
  const long n = str.nvar;
  const double* const x = str.x;
  for (long i = 0; str.bounds != 0 && i < n; ++i) {
    if (str.iabc[i] != 0) continue;
    if (d[i] < 0.0 && x[i] - str.lb[i] <= (std::abs(str.lb[i]) + 1.0) * contact_tolerance) {
      if (visit(i, 1)) return true;
    } else if (d[i] > 0.0 && str.ub[i] - x[i] <= (std::abs(str.ub[i]) + 1.0) * contact_tolerance) {
      if (visit(i, -1)) return true;
    }
  }
  const double norm = str.ncon > str.neqc ? matrix::zvenorm(n, 1, d) : 0.0;
  for (long c = n + str.neqc; c < n + str.ncon; ++c) {
    if (held(str, c)) continue;
    const double* const a = row_of(str, c);
    if (zvdot11(a, d, n) >= -crossing_tolerance * norm * matrix::zvenorm(n, 1, a)) continue;
    if (zvdot11(a, x, n) - right_side(str, c) > row_scale(str, c, x) * contact_tolerance) continue;
    if (visit(c, 0)) return true;
  }
  return false;
}

} // namespace

int znlpact(MINSTR* str, const double* d)
{
  int added = 0;
  for_each_touched(*str, d, [&](long c, int side) {
    if (hold(str, c, side) == 0) {
      ++added;
      note_change(str, c, 1);
    }
    return false;
  });
  return added;
}

long first_touched(const MINSTR& str, const double* d)
{
  long first = -1;
  for_each_touched(str, d, [&](long c, int) {
    first = c;
    return true;
  });
  return first;
}

} // namespace torvale::optimizer
