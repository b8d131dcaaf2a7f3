#include "optimizer/technique.h"

#include "optimizer/active_set.h"
#include "optimizer/objective_access.h"
#include "optimizer/updates.h"

#include "matrix/cholesky.h"
#include "matrix/packed.h"
#include "matrix/udu.h"
#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace torvale::optimizer {
namespace {

using matrix::packed_diagonal;
using matrix::packed_row;
using matrix::packed_size;

// The quasi-Newton matrix. Without constraints it is the factor L D L' of B (DUQUAN) or the inverse H (QUANEW) in hess.
// With constraints hess holds the whole of B, updated with full steps, and hpro what the free space needs: the
// triangular factor of Z'BZ or its inverse, updated along and formed anew when the active set changes. So what has been
// learnt of B outlives a bound that comes or goes.
class SecantMatrix {
public:
  SecantMatrix(MINSTR* record, bool dual_form)
      : str(record), n(record->nvar), whole(constrained(*record)), dual(dual_form),
        matrix(whole ? record->hpro : record->hess), s(record->wrk2), y(record->wrk2 + n), w1(record->wrk2 + 2 * n),
        w2(record->wrk2 + 3 * n), w3(record->wrk2 + 5 * n)
  {
  }

  // The start matrix: r I, or the Hessian at x with INHESSIAN. Returns 0, -11 or -5 (no ridge makes it definite).
  int start()
  {
    fresh = true;
    if (str->load != 0) return start_from_hessian();
    const double r = is_missing(str->dhes) || !(str->dhes > 0.0) ? 1.0 : str->dhes;
    if (whole) fill_diagonal(str->hess, n, r);
    fill_diagonal(matrix, free_dimension(*str), !dual ? 1.0 / r : whole ? std::sqrt(r) : r);
    return 0;
  }

  // Forms the part of the free space anew from B. Returns false when it is not definite.
  bool project()
  {
    if (!whole) return true;
    const long m = free_dimension(*str);
    znlpsym(*str, str->hess, matrix, str->awrk);
    return factor(m);
  }

  // sdir := -Z (Z'BZ)^-1 Z'grad.
  void direction()
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

  // Takes in the step from xold to x, which become s and y. Returns as an UpdateRoutine does.
  int update()
  {
    for (long i = 0; i < n; ++i) {
      str->xold[i] = str->x[i] - str->xold[i];
      str->gold[i] = str->grad[i] - str->gold[i];
    }
    const bool scale = (n > 10 || str->start_scale != 0) && str->load == 0 &&
                       (str->itre == 1 || (str->itre == 2 && str->alfa > 1.0));
    fresh = false;
    if (!whole) return str->updat(str, dual ? 2 : 1, scale, str->xold, str->gold, matrix, w1, w2, w3);
    if (str->chac != 0) {
      str->scal = 1.0;
      const int rc = update_whole();
      return project() ? rc : -1;
    }
    znlpvre(*str, str->xold, s);
    znlpvre(*str, str->gold, y);
    const int rc = str->updat(str, dual ? 3 : 1, scale, s, y, matrix, w1, w2, w3);
    if (rc == 0) update_whole();
    return rc;
  }

  bool is_start() const { return fresh; }

private:
  static void fill_diagonal(double* a, long order, double value)
  {
    std::fill_n(a, packed_size(order), 0.0);
    for (long i = 0; i < order; ++i) a[packed_diagonal(i)] = value;
  }

  // Turns the packed matrix of the free space into the form in use.
  bool factor(long m)
  {
    double largest_diagonal = 0.0;
    for (long i = 0; i < m; ++i) largest_diagonal = std::max(largest_diagonal, std::abs(matrix[packed_diagonal(i)]));
    const double tolerance = 1.110223024625157e-12 * largest_diagonal;
    if (dual && !whole) return factor_ldl(m, matrix, tolerance);
    for (long i = 0; i < m; ++i)
      if (matrix::zchol(static_cast<int>(i), matrix, tolerance) != 0) return false;
    if (!dual) invert_from_cholesky(m);
    return true;
  }

  // H = L'^-1 L^-1, column by column of the identity.
  void invert_from_cholesky(long m)
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

  // The Hessian with the smallest ridge of 1e-4 times a power of 4 that makes it definite.
  int start_from_hessian()
  {
    if (objective_hessian(str) != 0) return code_hessian;
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
  int update_whole()
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

  MINSTR* str;
  long n;
  bool whole; // there are constraints: hess holds all of B
  bool dual;  // DUQUAN
  bool fresh = true;
  double* matrix;
  double *s, *y, *w1, *w2, *w3;
};

class QuasiNewton {
public:
  QuasiNewton(MINSTR* record, bool dual_form) : str(record), dual(dual_form), secant(record, dual_form) {}

  int run()
  {
    if (const int rc = begin_technique(str, true); rc != 0) return rc;
    for (;;) {
      const int code = cycle();
      if (code != restart && code != code_reenter) {
        const int last = end_technique(str, code);
        if (last != code_reenter) return last;
        moved = true; // to a better point, or to a better gradient
      } else if (code == restart && !moved) {
        // A second start from the same point with the same active set would take the same step.
        const int last = end_technique(str, code_no_progress);
        if (last != code_reenter) return last;
      }
      if (code == code_reenter) moved = true;
    }
  }

private:
  static constexpr int restart = 1000; // beyond all termination codes

  // From one start of the matrix to the next.
  int cycle()
  {
    begin_cycle(str);
    const bool first = str->nitr == 0.0 && !reported;
    znlpgmx(str);
    if (constrained(*str) && znlpdac(str) != 0) moved = true;
    if (const int rc = secant.start(); rc != 0) return rc;
    if (free_dimension(*str) > 0) {
      find_direction();
      str->pred = -slope;
    }
    const bool all_held = free_dimension(*str) == 0;
    if (first || all_held) {
      reported = true;
      const int code = str->uster(str, all_held ? 1 : 10);
      if (code != 0) return code;
    }
    moved = false;
    for (;;) {
      const int code = iteration();
      if (code != 0) return code;
    }
  }

  int iteration()
  {
    remember(str);
    long blocking = -1;
    str->stub = constrained(*str) ? znlpstl(*str, str->xold, str->sdir, &blocking) : largest;
    if (str->stub <= 2.225073858507202e-306) return str->itre > 0 ? restart : code_no_progress;

    const int failed = str->linse(str);
    if (failed != 0 || str->alfa <= smallest_normal) {
      go_back(str);
      if (interrupted(*str)) return code_objective;
      return str->itre < 1 ? code_no_progress : restart;
    }
    str->dfes = str->cold - str->crit;
    moved = true;
    ++str->itre;
    str->nitr += 1.0;
    const int settled = settle_constraints(str, str->sdir);
    if (settled < 0) return settled;
    if (const int code = str->uster(str, 1); code != 0) return code;
    if (settled > 0 || static_cast<double>(str->itre) >= str->nres) {
      str->salf = 1.0;
      return restart;
    }
    if (str->itre >= 5) str->salf = 1.0;
    const int updated = secant.update();
    str->null = updated;
    if (updated < 0) return restart;
    if (free_dimension(*str) == 0) return restart;
    find_direction();
    str->pred = -slope;
    str->ridg = 0.0;
    return good_direction() ? 0 : restart;
  }

  // The direction of the free space. Where it runs into a constraint that x touches, the matrix has misled it: a
  // constraint just dropped would come straight back. Steepest descent moves off such a constraint; what still is in
  // its way is held.
  void find_direction()
  {
    secant.direction();
    while (constrained(*str) && touching(*str, str->sdir)) {
      if (!secant.is_start()) {
        const int load = std::exchange(str->load, 0);
        secant.start();
        str->load = load;
        str->itre = 0;
      } else {
        if (znlpact(str, str->sdir) == 0) break;
        znlpgmx(str);
        if (free_dimension(*str) == 0) break;
        if (!secant.project()) secant.start();
      }
      secant.direction();
    }
    slope = znlpgs(*str, str->grad, str->sdir);
  }

  bool good_direction() const
  {
    if (!(slope <= -smallest_normal) || !(matrix::zvenorm(str->nvar, 1, str->sdir) > 0.0)) return false;
    const double limit = std::abs(str->dfes) <= 1e-6 * std::abs(str->cold) ? 1e-4 : 1e-8;
    // After fifty updates a very flat slope hints at a matrix that has gone bad.
    if (str->itre < 51) return true;
    return dual ? std::sqrt(std::abs(slope)) > limit : limit * str->gmax * str->gmax < str->pred;
  }

  MINSTR* str;
  bool dual;
  SecantMatrix secant;
  double slope = 0.0;
  bool moved = true;     // a step was accepted, or the active set changed, since the last start
  bool reported = false; // the state before the first iteration has been shown
};

} // namespace

int znlpdqn(MINSTR* str) { return QuasiNewton(str, true).run(); }
int znlpqun(MINSTR* str) { return QuasiNewton(str, false).run(); }

} // namespace torvale::optimizer
