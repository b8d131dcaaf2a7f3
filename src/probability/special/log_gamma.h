#pragma once

// Log gamma, log beta, and differences of log gamma that do not cancel. Arguments outside the domain give NaN.

namespace torvale::probability {

// zlgamma: log Gamma(x), x > 2.2e-308. Relative error below 1e-15, near its zeros 1 and 2 too. (z numeric, l log.)
double zlgamma(double x);

// log Gamma(1 + z), z > -1: relative accuracy also for z near 0, where 1 + z would round.
double log_gamma_1p(double z);

// zlgbern: log Gamma(x) - ((x - 1/2) log x - x + log(2 pi)/2), the tail of Stirling's formula, x > 0; about 1/(12 x).
// From 15 up the Bernoulli series to x^-13, below it by recurrence. (z numeric, lg log gamma, bern Bernoulli.)
double zlgbern(double x);

// zlgbern(x) - zlgbern(x + d), x and x + d at least 15, without cancellation for small d.
double stirling_tail_difference(double x, double d);

// log Gamma(a + b) - log Gamma(a), a > 0 and a + b > 0, without cancellation: the error is relative to the difference,
// not to the two terms. Its derivatives are polygamma(0, a + b) for b and polygamma_difference(0, a, b) for a.
double log_gamma_ratio(double a, double b);

// zlbeta: log B(a, b), a and b > 0. Stirling differences where one is large. (z numeric, l log.)
double zlbeta(double a, double b);

// log(a B(a, b)): relative accuracy for small a, where it vanishes like -a (digamma(b) + Euler's constant).
double log_scaled_beta(double a, double b);

// zlgammaMV, zlbetaMV: the multivariate functions of order p >= 1 (MV multivariate),
//   log Gamma_p(x) = p(p-1)/4 log pi + sum_{j<p} log Gamma(x - j/2),   x > (p - 1)/2,
//   log B_p(a, b) = log Gamma_p(a) + log Gamma_p(b) - log Gamma_p(a + b).
// Order 1 is the ordinary one.
double zlgammaMV(double x, int p);
double zlbetaMV(double a, double b, int p);

} // namespace torvale::probability
