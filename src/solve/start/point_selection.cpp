#include "solve/start/point_selection.h"
#include "host/messages/names/fit.h"
#include "host/messages/names/starting_values.h"

#include "host/host_exit.h"
#include "host/values/whole_number.h"
#include "integration/objective.h"
#include "integration/other_modes.h"
#include "integration/rules/quadrature_points.h"
#include "model/distribution_labels.h"
#include "model/subject_names.h"
#include "syntax/statement_names.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace torvale::solve {

using model::NX;
using model::RunOptions;

namespace {

// A point set that cannot be built ends the group: every evaluation would need it.
void build_points(NX& n)
{
  if (integration::tvlqpts(n) != 0) host::xexit(n.tvlrc, 0);
}

double evaluate_with(NX& n, int points)
{
  take_points(n, points);
  integration::tvllike(n);
  return n.objfun;
}

bool has_value(double objective)
{
  return objective < model::failure_objective;
}

// Points can mend a sum over them that came out zero; a failure before the points were reached stays one.
bool failed_before_points(const NX& n)
{
  if (!n.failed) return false;
  const auto first = std::find_if(n.slot_status.begin(), n.slot_status.end(), [](int status) { return status != 0; });
  return first != n.slot_status.end() && *first != 354 && *first != 355; // those two: the sum over the points is zero
}

// The next count that is tried, 0 when it would pass QMAX=.
int next_count(const RunOptions& n, int points)
{
  const int next = points < 10 ? points + 2 : static_cast<int>(points + n.qfac);
  return next > n.qmax ? 0 : next;
}

double relative_change(const RunOptions& n, double from, double to)
{
  const double guarded = std::abs(from) < n.qtol ? n.qtol : from;
  return std::abs(to - from) / std::abs(guarded);
}

// A fit questions its points at the estimates. Where nothing is fitted the count is held to the finer rule at once: two
// counts can agree and both be wrong.
bool stands_alone(NX& n, int points, double objective)
{
  const int finer = finer_points(n, points);
  if (!n.noopt || n.method != 0 || !affordable_points(n, points, finer)) return true;
  const double f = evaluate_with(n, finer);
  return !has_value(f) || relative_change(n, objective, f) < n.qtol;
}

constexpr double told_change = 0.1; // in -2 log L, of more points at the estimates: a warning

// How much dearer an evaluation gets.
double times_as_dear(const NX& n, int in_use, int points)
{
  double dimensions = 0.0; // of the points of one innermost subject: the effects of all levels
  for (const auto& level : n.reff) dimensions += level.nr;
  return std::pow(static_cast<double>(points) / in_use, dimensions);
}

bool tolerance_given(const NX& n)
{
  return n.proc->statements.front().given(syntax::torvale_slot::qtol);
}

// The objective by which changes at the estimates are judged. That of a density has the logarithm of the response's
// unit in it, once for each observation: there an observation counts as 1.
double size_at_estimates(const NX& n, double objective)
{
  if (tolerance_given(n) || model::has_probabilities(n.disttype)) return objective;
  const double replicates = n.outer().nrepsub / static_cast<double>(std::max<std::size_t>(n.outer().SubInfo.size(), 1));
  return static_cast<double>(n.store->nobsu) * replicates;
}

bool within_tolerance(const NX& n, double f, double g)
{
  const double size = size_at_estimates(n, f);
  return relative_change(n, size, size + (g - f)) < n.qtol;
}

// Whether two sums at the estimates differ by so little that the smaller count will do. A share of the objective can be
// much in large data: where QTOL= is the default, and the next count is not much dearer than the one in use, the
// verdict shall have nothing to warn of either.
bool agree(const NX& n, double f, double g, double dearer)
{
  constexpr double much_dearer = 4.0;
  if (!within_tolerance(n, f, g)) return false;
  return tolerance_given(n) || dearer > much_dearer || 2.0 * std::abs(g - f) <= told_change;
}

// With its gradient where that is wanted and there, else the value alone.
void evaluate_start(NX& n)
{
  integration::tvllike(n);
  if (!n.failed || !n.dograd) return;
  n.dograd = false;
  integration::tvllike(n);
}

// More points around a mode say nothing of another one.
void warn_of_other_modes(NX& n)
{
  constexpr double told = 0.1; // of -2 log L, as for the points
  integration::OtherModes found;
  if (integration::find_other_modes(n, found) > 2 || !(found.change < -told)) return;
  message::integrands_have_other_modes words{
      .count = found.subjects,
      .looked = found.looked,
      .subject = model::subject_name(n, n.leaf().SubInfo[static_cast<std::size_t>(found.worst)]),
      .change = found.change};
  n.host->log().xpmlog(words);
  n.raise(4);
}

} // namespace

void take_points(NX& n, int points)
{
  n.nqp = points;
  build_points(n);
  integration::size_contexts(n);
}

bool affordable_points(const NX& n, int in_use, int points)
{
  constexpr double most_times_as_dear = 125.0, most_points = 20000.0; // in evaluations of the fit; of one subject
  return times_as_dear(n, in_use, points) <= most_times_as_dear && times_as_dear(n, 1, points) <= most_points;
}

int finer_points(const NX& n, int points)
{
  constexpr int past_three = 5;
  return points == 1 && affordable_points(n, 1, past_three) ? past_three : 2 * points + 1;
}

bool PointsAsked::here(const NX& n) const
{
  return in_use == n.nqp && !at.empty() && std::equal(at.begin(), at.end(), n.str->x);
}

bool chooses_points(const NX& n)
{
  return n.nreff() > 0 && (n.method == 0 || n.method == 3) && !n.nqpspec && !n.noopt;
}

bool more_points(NX& n, PointsAsked& asked)
{
  if (!chooses_points(n) || n.host->interrupted() || asked.here(n)) return false;
  asked = {.at = {n.str->x, n.str->x + n.nparm}};
  const int in_use = n.nqp;
  n.verdict.cut_short_by_qmax = false;
  n.parm.assign(n.str->x, n.str->x + n.nparm);
  n.dograd = false;
  int count = in_use;
  double f = n.str->crit;
  bool settled = false, close = false;
  const bool compared_later = n.method == 0 && affordable_points(n, in_use, finer_points(n, in_use));
  if (compared_later && next_count(n, in_use) > 0) {
    asked.finer = finer_points(n, in_use);
    asked.objective = evaluate_with(n, asked.finer);
    settled =
        has_value(asked.objective) && agree(n, f, asked.objective, times_as_dear(n, in_use, next_count(n, in_use)));
  }
  while (!settled) {
    const int next = next_count(n, count);
    if (next == 0) {
      n.verdict.cut_short_by_qmax = !close;
      break;
    }
    const double dearer = times_as_dear(n, in_use, next);
    // A count that agrees with one larger by more than the next is enough; two neighbours can agree and both be wrong.
    const bool held = count < asked.finer && has_value(asked.objective);
    if (held && count > in_use && agree(n, f, asked.objective, dearer)) break;
    const double g = next == asked.finer ? asked.objective : evaluate_with(n, next);
    if (!has_value(g) || (!held && agree(n, f, g, dearer))) break;
    close = within_tolerance(n, f, g);
    count = next;
    f = g;
  }
  take_points(n, count);
  asked.in_use = in_use;
  if (count > in_use) n.host->log().xpmlog(message::more_points_at_estimates{.points = count, .before = in_use});
  return count > in_use;
}

void check_points(NX& n, const PointsAsked& asked)
{
  auto& verdict = n.verdict;
  const auto leave_out = [&](const char* why) { verdict.quadrature_reason = why; };
  if (n.nreff() == 0 || n.nqp < 1 || n.host->interrupted()) return;
  if (verdict.cut_short_by_qmax) {
    n.host->log().xpmlog(message::more_points_than_qmax{.tolerance = n.qtol, .points = n.nqp});
    n.raise(4);
  }
  warn_of_other_modes(n);
  if (n.method != 0) return leave_out("only quadrature has a finer rule to compare with");
  const int in_use = n.nqp, finer = finer_points(n, in_use);
  if (!affordable_points(n, in_use, finer)) return leave_out("an evaluation with twice the points would cost too much");
  const bool with_gradient = n.dograd;
  n.dograd = false;
  const double at_estimates = n.objfun;
  const double f = asked.here(n) && asked.finer == finer ? asked.objective : evaluate_with(n, finer);
  if (has_value(f)) verdict.quadrature_change = 2.0 * (f - n.str->crit);
  if (std::abs(verdict.quadrature_change) > told_change) {
    n.host->log().xpmlog(
        message::integral_changes_with_points{.points = finer, .before = in_use, .change = verdict.quadrature_change});
    n.raise(4);
  }
  // What follows starts from the points in use; who wants an evaluation with them makes it.
  take_points(n, in_use);
  n.dograd = with_gradient;
  n.objfun = at_estimates;
}

int settle_points(NX& n)
{
  const bool chooses = n.nreff() > 0 && (n.method == 0 || n.method == 3) && n.nqp == -1;
  if (!chooses) {
    if (n.nreff() > 0) build_points(n);
    integration::size_contexts(n);
    evaluate_start(n);
    return has_value(n.objfun) ? 0 : 1;
  }
  const bool with_gradient = std::exchange(n.dograd, false);

  double f = evaluate_with(n, n.method == 0 ? 1 : 10);
  double change = 1.0;
  if (failed_before_points(n)) {
    n.nqp = -1;
    return 1;
  }
  for (;;) {
    n.nqpold = n.nqp;
    const double accepted = f; // objective of the count nqpold
    const double next = n.nqp < 10 ? n.nqp + 2 : std::floor(n.nqp + n.qfac);
    if (next > n.qmax) {
      message::integral_not_accurate words{.points = n.nqpold, .change = change, .tolerance = n.qtol};
      // Rules that do not follow the integrand need many points, and often more than QMAX= has.
      if (n.method == 0 && !(n.adaptive && n.adscale)) words.option = n.adaptive ? "NOADSCALE" : "NOAD";
      n.host->log().xpmlog(words);
      return 2;
    }
    const int tried = host::whole_number(next);
    f = evaluate_with(n, tried);
    if (!has_value(f)) continue;
    change = relative_change(n, accepted, f);
    if (!(change < n.qtol) || !has_value(accepted)) continue;
    if (!stands_alone(n, n.nqpold, accepted)) {
      n.nqp = tried;
      continue;
    }
    // The smaller of the two counts; its modes and objective are those that follow.
    n.dograd = with_gradient;
    take_points(n, n.nqpold);
    evaluate_start(n);
    return 0;
  }
}

} // namespace torvale::solve
