#include "engine/kernels/shape_derivatives.h"

#include "probability/beta.h"
#include "probability/gamma.h"
#include "probability/special/log_gamma.h"
#include "probability/special/polygamma.h"
#include "probability/student.h"

#include <array>
#include <cmath>
#include <limits>

namespace torvale::engine {
namespace {

constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr int most_terms = 20000;

// A function of s about 0, cut off after s^3: c[k] is its k-th derivative over k!.
struct Jet {
  std::array<double, 4> c{};
  Jet() = default;
  Jet(double value, double slope = 0.0) : c{value, slope, 0.0, 0.0} {}
  double operator[](std::size_t k) const { return c[k]; }
};

Jet operator+(Jet a, const Jet& b)
{
  for (std::size_t k = 0; k < 4; ++k) a.c[k] += b[k];
  return a;
}
Jet operator*(const Jet& a, const Jet& b)
{
  Jet r;
  for (std::size_t k = 0; k < 4; ++k)
    for (std::size_t i = 0; i <= k; ++i) r.c[k] += a[i] * b[k - i];
  return r;
}
Jet operator-(const Jet& a)
{
  return a * Jet(-1.0);
}
Jet operator-(const Jet& a, const Jet& b)
{
  return a + -b;
}
Jet operator/(const Jet& a, const Jet& b) // from r b = a, coefficient by coefficient
{
  Jet r;
  for (std::size_t k = 0; k < 4; ++k) {
    double rest = a[k];
    for (std::size_t i = 0; i < k; ++i) rest -= r[i] * b[k - i];
    r.c[k] = rest / b[0];
  }
  return r;
}
Jet log(const Jet& a) // from r' a = a'
{
  Jet r(std::log(a[0]));
  for (std::size_t k = 1; k < 4; ++k) {
    double rest = static_cast<double>(k) * a[k];
    for (std::size_t i = 1; i < k; ++i) rest -= static_cast<double>(i) * r[i] * a[k - i];
    r.c[k] = rest / (static_cast<double>(k) * a[0]);
  }
  return r;
}
Jet exp(const Jet& a) // from r' = a' r
{
  Jet r(std::exp(a[0]));
  for (std::size_t k = 1; k < 4; ++k) {
    for (std::size_t i = 1; i <= k; ++i) r.c[k] += static_cast<double>(i) * a[i] * r[k - i];
    r.c[k] /= static_cast<double>(k);
  }
  return r;
}
// log gamma of a function without s^2 and s^3.
Jet lgamma(const Jet& a)
{
  Jet r(probability::zlgamma(a[0]));
  double power = 1.0;
  for (int k = 1; k < 4; ++k) {
    power *= a[1] / k;
    r.c[static_cast<std::size_t>(k)] = power * probability::polygamma(k - 1, a[0]);
  }
  return r;
}

bool settled(const Jet& change, const Jet& sum)
{
  for (std::size_t k = 0; k < 4; ++k)
    if (!(std::fabs(change[k]) <= 1e-16 * (std::fabs(sum[k]) + 1e-3 * std::fabs(sum[0])))) return false;
  return true;
}

// log of 1 - exp(l), whose value is known: l is the log of the other tail.
Jet log_of_complement(const Jet& l, double log_complement_value)
{
  Jet tail = -exp(l);
  tail.c[0] = std::exp(log_complement_value); // 1 - exp(l) may cancel
  return log(tail);
}

// sum_{n>=0} x^n / ((a+1)...(a+n)): P(a, x) = x^a exp(-x) / gamma(a+1) times it (DLMF 8.7.1).
Jet gamma_series(double x, const Jet& a)
{
  Jet term(1.0), sum(1.0);
  for (int n = 1; n < most_terms; ++n) {
    term = term * (Jet(x) / (a + Jet(n)));
    sum = sum + term;
    if (n > x - a[0] && settled(term, sum)) return sum;
  }
  return Jet(not_a_number);
}

// The continued fraction 1/(x+1-a- 1(1-a)/(x+3-a- ...)) (DLMF 8.9.2), by Lentz's method: Q(a, x) = x^a exp(-x) /
// gamma(a) times it.
Jet gamma_fraction(double x, const Jet& a)
{
  Jet b = Jet(x + 1.0) - a, c(1e300), d = Jet(1.0) / b, h = d;
  for (int n = 1; n < most_terms; ++n) {
    const Jet an = (a - Jet(n)) * Jet(n);
    b = b + Jet(2.0);
    d = Jet(1.0) / (an * d + b);
    c = b + an / c;
    const Jet factor = c * d;
    h = h * factor;
    if (settled(factor - Jet(1.0), Jet(1.0))) return h;
  }
  return Jet(not_a_number);
}

// The continued fraction of I_x(a, b) a B(a, b) / (x^a y^b) (DLMF 8.17.22), by Lentz's method; quick for
// x < (a + 1) / (a + b + 2).
Jet beta_fraction(const Jet& x, const Jet& a, const Jet& b)
{
  const Jet one(1.0);
  Jet c = one, d = one / (one - (a + b) * x / (a + one)), h = d;
  for (int m = 1; m < most_terms; ++m) {
    const Jet am = a + Jet(2.0 * m);
    const Jet even = Jet(m) * (b - Jet(m)) * x / ((am - one) * am);
    d = one / (one + even * d);
    c = one + even / c;
    h = h * (c * d);
    const Jet odd = -((a + Jet(m)) * (a + b + Jet(m)) * x / (am * (am + one)));
    d = one / (one + odd * d);
    c = one + odd / c;
    const Jet factor = c * d;
    h = h * factor;
    if (settled(factor - one, one)) return h;
  }
  return Jet(not_a_number);
}

// log I_x(a, b) on the side where the fraction is quick.
Jet log_beta_direct(const Jet& x, const Jet& y, const Jet& a, const Jet& b)
{
  return a * log(x) + b * log(y) - log(a) - (lgamma(a) + lgamma(b) - lgamma(a + b)) + log(beta_fraction(x, a, b));
}

bool has_order(int order)
{
  return order >= 1 && order <= 3;
}

double derivative(const Jet& j, int order)
{
  constexpr double factorial[] = {1.0, 1.0, 2.0, 6.0};
  return j[static_cast<std::size_t>(order)] * factorial[order];
}

// The derivative of that order along the direction (u, v) of the shapes.
double along(double x, double y, double a, double b, double u, double v, int order, bool upper)
{
  const bool direct = x * (a + b + 2.0) <= a + 1.0;
  const Jet ja(a, u), jb(b, v);
  const Jet l = direct ? log_beta_direct(Jet(x), Jet(y), ja, jb) : log_beta_direct(Jet(y), Jet(x), jb, ja);
  if (upper != direct) return derivative(l, order);
  const probability::Tails t = probability::beta_tails(probability::beta_point_pair(x, y), a, b);
  return derivative(log_of_complement(l, upper ? t.log_upper : t.log_lower), order);
}

} // namespace

double log_gamma_tail_by_shape(double x, double a, int order, bool upper)
{
  if (!(a > 0.0) || !std::isfinite(a) || std::isnan(x) || !has_order(order)) return not_a_number;
  if (x <= 0.0 || std::isinf(x)) return 0.0;
  const Jet shape(a, 1.0);
  const bool series = x <= a + 1.0;
  const Jet front = shape * Jet(std::log(x)) - Jet(x);
  const Jet l = series ? front - lgamma(shape + Jet(1.0)) + log(gamma_series(x, shape))
                       : front - lgamma(shape) + log(gamma_fraction(x, shape));
  if (upper != series) return derivative(l, order);
  const probability::Tails t = probability::gamma_tails(x, a);
  return derivative(log_of_complement(l, upper ? t.log_upper : t.log_lower), order);
}

double log_beta_tail_by_shapes(double x, double y, double a, double b, int i, int j, bool upper)
{
  if (!(a > 0.0 && b > 0.0) || !std::isfinite(a + b) || std::isnan(x) || std::isnan(y)) return not_a_number;
  if (i < 0 || j < 0 || !has_order(i + j)) return not_a_number;
  if (x <= 0.0 || y <= 0.0) return 0.0;
  const auto d = [&](double u, double v) { return along(x, y, a, b, u, v, i + j, upper); };
  if (j == 0) return d(1.0, 0.0);
  if (i == 0) return d(0.0, 1.0);
  // Mixed derivatives from those along (1, 1) and (1, -1): D2 = f_aa + 2 f_ab + f_bb and so on.
  if (i + j == 2) return 0.25 * (d(1.0, 1.0) - d(1.0, -1.0));
  if (i == 2) return (d(1.0, 1.0) - d(1.0, -1.0) - 2.0 * d(0.0, 1.0)) / 6.0;
  return (d(1.0, 1.0) + d(1.0, -1.0) - 2.0 * d(1.0, 0.0)) / 6.0;
}

// P(T < t) = I_x(df/2, 1/2) / 2 for t < 0, with x = df / (df + t^2).
double log_t_lower_by_df(double t, double df, int order)
{
  if (!(df > 0.0) || !std::isfinite(df) || std::isnan(t) || !has_order(order)) return not_a_number;
  if (t == 0.0 || std::isinf(t)) return 0.0;
  const Jet n(df, 1.0), x = n / (n + Jet(t * t)), y = Jet(t * t) / (n + Jet(t * t)), a = Jet(0.5) * n, half(0.5);
  Jet l; // log of the tail beyond |t|
  const probability::Tails tails = probability::student_tails(-std::fabs(t), df);
  if (x[0] * (a[0] + 2.5) <= a[0] + 1.0) {
    l = log_beta_direct(x, y, a, half) + Jet(std::log(0.5));
  } else {
    const Jet within = Jet(0.5) * exp(log_beta_direct(y, x, half, a)); // P(t < T < 0)
    Jet tail = -within;
    tail.c[0] = tails.lower;
    l = log(tail);
  }
  if (t > 0.0) l = log_of_complement(l, probability::student_tails(t, df).log_lower);
  return derivative(l, order);
}

} // namespace torvale::engine
