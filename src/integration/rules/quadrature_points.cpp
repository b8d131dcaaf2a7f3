#include "integration/rules/quadrature_points.h"

#include "host/messages/names/statements.h"
#include "probability/random.h"

#include <cmath>

namespace torvale::integration {

using model::GroupState;
using model::NX;
using model::REFFECT;

namespace {

constexpr double root_two_pi = 2.5066282746310007;
constexpr double most_points = 5e7; // of one subject: beyond it an evaluation would not end
constexpr int most_per_dimension =
    5000; // a rule takes time with the square; from about 700 on new points have no weight

// Product rule: the first dimension varies fastest.
void product_points(const GroupState& n, REFFECT& reff)
{
  const auto points = static_cast<std::size_t>(reff.nqpr);
  const auto nqp = static_cast<std::size_t>(n.nqp);
  for (std::size_t t = 0; t < points; ++t) {
    std::size_t digits = t;
    double logw = 0.0;
    for (std::size_t k = 0; k < static_cast<std::size_t>(reff.nr); ++k, digits /= nqp) {
      const double x = n.absc[digits % nqp], w = n.herm[digits % nqp];
      reff.points[k * points + t] = x;
      logw = w == model::failed_point || logw == model::failed_point ? model::failed_point : logw + (x * x + w);
    }
    reff.logw[t] = logw;
  }
}

// Importance sampling: a standard normal sample, drawn point after point from the seed of the run, so that a larger
// sample extends a smaller one. The weight's constant does not grow with the dimension.
void sample_points(const NX& n, REFFECT& reff)
{
  std::int64_t seed = n.seed;
  const auto points = static_cast<std::size_t>(reff.nqpr);
  for (std::size_t t = 0; t < points; ++t) {
    double square = 0.0;
    for (std::size_t k = 0; k < static_cast<std::size_t>(reff.nr); ++k) {
      const double x = probability::zrannor(&seed);
      reff.points[k * points + t] = x;
      square += x * x;
    }
    reff.logw[t] = 0.5 * square + std::log(root_two_pi / n.nqp);
  }
}

} // namespace

int tvlqpts(NX& n)
{
  const auto refuse = [&] {
    n.host->log().xpmlog(message::quadrature_points_failed{.points = n.nqp});
    n.raise(1012);
    return 1012;
  };
  if (n.method == 0) {
    if (n.nqp > most_per_dimension) return refuse();
    n.absc.resize(static_cast<std::size_t>(n.nqp));
    n.herm.resize(static_cast<std::size_t>(n.nqp));
    int dropped = 0;
    if (GaussHermite(n.nqp, n.absc.data(), n.herm.data(), 0.0, 0.0, dropped) != 0) return refuse();
    if (dropped > 0) n.host->log().xpmlog(message::quadrature_points_dropped{.points = n.nqp, .kept = n.nqp - dropped});
  }
  if (n.method == 1 || n.method == 2) return 0; // they have no points of their own
  double joint = 1.0;                           // of the chain of a leaf
  for (REFFECT& reff : n.reff) {
    if (reff.distrtype != 0) continue; // support points come from the statement
    const double points = n.method == 0 ? std::pow(n.nqp, reff.nr) : n.nqp;
    joint *= points;
    if (!(joint <= most_points)) return refuse();
    reff.nqpr = static_cast<long>(points);
    reff.points.resize(static_cast<std::size_t>(reff.nqpr) * static_cast<std::size_t>(reff.nr));
    reff.logw.resize(static_cast<std::size_t>(reff.nqpr));
    if (n.method == 0)
      product_points(n, reff);
    else
      sample_points(n, reff);
  }
  return 0;
}

} // namespace torvale::integration
