#include "solve/judgement/fit_end.h"

#include "host/messages/names/fit.h"
#include "solve/judgement/fit_codes.h"
#include "solve/judgement/spread_start.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

using optimizer::MINSTR;

namespace {

constexpr int most_trials = 4; // of vanished variances that lead to a better minimum

} // namespace

const FitEnd::Stage FitEnd::stages[] = {
    &FitEnd::technique,          // with as many points as its end asks for, and the Hessian there
    &FitEnd::point_of_technique, // where it stands, evaluated
    &FitEnd::clear_minimum,      // most fits end here: that Hessian leaves no doubt
    &FitEnd::more_iterations,    // where a default limit came first
    &FitEnd::rounds,             // judge, and go on in the judge's coordinates, until a minimum is confirmed
    &FitEnd::without_effects,    // is there a lower minimum where a variance is 0?
    &FitEnd::while_it_falls,     // beyond the default limits
    &FitEnd::from_the_start,     // in doubt: once more from the starting values
    &FitEnd::from_spread_start,  // and where the likelihood knows the parameters from which it did not
};

int FitEnd::run()
{
  const MINSTR& str = *n_.str;
  maxiter_ = str.maxi;
  maxfunc_ = str.maxf;
  start_.assign(str.x, str.x + n_.nparm);
  for (const Stage stage : stages) {
    const Then then = (this->*stage)();
    if (then == Then::nothing) return code_;
    if (then == Then::outcome) break;
  }
  finish();
  tell_what_was_gained();
  return code_;
}

FitEnd::Then FitEnd::technique()
{
  code_ = run_technique();
  if (n_.nparm == 0 || n_.noopt || n_.host->interrupted() || n_.str->stop != 0) return Then::nothing;
  return met_criterion(code_) || stuck(code_) || default_limit(n_, code_) ? Then::next : Then::nothing;
}

FitEnd::Then FitEnd::point_of_technique()
{
  const MINSTR& str = *n_.str;
  x_.assign(str.x, str.x + n_.nparm);
  f_ = str.crit;
  g_.assign(str.grad, str.grad + n_.nparm);
  evaluated_ = std::isfinite(f_) && std::all_of(g_.begin(), g_.end(), [](double v) { return std::isfinite(v); });
  if (!evaluated_) {
    move_to(x_);
    if (!std::isfinite(f_) || n_.failed) return Then::nothing;
  }
  if (back_to_edge()) move_to(x_);
  iterations_ = str.nitr;
  return Then::next;
}

FitEnd::Then FitEnd::clear_minimum()
{
  const bool clear = evaluated_ && (judgement_.measured || quickly_confirmed());
  return clear && (ended_by_user() || (sharp() && !try_without_effects())) ? Then::outcome : Then::next;
}

FitEnd::Then FitEnd::more_iterations()
{
  f_technique_ = f_;
  extend_default_limits(n_);
  if (default_limit(n_, code_)) take_turns();
  return Then::next;
}

FitEnd::Then FitEnd::rounds()
{
  settle();
  return Then::next;
}

FitEnd::Then FitEnd::without_effects()
{
  for (int trial = 0; trial < most_trials && !ended_by_user() && try_without_effects(); ++trial) settle();
  return Then::next;
}

FitEnd::Then FitEnd::while_it_falls()
{
  fall_on();
  return Then::next;
}

FitEnd::Then FitEnd::from_the_start()
{
  if (doubtful()) begin_again(start_);
  return Then::next;
}

FitEnd::Then FitEnd::from_spread_start()
{
  if (!doubtful()) return Then::outcome;
  std::vector<double> start;
  if (spread_start(n_, lost_parameters(n_, *coordinates_, judgement_, x_, f_), start_, start)) begin_again(start);
  return Then::outcome;
}

bool FitEnd::ended_by_user() const
{
  return given_by_user(n_, code_);
}

// What the confirmation lowered is told, and the limits are those of the program again.
void FitEnd::tell_what_was_gained()
{
  MINSTR& str = *n_.str;
  str.maxi = maxiter_;
  str.maxf = maxfunc_;
  if (str.nitr > iterations_ && 2.0 * (f_technique_ - f_) >= gain_allowed)
    n_.host->log().xpmlog(message::confirmation_lowered_objective{
        .iterations = static_cast<long>(str.nitr - iterations_), .from = 2.0 * f_technique_, .to = 2.0 * f_});
}

} // namespace torvale::solve
