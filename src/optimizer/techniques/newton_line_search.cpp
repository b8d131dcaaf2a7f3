#include "optimizer/derivatives/objective_access.h"
#include "optimizer/line_search/line_search.h"
#include "optimizer/techniques/cycles.h"
#include "optimizer/techniques/newton.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

constexpr double ridge_base = 1e-4;
constexpr double most_ridge = 1.7976931348623157e+298;

// NEWRAP: Newton direction, ridged where the Hessian is not positive definite, and a line search along it.
class NewtonRaphson {
public:
  explicit NewtonRaphson(MINSTR* record) : str(record), model(record) {}

  int start(bool first) { return model.start(first); }

  int iteration()
  {
    remember(str);
    // A ridge that had to be raised more than once will be wanted again, at a tenth; any other starts from nothing, or
    // the last iterations would converge linearly.
    str->ridg = raised > 1 ? 0.1 * str->ridg : 0.0;
    raised = 0;
    for (int attempt = 0;; ++attempt) {
      if (!find_direction()) return free_dimension(*str) == 0 ? code_reenter : code_no_progress;
      long blocking = -1;
      str->stub = constrained(*str) ? znlpstl(*str, str->xold, str->sdir, &blocking) : largest;
      // A slope this flat lies within the noise of a difference gradient: values alone are trusted.
      const bool by_values = gradient_by_differences(*str) && model.slope_of_step() > -1e-6;
      const int failed = by_values ? znlpls8(str) : str->linse(str);
      if (failed == 0 && str->alfa > smallest_normal) break;
      go_back(str);
      if (interrupted(*str)) return code_objective;
      if (attempt == 1) return code_no_progress;
      raise_ridge(std::max(ridge_base, 5.0 * str->ridg));
    }
    str->dfes = str->cold - str->crit;
    ++str->itre;
    str->nitr += 1.0;
    if (str->alfa < 0.1) str->scut = cut_search;
    if (str->ridg > 0.0) {
      str->scut = cut_radius;
      str->pred = model.full_reduction(); // GCONV asks what the full step would gain, whatever cut this one
    }
    const int settled = settle_constraints(str, str->sdir);
    if (settled < 0) return settled;
    str->gcri = std::abs(znlpgs(*str, str->grad, str->sdir));
    if (const int code = test_termination(str, 1); code != 0) return code;
    if (static_cast<double>(str->itre) >= str->nres) return code_reenter;
    return model.evaluate(false) != 0 ? code_hessian : 0;
  }

private:
  void raise_ridge(double ridge)
  {
    str->ridg = ridge;
    ++raised;
  }

  // A downhill direction that no touched constraint blocks.
  bool find_direction()
  {
    for (int turns = 0;;) {
      if (free_dimension(*str) == 0) return false;
      double deficit = 0.0;
      while (model.step(str->ridg, deficit) != 0 || model.slope_of_step() >= -smallest_normal) {
        raise_ridge(model.raised_for_factor(str->ridg, deficit));
        // Nothing to gain from a ridge where the gradient itself vanishes.
        if (!(str->ridg < most_ridge) || str->gmax == 0.0 || raised > 200) return false;
        deficit = 0.0;
      }
      str->pred = -model.slope_of_step();
      if (!constrained(*str) || !touching(*str, str->sdir)) return true;
      // Beside a constraint just dropped a larger ridge turns the step towards steepest descent; others are held.
      if (str->chac < 0 && turns < 30) {
        str->ridg = 5.0 * str->ridg + model.largest_element();
        ++turns;
        continue;
      }
      if (znlpact(str, str->sdir) == 0) return true;
      model.project();
    }
  }

  MINSTR* str;
  NewtonModel model;
  int raised = 0; // how often the ridge was raised in this iteration
};

} // namespace

int znlpnra(MINSTR* str)
{
  NewtonRaphson technique(str);
  return run_cycles(str, technique);
}

} // namespace torvale::optimizer
