#include "probability/student.h"

#include "probability/beta.h"
#include "probability/constants.h"
#include "probability/f.h"
#include "probability/normal.h"
#include "probability/special/log_gamma.h"

#include <cmath>

namespace torvale::probability {

// P(|T| > |t|) is the upper tail of F(1, df) at t^2; far out, where t^2 overflows, it is taken at the logit.
Tails student_tails(double t, double df)
{
  if (std::isnan(t) || !(df > 2.0 * dmin))
    return {not_a_number, not_a_number, not_a_number, not_a_number, not_a_number};
  if (std::isinf(df)) return normal_tails(t);
  if (std::isinf(t)) {
    const Tails left{0.0, 1.0, -infinity, 0.0, -infinity};
    return t < 0.0 ? left : exchanged(left);
  }
  const double size = std::fabs(t);
  const double log_ratio = 2.0 * std::log(size) - std::log(df); // log of t^2/df
  const double log1p_ratio = log_ratio < -40.0  ? std::exp(log_ratio)
                             : log_ratio > 40.0 ? log_ratio
                                                : std::log1p(size / df * size);
  Tails both; // upper: beyond |t| on either side
  if (log_ratio > -600.0 && log_ratio < 600.0 && df < 1e150) {
    both = f_tails(size * size, 1.0, df);
  } else if (t == 0.0) {
    both = {0.0, 1.0, -infinity, 0.0, 0.0};
  } else {
    both = exchanged(beta_tails(beta_point_logit(-log_ratio), 0.5 * df, 0.5));
  }
  Tails left; // at -|t|
  left.lower = 0.5 * both.upper;
  left.upper = 0.5 * (1.0 + both.lower);
  left.log_lower = both.log_upper - ln2;
  left.log_upper = std::log1p(-left.lower);
  left.log_density = log_gamma_ratio(0.5 * df, 0.5) - 0.5 * (std::log(df) + ln_pi) - 0.5 * (df + 1.0) * log1p_ratio;
  return t <= 0.0 ? left : exchanged(left);
}

int zpgt2New(double t2, double df, double* p)
{
  return zprbfNew(t2, 1.0, df, p);
}

double zpgt2(double t2, double df)
{
  return zprbf(t2, 1.0, df);
}

double zpgt2f(double t2, double df)
{
  return zprbf(t2, 1.0, df);
}

} // namespace torvale::probability
