#include "probability/f.h"

#include "probability/beta.h"
#include "probability/chi_square.h"
#include "probability/constants.h"

#include <cmath>

namespace torvale::probability {
namespace {

// x = ddf/(f ndf + ddf) and y = 1 - x = f ndf/(f ndf + ddf), each formed by itself: x rounds to 1 for large ddf.
BetaPoint beta_point_of_f(double f, double ndf, double ddf)
{
  const double product = f * ndf;
  const double sum = product + ddf;
  const double x = ddf / sum;
  const double y = product / sum;
  if (product > dmin && sum < infinity && x > dmin && y > dmin) return beta_point_pair(x, y);
  return beta_point_logit(std::log(ddf) - std::log(f) - std::log(ndf));
}

} // namespace

Tails f_tails(double f, double ndf, double ddf)
{
  if (!(f >= 0.0 && ndf > 0.0 && ddf > 0.0)) {
    return {not_a_number, not_a_number, not_a_number, not_a_number, not_a_number};
  }
  if (std::isinf(ddf)) {
    Tails t = chi_square_tails(f * ndf, ndf);
    t.log_density += std::log(ndf);
    return t;
  }
  if (f == 0.0) return {0.0, 1.0, -infinity, 0.0, ndf < 2.0 ? infinity : ndf == 2.0 ? 0.0 : -infinity};
  if (std::isinf(f)) return {1.0, 0.0, 0.0, -infinity, -infinity};
  const BetaPoint point = beta_point_of_f(f, ndf, ddf);
  Tails t = exchanged(beta_tails(point, 0.5 * ddf, 0.5 * ndf)); // large f is small x
  t.log_density += point.log_x + point.log_y - std::log(f);     // |dx/df| = x y / f
  return t;
}

int zprbfNew(double f, double ndf, double ddf, double* p)
{
  *p = not_a_number;
  if (!(f >= 0.0 && ndf > 0.0 && ddf > 0.0)) return -1;
  const double upper = f_tails(f, ndf, ddf).upper;
  if (std::isnan(upper)) return -2;
  *p = upper;
  return 0;
}

double zprbf(double f, double ndf, double ddf)
{
  double p;
  const int code = zprbfNew(f, ndf, ddf, &p);
  return code == 0 ? p : code;
}

} // namespace torvale::probability
