#pragma once

#include "probability/beta.h"
#include "probability/tails.h"

// Quantiles: the point whose lower tail is given. Each distribution takes the target as a pair of logarithms, so that
// probabilities near 0 and near 1 are treated alike; the short-named routines take p.

namespace torvale::probability {

// The target of a quantile: the logarithms of the lower and of the upper probability.
struct TailTarget {
  double log_lower;
  double log_upper;
};
TailTarget lower_target(double p);         // lower probability p
TailTarget upper_target(double q);         // upper probability q
TailTarget log_lower_target(double log_p); // lower probability exp(log_p)

// A monotone distribution on a bracket, the quantile wanted of it, and what zquant found.
struct QuantileSearch {
  // Asked.
  Tails (*tails)(const void* distribution, double x) = nullptr; // both tails and the density at x
  const void* distribution = nullptr;                           // handed to tails; borrowed
  TailTarget target{};                                          // probabilities wanted
  double low = 0.0;                                             // bracket: the quantile is sought in [low, high]
  double high = 0.0;
  double start = 0.0;     // first trial, moved into the bracket
  double tolerance = 0.0; // relative change that ends the search; at least 1.05e-8, and one more step follows

  // Found.
  double x = 0.0; // the quantile; an end of the bracket when the target lies beyond it
  int steps = 0;  // trials used
};

// zquant: solves for the quantile by Newton steps on the logit of the lower probability, kept in a shrinking bracket; a
// step that leaves it is replaced by bisection. (z numeric, quant quantile.)
// Returns 0; 1 when 70 steps did not suffice or the distribution gave NaN: x is then the best point so far.
int zquant(QuantileSearch* search);

// The quantile of the beta, gamma, t and F distribution. NaN for parameters outside the domain. The beta quantile is a
// point with both distances; t and F keep their relative accuracy at any distance from the centre.
BetaPoint beta_quantile(TailTarget target, double a, double b);
double gamma_quantile(TailTarget target, double a);
double student_quantile(TailTarget target, double df);
double f_quantile(TailTarget target, double ndf, double ddf);

// zprobin: the beta quantile of p into x. (z numeric, prob beta probability, in inverse.)
// Returns 0; 1 when p is outside 0..1 or a, b not above 0 or above 2^53: x is then unchanged.
int zprobin(double p, double a, double b, double* x);

// zqt: the t quantile of p into q. (z numeric, q quantile, t.) Returns 0; 1 when p is not inside (0, 1) or df not above
// 0: q is then unchanged. df may be infinite.
int zqt(double p, double df, double* q);

// zqc: the chi-square quantile of p into q. Returns 0; 1 when p is below 0 or at or above 1 or df not above 0: q is
// then unchanged. (z numeric, q quantile, c chi-square.) zqcl: the same, p given as its logarithm, at most 0. (l log.)
int zqc(double p, double df, double* q);
int zqcl(double log_p, double df, double* q);

} // namespace torvale::probability
