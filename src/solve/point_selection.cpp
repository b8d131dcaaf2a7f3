#include "host/message_names.h"
#include "solve/starting_grid.h"

#include "integration/objective.h"
#include "integration/quadrature_points.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

using model::NX;

namespace {

double evaluate_with(NX& n, int points)
{
  n.nqp = points;
  integration::tvlqpts(n);
  integration::size_contexts(n);
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

} // namespace

int settle_points(NX& n)
{
  const bool chooses = n.nreff() > 0 && (n.method == 0 || n.method == 3) && n.nqp == -1;
  if (!chooses) {
    if (n.nreff() > 0) integration::tvlqpts(n);
    integration::size_contexts(n);
    integration::tvllike(n);
    return has_value(n.objfun) ? 0 : 1;
  }

  double f = evaluate_with(n, n.method == 0 ? 1 : 10);
  double change = 1.0;
  if (failed_before_points(n)) {
    n.nqp = -1;
    return 1;
  }
  for (;;) {
    n.nqpold = n.nqp;
    const double accepted = f;                             // objective of the count nqpold
    const double fold = std::abs(f) < n.qtol ? n.qtol : f; // guarded denominator
    const int next = n.nqp < 10 ? n.nqp + 2 : static_cast<int>(n.nqp + n.qfac);
    if (next > n.qmax) {
      message::integral_not_accurate words{.points = n.nqpold, .change = change, .tolerance = n.qtol};
      // Rules that do not follow the integrand need many points, and often more than QMAX= has.
      if (n.method == 0 && !(n.adaptive && n.adscale)) words.option = n.adaptive ? "NOADSCALE" : "NOAD";
      n.host->log().xpmlog(words);
      return 2;
    }
    f = evaluate_with(n, next);
    if (!has_value(f)) continue;
    change = std::abs(f - fold) / std::abs(fold);
    if (!(change < n.qtol) || !has_value(accepted)) continue;
    // The smaller of the two counts; its modes and objective are those that follow.
    evaluate_with(n, n.nqpold);
    return 0;
  }
}

} // namespace torvale::solve
