#include "evaluation/cholesky_derivative.h"
#include "matrix/cholesky.h"
#include "matrix/packed.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

namespace torvale::evaluation {

namespace {

std::vector<double> factor_of(std::vector<double> a, int n)
{
  for (int i = 0; i < n; ++i) matrix::zchol(i, a.data(), 1e-12);
  return a;
}

// A = B B' + n I with a moving part t (row of) D.
std::vector<double> well_conditioned(int n, std::mt19937& random)
{
  std::normal_distribution<double> normal;
  std::vector<double> b(static_cast<std::size_t>(n * n)), a(static_cast<std::size_t>(matrix::packed_size(n)));
  for (double& x : b) x = normal(random);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) {
      double& x = a[static_cast<std::size_t>(matrix::packed_index(i, j))];
      for (int k = 0; k < n; ++k) x += b[static_cast<std::size_t>(i * n + k)] * b[static_cast<std::size_t>(j * n + k)];
      if (i == j) x += n;
    }
  return a;
}

} // namespace

TEST(CholeskyDerivative, AgreesWithDifferences)
{
  std::mt19937 random(7);
  std::normal_distribution<double> normal;
  constexpr double h = 1e-5;
  for (int n = 1; n <= 5; ++n) {
    const auto nrs = static_cast<std::size_t>(matrix::packed_size(n));
    const auto a = well_conditioned(n, random);
    std::vector<double> direction(nrs);
    for (double& x : direction) x = normal(random);
    auto up = a, down = a;
    for (std::size_t k = 0; k < nrs; ++k) {
      up[k] += h * direction[k];
      down[k] -= h * direction[k];
    }
    const auto l = factor_of(a, n), lu = factor_of(up, n), ld = factor_of(down, n);
    std::vector<double> grad(2 * nrs, 0.0), work(nrs), derivative(2 * nrs);
    std::copy(direction.begin(), direction.end(), grad.begin());
    const int zgrad[2] = {0, 1};
    EXPECT_EQ(tvlcder(n, 2, l.data(), grad.data(), zgrad, 1e-12, work.data(), derivative.data()), 0);
    for (std::size_t k = 0; k < nrs; ++k) {
      EXPECT_NEAR(derivative[k], (lu[k] - ld[k]) / (2 * h), 1e-9) << n << ": " << k;
      EXPECT_EQ(derivative[nrs + k], 0.0);
    }

    // The adjoint of weights w on L is the same derivative, contracted.
    std::vector<double> weights(nrs);
    for (double& x : weights) x = normal(random);
    double expected = 0.0;
    for (std::size_t k = 0; k < nrs; ++k) expected += weights[k] * derivative[k];
    cholesky_adjoint(n, l.data(), weights.data(), 1e-12);
    double contracted = 0.0;
    for (std::size_t k = 0; k < nrs; ++k) contracted += weights[k] * direction[k];
    EXPECT_NEAR(contracted, expected, 1e-12 * (1.0 + std::abs(expected)));
  }
}

// diag(4, 0, 9): the column without variance neither moves nor passes anything on.
TEST(CholeskyDerivative, SingularColumnHasNone)
{
  const double l[6] = {2, 0, 0, 1, 0, 3}, grad[6] = {1, 5, 7, 1, 5, 1};
  double work[6], derivative[6];
  const int zgrad[1] = {0};
  tvlcder(3, 1, l, grad, zgrad, 1e-12, work, derivative);
  EXPECT_DOUBLE_EQ(derivative[0], 0.25);
  EXPECT_EQ(derivative[2], 0.0);
  EXPECT_EQ(derivative[4], 0.0);
  EXPECT_DOUBLE_EQ(derivative[3], (1.0 - 1.0 * 0.25) / 2.0);
}

} // namespace torvale::evaluation
