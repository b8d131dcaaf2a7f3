#include "probability/quantiles.h"

#include "probability/constants.h"
#include "probability/gamma.h"
#include "probability/normal.h"
#include "probability/special/log_gamma.h"

#include <algorithm>
#include <cmath>

namespace torvale::probability {
namespace {

constexpr double log_range = 1500.0; // exp(-log_range/2) underflows: the t quantile is the square root of a ratio

// The normal deviate of the target, from its smaller tail.
double deviate(TailTarget target)
{
  if (target.log_lower <= target.log_upper) return normal_quantile_log(target.log_lower);
  return -normal_quantile_log(target.log_upper);
}

bool usable(TailTarget target)
{
  return target.log_lower <= 0.0 && target.log_upper <= 0.0;
}

struct Shapes {
  double a;
  double b;
};

Tails beta_at_logit(const void* distribution, double w)
{
  const auto& shapes = *static_cast<const Shapes*>(distribution);
  const BetaPoint point = beta_point_logit(w);
  Tails t = beta_tails(point, shapes.a, shapes.b);
  t.log_density += point.log_x + point.log_y; // dx/dw = x y
  return t;
}

Tails gamma_at_log(const void* distribution, double w)
{
  Tails t = gamma_tails_at_log(w, *static_cast<const double*>(distribution));
  t.log_density += w; // dz/dw = z
  return t;
}

// First trial for log(x/y). Both shapes above 1: Cornish-Fisher on the normal deviate (Abramowitz and Stegun 26.5.22).
// Otherwise the leading power of the lower or the upper tail, P = x^a/(a B), whichever gives a point near its end.
double beta_start(TailTarget target, double a, double b)
{
  if (a > 1.0 && b > 1.0) {
    const double g = -deviate(target);
    const double r = (g * g - 3.0) / 6.0;
    const double s = 1.0 / (2.0 * a - 1.0);
    const double t = 1.0 / (2.0 * b - 1.0);
    const double h = 2.0 / (s + t);
    const double w = g * std::sqrt(std::max(0.0, h + r)) / h - (t - s) * (r + 5.0 / 6.0 - 2.0 / (3.0 * h));
    return std::log(a / b) - 2.0 * w;
  }
  const double log_x = (target.log_lower + log_scaled_beta(a, b)) / a;
  const double log_y = (target.log_upper + log_scaled_beta(b, a)) / b;
  if (log_x <= std::min(log_y, -ln2)) return log_x;
  if (log_y <= -ln2) return -log_y;
  return std::log(a / b);
}

// log(x/y) of the beta quantile.
double beta_logit_quantile(TailTarget target, double a, double b)
{
  const Shapes shapes{a, b};
  QuantileSearch search;
  search.tails = beta_at_logit;
  search.distribution = &shapes;
  search.target = target;
  search.low = -log_range;
  search.high = log_range;
  search.start = beta_start(target, a, b);
  return zquant(&search) == 0 ? search.x : not_a_number;
}

// First trial for log z: Wilson and Hilferty's cube root, or the leading power P = z^a/Gamma(a + 1) near 0.
double gamma_start(TailTarget target, double a)
{
  const double cube_root = 1.0 - 1.0 / (9.0 * a) + deviate(target) / (3.0 * std::sqrt(a));
  const double leading = (target.log_lower + log_gamma_1p(a)) / a;
  if (cube_root < 0.3 || (a < 1.0 && leading < -1.0)) return leading;
  return std::log(a) + 3.0 * std::log(cube_root);
}

// The size of t from the logarithms of P(|T| > t) and P(|T| < t): t^2 = df y/x with x beta distributed (df/2, 1/2).
double student_size(double log_outside, double log_inside, double df)
{
  const double w = beta_logit_quantile({log_outside, log_inside}, 0.5 * df, 0.5);
  return std::sqrt(df) * std::exp(-0.5 * w);
}

// Above this many degrees of freedom t is the normal deviate z and one correction (Abramowitz and Stegun 26.7.5); the
// next term is z^4/(20 df^2) of it.
constexpr double nearly_normal = 1e10;

double nearly_normal_quantile(double z, double df)
{
  return z + z * (z * z + 1.0) / (4.0 * df);
}

} // namespace

BetaPoint beta_quantile(TailTarget target, double a, double b)
{
  constexpr BetaPoint outside{not_a_number, not_a_number, not_a_number, not_a_number};
  if (!(usable(target) && a > dmin && b > dmin)) return outside;
  if (target.log_lower == -infinity) return {0.0, 1.0, -infinity, 0.0};
  if (target.log_upper == -infinity) return {1.0, 0.0, 0.0, -infinity};
  const double w = beta_logit_quantile(target, a, b);
  return std::isnan(w) ? outside : beta_point_logit(w);
}

double gamma_quantile(TailTarget target, double a)
{
  if (!(usable(target) && a > dmin && a < infinity)) return not_a_number;
  if (target.log_lower == -infinity) return 0.0;
  if (target.log_upper == -infinity) return infinity;
  QuantileSearch search;
  search.tails = gamma_at_log;
  search.distribution = &a;
  search.target = target;
  search.low = -log_range;
  // Chernoff: log Q(a, z) <= a - z + a log(z/a), which at z = 4 (a + t) is below -t.
  search.high = std::log(4.0 * (a - target.log_upper));
  search.start = gamma_start(target, a);
  return zquant(&search) == 0 ? std::exp(search.x) : not_a_number;
}

// F = (ddf/ndf)(y/x) with x beta distributed (ddf/2, ndf/2): the lower tail of F is the upper one of x.
double f_quantile(TailTarget target, double ndf, double ddf)
{
  if (!(usable(target) && ndf > dmin && ddf > dmin)) return not_a_number;
  if (target.log_lower == -infinity) return 0.0;
  if (target.log_upper == -infinity) return infinity;
  if (ddf > 2.0 * largest_shape) return gamma_quantile(target, 0.5 * ndf) * 2.0 / ndf;
  const double w = beta_logit_quantile({target.log_upper, target.log_lower}, 0.5 * ddf, 0.5 * ndf);
  return ddf / ndf * std::exp(-w);
}

double student_quantile(TailTarget target, double df)
{
  if (!(usable(target) && df > dmin)) return not_a_number;
  const bool left = target.log_lower <= target.log_upper;
  const double log_tail = left ? target.log_lower : target.log_upper;
  if (log_tail == -infinity) return left ? -infinity : infinity;
  if (df > nearly_normal && log_tail > -1e5) return nearly_normal_quantile(deviate(target), df);
  if (std::isinf(df)) return deviate(target);
  const double log_outside = log_tail + ln2;
  if (log_outside >= 0.0) return 0.0;
  const double size = student_size(log_outside, log_complement(log_outside), df);
  return left ? -size : size;
}

int zprobin(double p, double a, double b, double* x)
{
  if (!(p >= 0.0 && p <= 1.0 && a > 0.0 && b > 0.0 && a <= largest_shape && b <= largest_shape)) return 1;
  const double quantile = beta_quantile(lower_target(p), a, b).x;
  if (std::isnan(quantile)) return 1;
  *x = quantile;
  return 0;
}

int zqt(double p, double df, double* q)
{
  if (!(p > 0.0 && p < 1.0 && df > 0.0)) return 1;
  double quantile = 0.0;
  if (df > nearly_normal) {
    quantile = nearly_normal_quantile(zprobit(p), df);
  } else if (p != 0.5) {
    // p - 1/2 is exact, so that both tails of |T| are, however near the centre.
    const double size = student_size(std::log(2.0 * std::min(p, 1.0 - p)), std::log(2.0 * std::fabs(p - 0.5)), df);
    quantile = p < 0.5 ? -size : size;
  }
  if (std::isnan(quantile)) return 1;
  *q = quantile;
  return 0;
}

int zqc(double p, double df, double* q)
{
  if (!(p >= 0.0 && p < 1.0)) return 1;
  return zqcl(std::log(p), df, q);
}

int zqcl(double log_p, double df, double* q)
{
  if (!(log_p < 0.0 && df > 0.0)) return 1;
  const double quantile = 2.0 * gamma_quantile(log_lower_target(log_p), 0.5 * df);
  if (std::isnan(quantile)) return 1;
  *q = quantile;
  return 0;
}

} // namespace torvale::probability
