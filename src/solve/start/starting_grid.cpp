#include "solve/start/starting_grid.h"
#include "solve/start/point_selection.h"

#include "data/starting_values.h"
#include "evaluation/likelihood_programs.h"
#include "host/messages/names/fit.h"
#include "host/messages/names/optimization.h"
#include "host/messages/names/starting_values.h"
#include "integration/objective.h"
#include "solve/start/start_report.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace torvale::solve {

using model::FitState;
using model::NX;
using model::POINT;

namespace {

// Puts a point among the best; ties keep the older one in front. True when it is the new best.
bool keep_point(FitState& n, long p, double objective)
{
  auto& best = n.savepoint;
  const auto at = std::find_if(best.begin(), best.end(), [&](const POINT& q) { return q.obj > objective; });
  if (at == best.end()) return false;
  const bool first = at == best.begin();
  best.insert(at, {p, objective});
  best.pop_back();
  return first;
}

// The worst subjects at the first usable grid point; where all their records have a likelihood, that point is evaluated
// once more with the log open, unless it was open all the time.
void explain_failure(NX& n)
{
  for (long p = 0; p < n.npoints; ++p) {
    if (!data::grid_point(n, p, n.parm.data())) continue;
    if (report_worst_subjects(n) > 0 || n.itdetails) return;
    const bool details = std::exchange(n.itdetails, true);
    if (n.nqp < 1) n.nqp = 1;
    integration::tvllike(n);
    n.itdetails = details;
    return;
  }
}

// The values of the grid point in n.parm that are missing or outside their bounds.
std::string unusable_values(const NX& n)
{
  std::string text;
  for (std::size_t j = 0; j < n.parm.size(); ++j) {
    const auto& p = n.parmstr[j];
    const double value = n.parm[j];
    const bool low = p.applyl && value < p.lowbound, high = p.applyh && value > p.highbound;
    if (!std::isnan(value) && !low && !high) continue;
    text += (text.empty() ? "" : ", ") + p.parmname;
    text += std::isnan(value)
                ? " is missing"
                : " = " + host::readable(value) + (low ? " is below its bound " : " is above its bound ") +
                      host::readable(low ? p.lowbound : p.highbound);
  }
  return text.empty() ? "it has fewer rows than others" : text;
}

bool keeps_modes(const NX& n)
{
  return n.nreff() > 0 && n.method != 4 && (n.method != 1 || n.lb);
}

} // namespace

int tvlparm(NX& n)
{
  auto& log = n.host->log();
  n.savepoint.assign(static_cast<std::size_t>(n.nbest), {-1, model::failure_objective});
  // The fit starts from a single point with its gradient: it is evaluated once.
  n.dograd = n.npoints == 1 && n.str != nullptr && n.str->fidi == 0 && evaluation::can_evaluate(n).gradient;
  n.parm.resize(static_cast<std::size_t>(n.nparm));
  if (n.loglevel > 0) log.xpmlog(message::evaluating_grid{.count = n.npoints});
  if (n.npoints > 100000 && !n.bestspec) log.xpmlog(message::large_grid{.count = n.npoints});

  StartingTables tables(n);
  bool settled = false;
  for (long p = 0; p < n.npoints; ++p) {
    if (!data::grid_point(n, p, n.parm.data())) {
      log.xpmlog(message::starting_point_not_used{.point = p + 1, .values = unusable_values(n)});
      n.raise(4);
      continue;
    }
    if (!settled) {
      const int rc = settle_points(n);
      if (rc == 2) {
        n.raise(1012);
        return 1;
      }
      if (rc == 1) continue; // no value here; the next point may have one
      settled = true;
      tables.open();
    } else {
      integration::tvllike(n);
    }
    if (!n.bestspec) tables.point(n.parm.data(), n.objfun);
    if (keep_point(n, p, n.objfun) && keeps_modes(n)) {
      n.ebesold = n.ebtrial;
      n.ebesold_known = n.ebtrial_known;
    }
    if (n.host->interrupted()) break;
  }

  if (n.savepoint.empty() || n.savepoint[0].parmnum < 0) {
    explain_failure(n);
    if (n.ebstep <= 0 && !n.ebopt && keeps_modes(n)) log.xpmlog(message::no_mode_steps);
    message::no_starting_point words;
    if (n.npoints > 1) words.count = n.npoints;
    log.xpmlog(words);
    n.raise(1012);
    return 1;
  }
  if (n.bestspec) {
    std::vector<double> theta(static_cast<std::size_t>(n.nparm));
    for (const POINT& q : n.savepoint) {
      if (q.parmnum < 0) break;
      data::grid_point(n, q.parmnum, theta.data());
      tables.point(theta.data(), q.obj);
    }
  }
  data::grid_point(n, n.savepoint[0].parmnum, n.parm.data());
  n.objfun = n.savepoint[0].obj;
  if (keeps_modes(n)) {
    n.ebes = std::exchange(n.ebesold, {});
    n.ebes_point.clear();
    n.ebes_known = n.ebesold_known;
  }
  return 0;
}

} // namespace torvale::solve
