#include "nist_problems.h"

#include "optimizer/optimizer.h"

#include <gmock/gmock.h>

#include <cmath>
#include <cstdio>
#include <set>
#include <string>

using namespace torvale::optimizer;
using torvale::test::nist_problems;
using torvale::test::NistProblem;

namespace {

// A fit: the regression, and a factor that data and standard deviation are scaled by.
struct Fit {
  const NistProblem* problem;
  double scale;
};

// Minus the log likelihood of normal errors with its gradient; the last parameter is the variance.
double objective(const Fit& fit, const double* x, double* g)
{
  const std::size_t p = fit.problem->certified.size();
  const double s2 = fit.scale * fit.scale;
  const double rss = s2 * fit.problem->sum_of_squares(x, g);
  const double n = static_cast<double>(fit.problem->y.size());
  const double variance = x[p];
  for (std::size_t i = 0; g != nullptr && i < p; ++i) g[i] *= 0.5 * s2 / variance;
  if (g != nullptr) g[p] = 0.5 * n / variance - 0.5 * rss / (variance * variance);
  return 0.5 * n * std::log(2.0 * 3.14159265358979323846 * variance) + 0.5 * rss / variance;
}

int value_callback(MINSTR* str)
{
  ++str->nfct;
  str->crit = objective(*static_cast<Fit*>(str->comstr), str->x, nullptr);
  return 0;
}

int gradient_callback(MINSTR* str)
{
  ++str->ngrd;
  objective(*static_cast<Fit*>(str->comstr), str->x, str->grad);
  return 0;
}

// Digits of agreement of all regression parameters.
double digits(const NistProblem& p, const double* x)
{
  double worst = 16.0;
  for (std::size_t i = 0; i < p.certified.size(); ++i) {
    const double error = std::abs(x[i] - p.certified[i]) / std::abs(p.certified[i]);
    worst = std::min(worst, error > 0.0 ? -std::log10(error) : 16.0);
  }
  return worst;
}

struct Outcome {
  int code;
  double digits;
  std::vector<double> standard_errors;
  long calls;
};

// start_variance: where the variance starts, in multiples of its estimate.
Outcome run(const NistProblem& problem, const std::vector<double>& start, double start_variance)
{
  // A residual variance below what a program accepts for a variance is scaled up.
  Fit fit{&problem, problem.ml_sigma2 < 1e-8 ? 1.0 / std::sqrt(problem.ml_sigma2) : 1.0};
  MINSTR str;
  COVSTR cov;
  tvlopti(&str);
  const long p = static_cast<long>(problem.certified.size());
  str.nvar = p + 1;
  str.bounds = 1;
  str.usfct = value_callback;
  str.usgrd = gradient_callback;
  str.comstr = &fit;
  str.covstr = &cov;
  str.gtol = 1e-15;
  str.ftol = 0.0;
  str.agtl = 0.0;
  str.maxi = 5000;
  str.maxf = 50000;
  str.fihs = 2;
  str.fdig = 15.65;
  tvlopta(&str);
  std::copy(start.begin(), start.end(), str.x);
  str.x[p] = start_variance * fit.scale * fit.scale * problem.ml_sigma2;
  str.lb[p] = 1e-10;
  Outcome result{tvloptc(&str), 0.0, {}, 0};
  if (result.code == 0) result.code = znlpdrv(&str, 1, 0, 0, 0);
  if (result.code == 0) result.code = znlpdrv(&str, 2, 0, 0, 0);
  result.digits = digits(problem, str.x);
  result.standard_errors.assign(str.ster, str.ster + p);
  result.calls = str.nfct;
  return result;
}

} // namespace

TEST(NistRegressions, ModelsAreTranscribed)
{
  ASSERT_EQ(nist_problems().size(), 13u);
  for (const NistProblem& p : nist_problems()) {
    SCOPED_TRACE(p.name);
    EXPECT_NEAR(p.sum_of_squares(p.start1.data(), nullptr) / p.rss_at_start1, 1.0, 1e-9);
    EXPECT_NEAR(p.sum_of_squares(p.start2.data(), nullptr) / p.rss_at_start2, 1.0, 1e-9);
    if (p.name == "Lanczos1") continue; // its sum of squares, 1e-25, is below rounding
    EXPECT_NEAR(p.sum_of_squares(p.certified.data(), nullptr) / p.rss, 1.0, 1e-9);
  }
}

TEST(NistRegressions, CertifiedParametersFromBothStarts)
{
  // The sum of three exponentials has a saddle where two of them merge; from the far start the default technique, which
  // has no use for negative curvature, ends there.
  const std::set<std::string> lost_from_far = {"Lanczos1", "Lanczos3"};
  for (const NistProblem& p : nist_problems()) {
    const Outcome near = run(p, p.start2, 1.0);
    const Outcome far = run(p, p.start1, 100.0);
    std::printf("%-9s start 2: %4.1f digits, code %3d, %4ld calls   start 1: %4.1f digits, code %3d, %4ld calls\n",
                p.name.c_str(), near.digits, near.code, near.calls, far.digits, far.code, far.calls);
    EXPECT_GE(near.digits, 7.0) << p.name;
    EXPECT_GE(far.digits, lost_from_far.count(p.name) == 0 ? 6.0 : -99.0) << p.name;
    if (p.name == "Lanczos1") continue; // residuals of 1e-13: the Hessian is rounding
    for (std::size_t i = 0; i < p.ml_standard_errors.size(); ++i)
      EXPECT_NEAR(near.standard_errors[i] / p.ml_standard_errors[i], 1.0, 1e-4) << p.name << " parameter " << i + 1;
  }
}
