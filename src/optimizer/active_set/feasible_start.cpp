#include "optimizer/active_set/active_set.h"

#include "matrix/packed.h"
#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

using matrix::packed_row;
using matrix::zvdot11;

// Puts x into the bounds; where it stands so near inside of a bound that the two differ by rounding it is put on it.
// How near 0 is to a bound of 0 depends on units: there nothing is rounding. Returns true when x had been outside by
// more than the tolerance.
bool clamp_to_bounds(MINSTR* str)
{
  bool moved = false;
  const double t = str->ceps;
  for (long i = 0; str->bounds != 0 && i < str->nvar; ++i) {
    double& x = str->x[i];
    const double low = str->lb[i], high = str->ub[i];
    if (low > -largest && x - low <= std::abs(low) * t) {
      moved = moved || low - x > (std::abs(low) + 1.0) * t;
      x = low;
    } else if (high < largest && high - x <= std::abs(high) * t) {
      moved = moved || x - high > (std::abs(high) + 1.0) * t;
      x = high;
    }
  }
  return moved;
}

// The nearest feasible point by the dual method of Goldfarb and Idnani (A numerically stable dual method for solving
// strictly convex quadratic programs, Mathematical Programming 27, 1983) with the unit Hessian. It starts at x, takes
// the most violated constraint, and moves along the part of its normal that the held ones leave free, releasing those
// whose multiplier would turn negative. It ends at the nearest feasible point or proves that there is none.
class NearestPoint {
public:
  explicit NearestPoint(MINSTR* record)
      : str(record), n(record->nvar), constraints(record->nvar + record->ncon), multiplier(record->lagm),
        normal(record->awrk + 2 * n), coordinates(record->awrk + 3 * n), move(record->awrk + 4 * n)
  {
  }

  int run()
  {
    clear_factor(str);
    std::fill_n(multiplier, constraints, 0.0);
    for (long c = n; c < n + str->neqc; ++c)
      if (!satisfy(c, equality_side(c))) return -3;
    for (long round = 0; round < 50 * constraints + 100; ++round) {
      const long c = most_violated();
      if (c < 0) return 1;
      if (!satisfy(c, bound_side(c))) return -1;
    }
    return -1;
  }

private:
  double residual(long c, int side) const
  {
    if (c >= n) return zvdot11(str->alcn + (c - n) * n, str->x, n) - str->blcn[c - n];
    return side == -1 ? str->ub[c] - str->x[c] : str->x[c] - str->lb[c];
  }

  double scale(long c) const
  {
    if (c < n) return 1.0 + std::abs(str->x[c]);
    const double* const a = str->alcn + (c - n) * n;
    double s = 1.0 + std::abs(str->blcn[c - n]);
    for (long i = 0; i < n; ++i) s = std::max(s, std::abs(a[i] * str->x[i]));
    return s;
  }

  // An equality is approached from whichever side x lies on.
  int equality_side(long c) const { return residual(c, 1) > 0.0 ? -1 : 1; }
  int bound_side(long c) const { return c < n && str->x[c] > str->ub[c] ? -1 : 1; }

  long most_violated() const
  {
    long worst = -1;
    double most = 0.0;
    for (long c = 0; c < constraints; ++c) {
      if (c < n && str->bounds == 0) continue;
      if (c < n + str->neqc && c >= n) continue;
      if (held(*str, c)) continue;
      const double violation = constraint_violation(*str, str->x, c) / scale(c);
      if (violation > std::max(most, 1e-14)) {
        most = violation;
        worst = c;
      }
    }
    return worst;
  }

  // Moves until constraint c holds. side -1 turns the normal of an equality, or names the upper bound.
  bool satisfy(long c, int side)
  {
    const bool equality = c >= n && c - n < str->neqc;
    const double sign = equality && side == -1 ? -1.0 : 1.0;
    constraint_normal(*str, c, side, normal);
    if (sign < 0.0)
      for (long i = 0; i < n; ++i) normal[i] = -normal[i];
    const double norm = std::max(matrix::zvenorm(n, 1, normal), smallest_normal);
    double own = 0.0; // multiplier of c in the making
    for (long round = 0; round <= 2 * constraints; ++round) {
      const double need = -sign * residual(c, side);
      const double accepted = 1e-14 * scale(c);
      const long k = str->nabc + str->nalc;
      factor_coordinates(*str, normal, coordinates);
      const double free_part = k < n ? matrix::zvenorm(n - k, 1, coordinates + k) : 0.0;
      const bool independent = free_part > 1e-12 * norm;
      if (!independent && (need <= accepted * 100.0 || (equality && need <= str->ceps * scale(c)))) return true;
      // Back-substitute R r = Q1'a: how fast the multipliers of the held constraints fall.
      double* const r = coordinates;
      for (long j = k - 1; j >= 0; --j) {
        const double* const row = str->llcn + packed_row(j);
        r[j] /= row[j];
        matrix::zvxay11(r, row, j, -r[j]);
      }
      long leaving = -1;
      double dual_step = largest;
      for (long j = 0; j < k; ++j) {
        const long h = str->iact[j];
        if ((h >= n && h - n < str->neqc) || !(r[j] > 1e-13 * norm)) continue;
        const double s = multiplier[h] / r[j];
        if (s < dual_step) {
          dual_step = s;
          leaving = h;
        }
      }
      const double primal_step = independent ? std::max(need, 0.0) / (free_part * free_part) : largest;
      const double step = std::min(dual_step, primal_step);
      if (step >= largest) return false;
      if (independent) {
        znlpvex_all(coordinates + k, n - k, move);
        for (long i = 0; i < n; ++i) str->x[i] += step * move[i];
      }
      for (long j = 0; j < k; ++j) multiplier[str->iact[j]] -= step * r[j];
      own += step;
      if (independent && primal_step <= dual_step) {
        multiplier[c] = sign * own;
        hold(str, c, c < n ? side : 0);
        return true;
      }
      release(str, leaving);
      multiplier[leaving] = 0.0;
    }
    return false;
  }

  // Z times the free coordinates, without the care for held parameters of znlpvex.
  void znlpvex_all(const double* free, long m, double* v) const
  {
    std::fill_n(v, n, 0.0);
    for (long j = 0; j < m; ++j) matrix::zvxay11(v, str->qlcn + (n - m + j) * n, n, free[j]);
  }

  MINSTR* str;
  long n;
  long constraints;
  double* multiplier;  // of every constraint, in lagm
  double* normal;      // of the constraint being satisfied
  double* coordinates; // Q'normal
  double* move;
};

} // namespace

int znlpfea(MINSTR* str)
{
  if (!constrained(*str)) return 0;
  const long n = str->nvar;
  str->ipre = 0;
  for (long i = 0; str->bounds != 0 && i < n; ++i)
    if (!(str->lb[i] <= str->ub[i])) return -1;
  const bool was_feasible = znlpfch(str, 0, 0) == 0;
  const bool clamped = clamp_to_bounds(str);
  if (str->opro == 0) return clamped ? 1 : 0;
  // Putting x on its bounds may have left a linear row that held before: the nearest point settles both.
  if (was_feasible && !clamped && znlpfch(str, 0, 0) == 0) return 0;
  const int result = NearestPoint(str).run();
  if (result < 0) return result;
  clamp_to_bounds(str); // rounding of the projection
  return znlpfch(str, 0, 0) == 0 ? 1 : -1;
}

} // namespace torvale::optimizer
