#include "optimizer/techniques/cycles.h"
#include "optimizer/techniques/trust_steps.h"
#include "optimizer/updates/secant_matrix.h"

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
        trial(gradient + record->nvar), best_point(trial + record->nvar), scratch(best_point + record->nvar)
  {
    state.minstr = record;
  }

  int start(bool)
  {
    if (const int rc = secant.start(); rc != 0) return rc;
    scale_parameters(true);
    const double gradient_norm = scaled_gradient_norm();
    // The first matrix knows nothing of the curvature: a step of the size of the point is bold enough.
    const double size = 1.0 + matrix::zvenorm(str->nvar, 1, str->x);
    str->delt = std::max(str->salf * std::min(gradient_norm, size), 1e-3);
    str->lamb = 0.0;
    return 0;
  }

  int iteration()
  {
    remember(str);
    str->cutf = 0;
    begin_decision(&state);
    if (!form_model()) return code_reenter;
    if (const int code = accept_step(&state, *this, least_radius, best_point, scratch); code != 0) {
      go_back(str);
      if (code == code_objective || str->itre < 1) return code;
      return restart_cycle;
    }
    ++str->itre;
    str->nitr += 1.0;
    str->alfa = state.dstn;
    if (str->lamb > 0.0) str->scut = cut_radius;
    str->pred = state.nred; // GCONV asks what the full step would gain, whatever cut this one
    if (objective_gradient(str) != 0) return code_gradient;
    correct_prediction(str, step_form);
    const int settled = settle_constraints(str, str->sdir);
    if (settled < 0) return settled;
    if (const int code = test_termination(str, 1); code != 0) return code;
    if (settled > 0 || static_cast<double>(str->itre) >= str->nres) {
      str->salf = 1.0;
      return restart_cycle;
    }
    if (str->itre >= 5) str->salf = 1.0;
    secant.follow_metric();
    const int updated = secant.update();
    str->null = updated;
    if (updated < 0) return restart_cycle;
    scale_parameters(false);
    return free_dimension(*str) == 0 ? restart_cycle : 0;
  }

  // What accept_step asks for.
  int step(bool)
  {
    dbldog();
    return 0;
  }
  const double* vector() const { return trial; }
  void cut(double fraction)
  {
    const long m = free_dimension(*str);
    for (long j = 0; j < m; ++j) trial[j] /= free_scale(*str, j);
    predict(m, fraction);
    state.dstn *= fraction;
  }
  void save() { saved_form = step_form; }
  void recall() { step_form = saved_form; }

private:
  static constexpr double least_radius = 1.232595164407832e-32;

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
    for (long j = 0; j < m; ++j) trial[j] = state.gfac * gradient[j] + state.nfac * newton[j];
    predict(m, 1.0);
    for (long j = 0; j < m; ++j) trial[j] *= free_scale(*str, j); // as try_trust_step wants it
    state.dstn = matrix::zvenorm(m, 1, trial);
  }

  void predict(long m, double fraction)
  {
    const double slope = zvdot11(str->gpro, trial, m);
    step_form = fraction * fraction * secant.quadratic_form(trial);
    str->pred = -(fraction * slope + 0.5 * step_form);
    state.gtst = fraction * slope;
  }

  MINSTR* str;
  DGWSTR state;
  SecantMatrix secant;
  double* newton;     // m: Newton step
  double* gradient;   // m: gradient divided by the squared scale
  double* trial;      // m: the step that is tried
  double* best_point; // n
  double* scratch;    // n
  double newton_slope = 0.0;
  double step_form = 0.0, saved_form = 0.0; // s'Bs of the step, and of the one saved
};

} // namespace

int znlpddl(MINSTR* str)
{
  DoubleDogleg technique(str);
  return run_cycles(str, technique);
}

} // namespace torvale::optimizer
