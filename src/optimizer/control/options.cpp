#include "optimizer/optimizer.h"

#include "optimizer/control/arrays.h"
#include "optimizer/line_search/line_search.h"
#include "optimizer/messages/messages.h"
#include "optimizer/updates/updates.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {

const char* technique_name(int tech)
{
  switch (tech) {
  case NONE:
    return "NONE";
  case TRUREG:
    return "TRUREG";
  case NEWRAP:
    return "NEWRAP";
  case NRRIDG:
    return "NRRIDG";
  case NRLINS:
    return "NRLINS";
  case DBLDOG:
    return "DBLDOG";
  case QUANEW:
    return "QUANEW";
  case DUQUAN:
    return "DUQUAN";
  case CONGRA:
    return "CONGRA";
  case NMSIMP:
    return "NMSIMP";
  case NMSIM2:
    return "NMSIM2";
  default:
    return "";
  }
}

const char* criterion_name(int code)
{
  static constexpr const char* names[] = {"",      "ABSCONV", "ABSFCONV", "ABSGCONV", "ABSXCONV",
                                          "FCONV", "GCONV",   "XCONV",    "FCONV2",   "GCONV2"};
  return code >= 1 && code <= 9 ? names[code] : "";
}

void tvlopti(MINSTR* str)
{
  str->mini = -1;
  str->agtl_default = false;
  for (double MINSTR::*option :
       {&MINSTR::nres, &MINSTR::maxf, &MINSTR::max2, &MINSTR::maxi, &MINSTR::deat, &MINSTR::ldct,
        &MINSTR::ceps, &MINSTR::dhes, &MINSTR::sigm, &MINSTR::damp, &MINSTR::salf, &MINSTR::smax,
        &MINSTR::swfd, &MINSTR::ssin, &MINSTR::rtop, &MINSTR::sing, &MINSTR::upti, &MINSTR::cdig,
        &MINSTR::fdig, &MINSTR::fto2, &MINSTR::ftol, &MINSTR::aftl, &MINSTR::atol, &MINSTR::gtol,
        &MINSTR::agtl, &MINSTR::xtol, &MINSTR::axtl, &MINSTR::xsiz, &MINSTR::fsiz, &MINSTR::gto2})
    str->*option = missing;
  for (int MINSTR::*option : {&MINSTR::tech, &MINSTR::vers, &MINSTR::tupd, &MINSTR::hesc, &MINSTR::load, &MINSTR::tlin,
                              &MINSTR::gchk, &MINSTR::fidi, &MINSTR::fihs, &MINSTR::cfdh, &MINSTR::start_scale})
    str->*option = 0;
  str->smit = 0;
  std::fill(std::begin(str->toln), std::end(str->toln), 0L);
}

namespace {

bool uses_gradient_direction(int tech)
{
  return tech >= DBLDOG && tech <= CONGRA;
}
bool takes_hessians(int tech)
{
  return tech >= TRUREG && tech <= NRLINS;
}
bool is_simplex(int tech)
{
  return tech == NMSIMP || tech == NMSIM2;
}

void set_default(double& option, double value)
{
  if (is_missing(option)) option = value;
}

// Refusals and replacements of the technique. Returns false when the combination cannot run.
bool check_technique(MINSTR* str)
{
  bool runs = true;
  const auto refuse = [&](MessageKey why) {
    send_message(str, why, severity_error, {static_cast<double>(str->tech)});
    runs = false;
  };
  if (str->lsqu != 0 || str->linf != 0 || str->l1nm != 0) refuse(named("least_squares_not_available"));
  if (str->fqad != 0) refuse(named("quadratic_not_available"));
  if (str->tech < 1) {
    const long n = str->nvar;
    str->tech = n == 0 ? NONE : n < 40 ? QUANEW : n < 400 ? DUQUAN : CONGRA;
  }
  if (*technique_name(str->tech) == '\0') refuse(named("technique_not_available"));
  if (str->tech == NRLINS) send_message(str, named("nrlins_run_as_newrap"), severity_warning);
  if (str->lincon != 0 && is_simplex(str->tech)) refuse(named("simplex_with_linear_constraints"));
  if (str->nlicon != 0) refuse(named("nonlinear_constraints_not_available"));
  return runs;
}

// UPDATE: 1 to 5 are updates of the factor, 6 to 10 the same on the inverse, 11 and up the conjugate gradient rules.
bool check_update(MINSTR* str)
{
  if (str->tech == QUANEW && str->tupd < 6) str->tech = DUQUAN;
  const auto refuse = [&](MessageKey why) {
    send_message(str, why, severity_error, {static_cast<double>(str->tupd)});
    return false;
  };
  if (str->tech == QUANEW && str->tupd > 10) return refuse(named("update_not_of_quanew"));
  if ((str->tech == DBLDOG || str->tech == DUQUAN) && str->tupd > 5) return refuse(named("update_not_of_duquan"));
  if (str->tech == CONGRA && str->tupd != 0 && str->tupd < 11) return refuse(named("update_not_of_congra"));
  if (str->tech == QUANEW) str->tupd -= 5;
  if (str->tech == CONGRA) str->tupd -= 10;
  if (uses_gradient_direction(str->tech)) {
    if (str->tupd < 1 || str->tupd > 4) str->tupd = 1;
  } else {
    if (str->tupd != 0) send_message(str, named("update_ignored"), severity_warning);
    str->tupd = 0;
  }
  return true;
}

// Calls of the objective that one Hessian by differences costs, and MAXFUNC as default_limits will have it.
double calls_for_hessian(const MINSTR& str, bool from_values)
{
  const auto n = static_cast<double>(str.nvar);
  if (str.ushes != nullptr) return 0.0;
  if (from_values) return 2.0 * n * (n - 1.0) + (str.fidi == 2 ? 4.0 : 2.0) * n;
  return str.fihs == 2 ? 2.0 * n : n;
}

// A technique that cannot afford a handful of Hessians would spend its calls on the first ones and return the start:
// the quasi-Newton technique, which learns its matrix, does the work.
void check_cost(MINSTR* str)
{
  if (!takes_hessians(str->tech)) return;
  const bool from_values = (str->fidi != 0 && str->fihs == 0) || str->usgrd == nullptr;
  const double iterations = is_missing(str->maxi) ? 50.0 : str->maxi;
  const double limit =
      is_missing(str->maxf) ? std::max(125.0, 10.0 * iterations) * (from_values ? 10.0 : 1.0) : str->maxf;
  const double cost = calls_for_hessian(*str, from_values);
  constexpr double least_hessians = 5.0;
  if (!(least_hessians * cost >= limit) || !(limit > 0.0) || !(iterations > 1.0)) return;
  send_message(str, named("hessians_too_dear"), severity_note, {cost, limit});
  str->tech = DUQUAN;
  str->tupd = 1;
}

void default_technique_options(MINSTR* str)
{
  if (str->vers < 1 || str->vers > 3) str->vers = 2;
  set_default(str->nres, str->tech == CONGRA ? 0.0 : 2147483647.0);
  str->hesc = str->hesc < 1 ? 0 : str->hesc - 1;
  const bool scales =
      str->tech == TRUREG || str->tech == NEWRAP || str->tech == NRLINS || str->tech == NRRIDG || str->tech == DBLDOG;
  if (str->hesc != 0 && !scales) {
    send_message(str, named("hescal_ignored"), severity_warning);
    str->hesc = 0;
  }
  str->hesc = std::min(str->hesc, 3);
}

void default_constraint_options(MINSTR* str)
{
  set_default(str->ceps, 1e-8);
  str->ceps = std::max(str->ceps, tiny_threshold);
  set_default(str->ldct, 1e-8);
  str->ldct = std::clamp(str->ldct, 0.0, 0.1);
  if (str->deat == 0.0) str->deat = missing;
  if (!is_missing(str->deat)) {
    // The multipliers of a minimization that call for a drop are negative, and so is the option; the record keeps the
    // size.
    const bool wrong_sign = str->imax == 0 ? str->deat > 0.0 : str->deat < 0.0;
    if (wrong_sign) {
      send_message(str, named("lcdeact_ignored"), severity_warning, {str->deat});
      str->deat = missing;
    } else {
      str->deat = std::abs(str->deat);
    }
  }
  str->opro = str->lincon != 0 ? 1 : 0;
}

void default_line_search_options(MINSTR* str)
{
  const bool searches =
      str->tech == NEWRAP || str->tech == NRLINS || str->tech == QUANEW || str->tech == DUQUAN || str->tech == CONGRA;
  if (str->tlin < 1 || str->tlin > 8) str->tlin = 0;
  if (str->tlin != 0 && !searches && str->tech != NRRIDG)
    send_message(str, named("linesearch_ignored"), severity_warning);
  if (str->tlin == 0 && searches) str->tlin = 2;
  if (str->smit == 0 || is_missing(str->smax) || !(str->smax > 0.0)) str->smax = largest;
  if (is_missing(str->salf) || !(str->salf > 0.0)) str->salf = 1.0;
  if (!is_missing(str->damp) && !(str->damp > 0.0)) str->damp = missing;
  if (is_missing(str->damp) && (str->tech == NEWRAP || str->tech == NRLINS)) str->damp = 4.0;
  if (!(str->sigm > 0.0 && str->sigm < 1.0)) {
    const bool newton = str->tech == NEWRAP || str->tech == NRLINS;
    const bool quasi_newton = str->tech == QUANEW || str->tech == DUQUAN;
    str->sigm = newton ? 0.9 : quasi_newton && str->tupd == 2 ? 0.06 : quasi_newton && str->tupd == 1 ? 0.4 : 0.1;
  }
  if (is_missing(str->sing) || str->sing == 0.0) str->sing = 1e-8;
  if (!is_missing(str->rtop) && !(str->rtop > 0.0)) str->rtop = missing;
  if (is_missing(str->ssin) || !(str->ssin > 0.0)) str->ssin = 1e20;
}

void default_derivative_options(MINSTR* str)
{
  str->ider = str->tech == NONE || is_simplex(str->tech) ? 0 : takes_hessians(str->tech) ? 4 : 1;
  if (str->fidi != 0 && str->fihs != 0) {
    send_message(str, named("fd_ignored"), severity_warning);
    str->fidi = 0;
  }
  if (str->fidi == 0 && str->usgrd == nullptr) str->fidi = 3;
  str->gchk = str->gchk >= 1 && str->gchk <= 3 ? str->gchk - 1 : 0;
  if (str->gchk != 0 && str->fidi != 0) {
    send_message(str, named("gradcheck_ignored"), severity_warning);
    str->gchk = 0;
  }
  // FD=FORWARD and FD=CENTRAL mean what they say; FD alone starts forward and may switch.
  if (str->fidi == 1 || str->fidi == 2)
    str->swfd = -1.0;
  else
    set_default(str->swfd, 100.0);
  if (str->cfdh < 1 || str->cfdh > 3) str->cfdh = 0;
  str->cfdh = str->cfdh == 2 ? 0 : std::min(str->cfdh, 1); // there are no nonlinear constraints to search intervals for
  const double digits = -std::log10(machine_epsilon);
  // Three digits less than the machine's: an objective with a search inside is seldom better. FDIGITS tells otherwise.
  set_default(str->fdig, digits - 3.0);
  set_default(str->cdig, digits);
  str->fdig = std::clamp(str->fdig, 1.0, 2.0 * digits);
  str->cdig = std::clamp(str->cdig, 1.0, 2.0 * digits);
}

void default_limits(MINSTR* str)
{
  set_default(str->upti, largest);
  str->mini = std::max(str->mini, 0L);
  double iterations = 0.0;
  double calls = 0.0;
  switch (str->tech) {
  case TRUREG:
  case NEWRAP:
  case NRRIDG:
  case NRLINS:
    iterations = 50.0, calls = 125.0;
    break;
  case DBLDOG:
  case QUANEW:
  case DUQUAN:
    iterations = 200.0, calls = 500.0;
    break;
  case CONGRA:
    iterations = 400.0, calls = 1000.0;
    break;
  case NMSIMP:
  case NMSIM2:
    iterations = 1000.0, calls = 3000.0;
    break;
  default:
    break;
  }
  set_default(str->maxi, iterations);
  if (str->maxi < static_cast<double>(str->mini)) {
    send_message(str, named("maxiter_below_miniter"), severity_note, {str->maxi, static_cast<double>(str->mini)});
    str->maxi = static_cast<double>(str->mini);
  }
  set_default(str->max2, 20.0);
  if (is_missing(str->maxf)) str->maxf = std::max(calls, 10.0 * str->maxi) * (str->fidi != 0 ? 10.0 : 1.0);
}

void default_tolerances(MINSTR* str)
{
  const double root_largest = 1.3407807929943e+154;
  set_default(str->atol, str->imax != 0 ? root_largest : -root_largest);
  set_default(str->fsiz, 0.0);
  set_default(str->xsiz, 0.0);
  const bool simplex = is_simplex(str->tech);
  // With several blocks of random effects the objective carries the noise of an inner search at every level.
  const bool noisy = str->nreb >= 2;
  set_default(str->axtl, simplex ? 1e-8 : 0.0);
  set_default(str->aftl, 0.0);
  str->agtl_default = str->agtl_default || is_missing(str->agtl);
  set_default(str->agtl, noisy ? 1e-3 : 1e-5);
  set_default(str->ftol, std::exp(-2.302585092994046 * str->fdig));
  set_default(str->gtol, noisy ? 1e-6 : 1e-8);
  set_default(str->gto2, 0.0);
  set_default(str->xtol, simplex ? 1e-8 : 0.0);
  set_default(str->fto2, simplex ? 1e-6 : 0.0);
  if (simplex) str->agtl = str->gtol = str->gto2 = 0.0;
}

} // namespace

int tvloptc(MINSTR* str)
{
  if (str->nnva != str->nvar * (str->nvar + 1) / 2) return 1;
  const bool technique_runs = check_technique(str);
  const bool update_runs = technique_runs && check_update(str);
  if (!technique_runs || !update_runs) return 2000;
  check_cost(str);
  default_technique_options(str);
  default_constraint_options(str);
  default_line_search_options(str);
  default_derivative_options(str);
  default_limits(str);
  default_tolerances(str);
  if (str->uster == nullptr) str->uster = znlptrm;
  str->updat = str->tupd == 2 ? znlpdfp : znlpbfg;
  str->linse = line_search_routine(str->tlin);
  if (str->covstr != nullptr) covariance_defaults(str->covstr);
  return provide_technique_arrays(str);
}

} // namespace torvale::optimizer
