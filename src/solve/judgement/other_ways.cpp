#include "solve/judgement/fit_end.h"

#include "host/messages/names/fit.h"
#include "solve/judgement/by_turns.h"
#include "solve/judgement/fit_codes.h"
#include "solve/judgement/fresh_start.h"
#include "solve/judgement/vanished_variance.h"

namespace torvale::solve {

namespace {

constexpr int most_extensions = 3; // of default limits, while a round gains `much` in -2 log L

} // namespace

// More iterations than the default limits for a fit that is still falling.
void FitEnd::fall_on()
{
  for (int more = 0; more < most_extensions && falling_ && out_of_iterations(n_); ++more) {
    extend_default_limits(n_);
    take_turns();
    settle();
  }
}

// The residual variance and the other parameters by turns, where a fit falls slowly and for long.
void FitEnd::take_turns()
{
  const double before = f_;
  double f = f_;
  if (std::vector<double> x(x_); by_turns(n_, x, f)) move_to(x);
  falling_ = 2.0 * (before - f_) >= much;
}

// True when a variance that the data hardly tell from 0 has a better minimum there: the fit is at it then.
bool FitEnd::try_without_effects()
{
  if (!judgement_.minimum() || stopped()) return false;
  const host::StageScope stage(n_.host->stages(), host::Stage::covariance);
  const auto better = vanished_variance(n_, *coordinates_, judgement_, x_, f_);
  if (!better) return false;
  n_.host->log().xpmlog(
      message::lower_without_effect{.name = n_.parmstr[static_cast<std::size_t>(better->variance)].parmname,
                                    .from = 2.0 * f_,
                                    .to = 2.0 * better->f});
  move_to(better->x);
  return true;
}

// From another place, which takes the fit's where it leads lower.
void FitEnd::begin_again(const std::vector<double>& start)
{
  extend_default_limits(n_);
  std::vector<double> x;
  double f = 0.0;
  if (stopped() || !fresh_start(n_, start, scales_, x, f) || 2.0 * (f_ - f) < gain_allowed) return;
  coordinates_.reset();
  falling_ = 2.0 * (f_ - f) >= much;
  move_to(x);
  settle();
  fall_on();
}

} // namespace torvale::solve
