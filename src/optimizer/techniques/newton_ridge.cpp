#include "optimizer/derivatives/objective_access.h"
#include "optimizer/techniques/cycles.h"
#include "optimizer/techniques/newton.h"

#include "matrix/vector_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace torvale::optimizer {
namespace {

constexpr double most_ridge = 1.7976931348623157e+298;

// NRRIDG: full Newton steps; a ridge takes the place of the line search.
class RidgedNewton {
public:
  explicit RidgedNewton(MINSTR* record) : str(record), model(record) {}

  int start(bool first) { return model.start(first); }

  int iteration()
  {
    remember(str);
    str->cutf = 0;
    refused = 0.0;
    if (const int code = accepted_step(); code != 0) {
      go_back(str);
      return code;
    }
    str->alfa = matrix::zvenorm(str->nvar, 1, str->sdir);
    str->nitr += 1.0;
    ++str->itre;
    const bool cut = str->ridg > 0.0 || str->stub < 1.0;
    if (str->ridg > 0.0) str->scut = cut_radius;
    if (objective_gradient(str) != 0) return code_gradient;
    choose_next_ridge();
    if (cut) str->pred = model.full_reduction(); // GCONV asks what the full step would gain, whatever cut this one
    const int settled = settle_constraints(str, str->sdir);
    if (settled < 0) return settled;
    if (const int code = test_termination(str, 1); code != 0) return code;
    if (static_cast<double>(str->itre) >= str->nres) return code_reenter;
    return model.evaluate(false) != 0 ? code_hessian : 0;
  }

private:
  void raise_ridge(double factor) { str->ridg = std::max(factor * str->ridg, model.first_ridge()); }

  // The ridge rises until the objective does not: an accepted decrease stays, whatever the slope there.
  int accepted_step()
  {
    for (;;) {
      std::copy_n(str->xold, str->nvar, str->x);
      const long m = free_dimension(*str);
      if (m == 0) return code_reenter;
      double deficit = 0.0;
      if (model.step(str->ridg, deficit) != 0) {
        str->ridg = model.raised_for_factor(str->ridg, deficit);
        if (!(str->ridg < most_ridge)) return code_no_progress;
        continue;
      }
      if (constrained(*str) && touching(*str, str->sdir)) {
        // Beside a constraint just dropped a larger ridge turns the step towards steepest descent; others are held.
        if (str->chac < 0 && str->ridg < 1e6 * std::max(1.0, model.largest_element())) {
          raise_ridge(10.0);
          continue;
        }
        if (znlpact(str, str->sdir) != 0) {
          model.project();
          continue;
        }
      }
      long blocking = -1;
      str->stub = constrained(*str) ? std::min(1.0, znlpstl(*str, str->xold, str->sdir, &blocking)) : 1.0;
      move_along(str, str->stub, str->sdir);
      if (std::memcmp(str->x, str->xold, sizeof(double) * static_cast<std::size_t>(str->nvar)) == 0)
        return code_no_progress;
      str->pred = model.prediction(str->stub);
      const bool failed = objective_value(str) != 0;
      if (interrupted(*str)) return code_objective;
      str->dfes = failed ? 0.0 : str->cold - str->crit;
      if (!failed && str->dfes >= -smallest_normal) {
        str->rhor = str->dfes >= 1.110223024625157e-14 && str->pred > smallest_normal ? str->dfes / str->pred : 1.0;
        return 0;
      }
      if (failed) str->cutf = 1;
      refused = std::max(refused, str->ridg);
      raise_ridge(4.0);
      if (!(str->ridg < most_ridge)) return code_no_progress;
    }
  }

  // A slope that still falls steeply tells of a ridge that was too large, one that rises steeply of one too small.
  void choose_next_ridge()
  {
    const double slope = znlpgs(*str, str->grad, str->sdir);
    str->gcri = std::abs(slope);
    if (slope < -0.5 * str->pred || str->rhor > 0.75)
      str->ridg *= refused == 0.0 ? 0.1 : 0.5;
    else if (slope > 0.5 * str->pred)
      raise_ridge(4.0);
    if (str->ridg < 1e-12) str->ridg = 0.0;
  }

  MINSTR* str;
  NewtonModel model;
  double refused = 0.0; // largest ridge of this iteration that was not enough
};

} // namespace

int znlpnrr(MINSTR* str)
{
  RidgedNewton technique(str);
  return run_cycles(str, technique);
}

} // namespace torvale::optimizer
