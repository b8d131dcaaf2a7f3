#include "probability/chi_square.h"
#include "probability/constants.h"
#include "probability/discrete.h"
#include "probability/gamma.h"

#include <algorithm>
#include <cmath>

namespace torvale::probability {
namespace {

// The distribution is a Poisson mixture of central ones: with h = nc/2, a = df/2, z = x/2 and w_j the Poisson weights,
//     P = sum w_j P(a + j, z),   Q = sum w_j Q(a + j, z),   density = sum w_j density(a + j, z).
// All terms are positive. Each sum starts beyond its largest term and goes through it, in the direction in which the
// incomplete gamma function grows by its recurrence P(a, z) = P(a + 1, z) + z^a exp(-z)/Gamma(a + 1), so that no step
// subtracts (R. F. Ding, Applied Statistics 41 (1992), does the same from the first term). Terms are scaled by the
// largest.
struct Mixture {
  double a; // half the degrees of freedom
  double h; // half the non-centrality
  double z; // half the point
};

// The sums have about 20 sqrt(nc) terms near the centre and 20 (nc x)^(1/4) far out: two million at these limits.
constexpr double largest_noncentrality = 1e10;
constexpr double largest_product = 1e20;
constexpr double negligible = 45.0; // terms below exp(-45) of the largest are left out

double log_weight(const Mixture& m, double j)
{
  return poisson_tails(j, m.h).log_density;
}

double log_lower_term(const Mixture& m, double j)
{
  return log_weight(m, j) + gamma_tails(m.z, m.a + j).log_lower;
}

double log_upper_term(const Mixture& m, double j)
{
  return log_weight(m, j) + gamma_tails(m.z, m.a + j).log_upper;
}

// log of w_j z^(a+j) exp(-z) / Gamma(a + j + 1), what one step of the recurrence adds to term j.
double log_step(const Mixture& m, double j)
{
  return log_weight(m, j) + gamma_tails(m.z, m.a + j + 1.0).log_density;
}

// Index of the largest product of weight and kernel: (j + 1)(a + j + 1) = h z.
double peak_of_kernel(const Mixture& m)
{
  const double product = m.h * m.z;
  return std::floor(2.0 * product / (m.a + std::hypot(m.a, 2.0 * std::sqrt(product))));
}

// First index from peak on, outwards in the given direction and not below 0, whose term is negligible.
template <class Term> double negligible_from(const Mixture& m, double peak, double direction, const Term& log_term)
{
  const double floor_value = log_term(m, peak) - negligible;
  double j = peak;
  for (double width = 4.0 + std::floor(std::sqrt(peak)); j > 0.0 || direction > 0.0; width *= 2.0) {
    j = std::max(0.0, peak + direction * width);
    if (!(log_term(m, j) > floor_value)) break;
  }
  return j;
}

// A sum that went out of range is NaN for the caller; rounding above 1 is taken back.
double log_of_probability(double scale, double sum)
{
  const double log_p = scale + std::log(sum);
  return log_p < infinity ? std::min(0.0, log_p) : not_a_number;
}

double log_lower(const Mixture& m)
{
  const double peak = std::min(peak_of_kernel(m), std::floor(m.h));
  const double scale = log_lower_term(m, peak);
  if (scale == -infinity) return scale;
  double j = negligible_from(m, peak, 1.0, log_lower_term);
  double term = std::exp(log_lower_term(m, j) - scale);
  double step = std::exp(log_step(m, j) - scale);
  double sum = term;
  for (; j > 0.0; j -= 1.0) {
    step *= j / m.h * ((m.a + j) / m.z);
    term = j / m.h * term + step;
    sum += term;
    if (j <= peak && !(term >= 1e-18 * sum && sum < infinity)) break; // a NaN ends it too
  }
  return log_of_probability(scale, sum);
}

double log_upper(const Mixture& m)
{
  const double peak = std::max(peak_of_kernel(m), std::floor(m.h));
  // For a tiny a the first term nearly vanishes beside the second, wherever the peak is taken to be.
  const double scale = std::max(log_upper_term(m, peak), log_upper_term(m, peak + 1.0));
  if (scale == -infinity) return scale;
  double j = negligible_from(m, peak, -1.0, log_upper_term);
  double term = std::exp(log_upper_term(m, j) - scale);
  double step = std::exp(log_step(m, j) - scale);
  double sum = term;
  for (;; j += 1.0) {
    term = m.h / (j + 1.0) * (term + step);
    step *= m.h / (j + 1.0) * (m.z / (m.a + j + 1.0));
    sum += term;
    if (j >= peak && !(term >= 1e-18 * sum && sum < infinity)) break;
  }
  return log_of_probability(scale, sum);
}

// From the largest term outwards both ways by the ratio h z / ((j + 1)(a + j)).
double log_density(const Mixture& m)
{
  const double peak = peak_of_kernel(m);
  double sum = 1.0;
  double term = 1.0;
  for (double j = peak; term > 1e-18 * sum; j += 1.0) {
    term *= m.h / (j + 1.0) * (m.z / (m.a + j));
    sum += term;
  }
  term = 1.0;
  for (double j = peak; j > 0.0 && term > 1e-18 * sum; j -= 1.0) {
    term *= j / m.h * ((m.a + j - 1.0) / m.z);
    sum += term;
  }
  return log_weight(m, peak) + gamma_tails(m.z, m.a + peak).log_density + std::log(sum);
}

bool inside(double x, double df, double nc)
{
  return x >= 0.0 && df > 2.0 * dmin && df < infinity && nc >= 0.0 && nc <= largest_noncentrality &&
         (nc * x <= largest_product || std::isinf(x));
}

} // namespace

int zlogcnc(double x, double df, double nc, double* lpl, double* lpr)
{
  *lpl = *lpr = not_a_number;
  if (!inside(x, df, nc)) return 1;
  if (nc < dmin || x < dmin || std::isinf(x)) { // the first term is all, or x is at an end
    const Tails t = chi_square_tails(x, df);
    *lpl = x < dmin ? t.log_lower - 0.5 * nc : t.log_lower;
    *lpr = t.log_upper;
    return 0;
  }
  const Mixture m{0.5 * df, 0.5 * nc, 0.5 * x};
  *lpl = log_lower(m);
  *lpr = log_upper(m);
  if (*lpl < *lpr)
    *lpr = log_complement(*lpl); // the larger from the smaller: its logarithm may be close to 0
  else
    *lpl = log_complement(*lpr);
  return std::isnan(*lpl) || std::isnan(*lpr) ? 1 : 0;
}

int zplbcnc(double x, double df, double nc, double* pl, double* pr)
{
  const int code = zlogcnc(x, df, nc, pl, pr);
  *pl = std::exp(*pl);
  *pr = std::exp(*pr);
  return code;
}

int zldncnc(double x, double df, double nc, double* ld)
{
  *ld = not_a_number;
  if (!inside(x, df, nc)) return 1;
  if (x < dmin) {
    *ld = chi_square_tails(x, df).log_density - 0.5 * nc; // only the first term counts there
  } else if (nc < dmin || std::isinf(x)) {
    *ld = chi_square_tails(x, df).log_density;
  } else {
    *ld = log_density({0.5 * df, 0.5 * nc, 0.5 * x}) - ln2;
  }
  return 0;
}

// The density at x = nc is exp(-x) I(nu, x)/2 with nu = df/2 - 1.
int zibess(double nu, double x, double* log_i)
{
  *log_i = not_a_number;
  if (!(nu > -1.0 && x > 0.0)) return 1;
  if (zldncnc(x, 2.0 * nu + 2.0, x, log_i) != 0) return 1;
  *log_i += ln2 + x;
  return 0;
}

} // namespace torvale::probability
