#include "optimizer/technique.h"

#include "optimizer/active_set.h"
#include "optimizer/objective_access.h"
#include "optimizer/secant_matrix.h"
#include "optimizer/trust_region.h"

#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

using matrix::zvdot11;

// DBLDOG: a trust region on a quasi-Newton factor. The step runs from the Cauchy point towards a shortened Newton step
// (J. E. Dennis and H. H. W. Mei, Two new unconstrained optimization algorithms which use function and gradient values,
// J. Optimization Theory and Applications 28, 1979).
class DoubleDogleg {
public:
  explicit DoubleDogleg(MINSTR* record)
      : str(record), secant(record, true), newton(record->wrk2 + 7 * record->nvar), gradient(newton + record->nvar),
        step(gradient + record->nvar), best_point(step + record->nvar), scratch(best_point + record->nvar)
  {
    state.minstr = record;
  }

  int run()
  {
    if (const int rc = begin_technique(str, true); rc != 0) return rc;
    bool reported = false;
    for (;;) {
      int code = cycle(reported);
      if (code == restart && moved) continue;
      if (code != code_reenter) code = end_technique(str, code == restart ? code_no_progress : code);
      if (code != code_reenter) return code;
    }
  }

private:
  static constexpr int restart = 1000; // beyond all termination codes

  // From one start of the matrix to the next.
  int cycle(bool& reported)
  {
    begin_cycle(str);
    znlpgmx(str);
    if (constrained(*str)) znlpdac(str);
    if (const int rc = secant.start(); rc != 0) return rc;
    scale_parameters(true);
    const double gradient_norm = scaled_gradient_norm();
    // The first matrix knows nothing of the curvature: a step of the size of the point is bold enough.
    const double size = 1.0 + matrix::zvenorm(str->nvar, 1, str->x);
    str->delt = std::max(str->salf * std::min(gradient_norm, size), 1e-3);
    str->lamb = 0.0;
    const bool all_held = free_dimension(*str) == 0;
    if (!reported || all_held) {
      reported = true;
      if (const int code = test_termination(str, all_held ? 1 : 10); code != 0) return code;
    }
    moved = false;
    for (;;) {
      const int code = iteration();
      if (code != 0) return code;
    }
  }

  void scale_parameters(bool first)
  {
    if (str->hesc == 0) return;
    for (long i = 0; i < str->nvar; ++i) {
      const double root = std::sqrt(std::abs(secant.diagonal(i)));
      const double before = first ? 1.0 : str->dsca[i];
      str->dsca[i] = std::max({root, 0.6 * before, 1e-8});
    }
  }

  double scaled_gradient_norm()
  {
    const long m = free_dimension(*str);
    for (long j = 0; j < m; ++j) scratch[j] = str->gpro[j] / free_scale(*str, j);
    return matrix::zvenorm(m, 1, scratch);
  }

  // The Newton step and the scaled gradient of the free space at x. Returns false when a touched constraint leaves no
  // direction.
  bool form_model()
  {
    for (;;) {
      const long m = free_dimension(*str);
      if (m == 0) return false;
      secant.direction();
      if (!constrained(*str) || !touching(*str, str->sdir)) break;
      if (!secant.is_start()) {
        // The matrix has misled the step into a constraint: begin it anew (see the quasi-Newton technique).
        secant.start_anew();
      } else {
        if (znlpact(str, str->sdir) == 0) break;
        znlpgmx(str);
        if (free_dimension(*str) > 0 && !secant.project()) secant.start_anew();
      }
    }
    const long m = free_dimension(*str);
    znlpvre(*str, str->sdir, newton);
    newton_slope = zvdot11(str->gpro, newton, m);
    for (long j = 0; j < m; ++j) {
      const double d = free_scale(*str, j);
      scratch[j] = d * newton[j];
      gradient[j] = str->gpro[j] / (d * d);
    }
    state.dst0 = matrix::zvenorm(m, 1, scratch);
    state.dgnm = scaled_gradient_norm();
    state.scaled_hessian_form = secant.quadratic_form(gradient);
    state.nred = -0.5 * newton_slope;
    return true;
  }

  // The step of length at most delt (all lengths scaled): step = gfac times the scaled gradient plus nfac times the
  // Newton step.
  void dbldog()
  {
    const long m = free_dimension(*str);
    const double radius = str->delt, newton_length = state.dst0, g = state.dgnm;
    const double t = state.scaled_hessian_form; // gradient'B gradient
    const double c = g * g / t;                 // Cauchy step: -c times the scaled gradient
    const double cauchy_length = c * g;
    const double gamma = g * g * c / -newton_slope; // at most 1
    const double eta = 0.2 + 0.8 * std::min(gamma, 1.0);
    state.gfac = 0.0;
    if (newton_length <= radius) {
      state.nfac = 1.0;
      str->lamb = 0.0;
    } else if (eta * newton_length <= radius) {
      state.nfac = radius / newton_length;
      str->lamb = 1.0 - state.nfac;
    } else if (cauchy_length >= radius) {
      state.gfac = -radius / g;
      state.nfac = 0.0;
      str->lamb = 1.0 + cauchy_length / radius;
    } else {
      // |a + theta (b - a)| = radius between a = -c gradient and b = eta newton.
      const double aa = cauchy_length * cauchy_length;
      const double bb = eta * eta * newton_length * newton_length;
      const double ab = -c * eta * newton_slope; // a'D^2 b = -c eta g'newton
      const double q2 = aa - 2.0 * ab + bb, q1 = ab - aa, room = radius * radius - aa;
      const double theta = room / (q1 + std::sqrt(std::max(q1 * q1 + q2 * room, 0.0)));
      state.gfac = -c * (1.0 - theta);
      state.nfac = eta * theta;
      str->lamb = 2.0 - theta;
    }
    for (long j = 0; j < m; ++j) step[j] = state.gfac * gradient[j] + state.nfac * newton[j];
    predict(m, 1.0);
    for (long j = 0; j < m; ++j) step[j] *= free_scale(*str, j); // as try_trust_step wants it
    state.dstn = matrix::zvenorm(m, 1, step);
  }

  void predict(long m, double fraction)
  {
    const double slope = zvdot11(str->gpro, step, m);
    str->pred = -(fraction * slope + 0.5 * fraction * fraction * secant.quadratic_form(step));
    state.gtst = fraction * slope;
  }

  int iteration()
  {
    remember(str);
    str->cutf = 0;
    begin_decision(&state);
    if (!form_model()) return code_reenter;
    if (const int code = accepted_step(); code != 0) {
      go_back(str);
      if (code == code_objective || str->itre < 1) return code;
      return restart;
    }
    moved = true;
    ++str->itre;
    str->nitr += 1.0;
    str->alfa = state.dstn;
    if (str->lamb > 0.0) str->scut = cut_radius;
    if (objective_gradient(str) != 0) return code_gradient;
    const int settled = settle_constraints(str, str->sdir);
    if (settled < 0) return settled;
    if (const int code = test_termination(str, 1); code != 0) return code;
    if (settled > 0 || static_cast<double>(str->itre) >= str->nres) {
      str->salf = 1.0;
      return restart;
    }
    if (str->itre >= 5) str->salf = 1.0;
    const int updated = secant.update();
    str->null = updated;
    if (updated < 0) return restart;
    scale_parameters(false);
    return free_dimension(*str) == 0 ? restart : 0;
  }

  int accepted_step()
  {
    const double entry_radius = str->delt;
    for (;;) {
      std::copy_n(str->xold, str->nvar, str->x);
      state.rad0 = str->delt;
      dbldog();
      const long m = free_dimension(*str);
      const int failed = try_trust_step(str, m, step, scratch);
      if (interrupted(*str)) return code_objective;
      if (failed == 2) return code_no_progress;
      if (str->stub < 1.0) {
        for (long j = 0; j < m; ++j) scratch[j] = step[j] / free_scale(*str, j);
        std::copy_n(scratch, m, step);
        predict(m, str->stub);
        state.dstn *= str->stub;
      }
      if (failed == 1 && state.rest == 2) return take_saved();
      if (failed == 1) {
        str->cutf = 1;
        str->delt = 0.1 * std::min(str->delt, state.dstn);
        if (str->delt <= unit_roundoff * entry_radius) return code_objective;
        continue;
      }
      state.rldx = relative_step(*str);
      assess(&state);
      if (state.rest == 3) return take_saved();
      if (state.irc == 3 || state.irc == 4 || (state.irc == 5 && state.dstn >= str->ssin)) {
        str->delt = state.radf * state.dstn;
        return 0;
      }
      if (state.irc == 5) std::copy_n(str->x, str->nvar, best_point);
      str->delt = state.radf * state.dstn;
      if (!(str->delt > 1.232595164407832e-32)) return code_no_progress;
    }
  }

  int take_saved()
  {
    std::copy_n(best_point, str->nvar, str->x);
    str->crit = state.clgd;
    str->pred = state.plgd;
    str->delt = state.dsts;
    for (long i = 0; i < str->nvar; ++i) str->sdir[i] = str->x[i] - str->xold[i];
    return 0;
  }

  MINSTR* str;
  DGWSTR state;
  SecantMatrix secant;
  double* newton;     // m: Newton step
  double* gradient;   // m: gradient divided by the squared scale
  double* step;       // m
  double* best_point; // n
  double* scratch;    // n
  double newton_slope = 0.0;
  bool moved = true;
};

} // namespace

int znlpddl(MINSTR* str)
{
  return DoubleDogleg(str).run();
}

} // namespace torvale::optimizer
