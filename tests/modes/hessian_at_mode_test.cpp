#include "matrix/eigenvalues.h"
#include "matrix/packed.h"
#include "modes/block_work.h"
#include "modes/hessian_at_mode.h"

#include <gtest/gtest.h>

#include <vector>

namespace torvale::modes {

TEST(InvertHessian, InverseStepAndDeterminant)
{
  const model::RunOptions options;
  auto block = block_for(2);
  double h[3] = {4, 2, 5}, g[2] = {8, 20}, pivots[2];
  EXPECT_EQ(InvertHessian<2>(options, 2, h, g, pivots, block), 0);
  EXPECT_DOUBLE_EQ(log_determinant(2, pivots), std::log(16.0));
  EXPECT_DOUBLE_EQ(h[0], 5.0 / 16);
  EXPECT_DOUBLE_EQ(h[1], -2.0 / 16);
  EXPECT_DOUBLE_EQ(h[2], 4.0 / 16);
  EXPECT_DOUBLE_EQ(g[0], 0.0);
  EXPECT_DOUBLE_EQ(g[1], 4.0);
}

// The closed forms and the sweeps are the same matrix algebra, for good and for repaired matrices.
TEST(InvertHessian, ClosedFormsAgreeWithSweeps)
{
  const model::RunOptions options;
  auto block = block_for(3);
  const double matrices[][3] = {{2, 0.5, 1}, {1e8, 3, 1e-3}, {1, 2, 1}, {-1, 0, 2}, {0, 0, 0}};
  for (const auto& m : matrices) {
    double h1[3] = {m[0], m[1], m[2]}, h2[3] = {m[0], m[1], m[2]}, g1[2] = {1, -1}, g2[2] = {1, -1};
    double p1[2], p2[2];
    EXPECT_EQ(InvertHessian<2>(options, 2, h1, g1, p1, block), 0);
    EXPECT_EQ(InvertHessian<0>(options, 2, h2, g2, p2, block), 0);
    EXPECT_NEAR(log_determinant(2, p1), log_determinant(2, p2), 1e-12);
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(h1[k], h2[k], 1e-12 * (1 + std::abs(h2[k])));
    for (int k = 0; k < 2; ++k) EXPECT_NEAR(g1[k], g2[k], 1e-12 * (1 + std::abs(g2[k])));
    EXPECT_GT(h1[0], 0.0); // a step downhill, whatever the matrix was
  }
}

TEST(InvertHessian, ThreeEffectsAgreeWithSweeps)
{
  const model::RunOptions options;
  auto block = block_for(3);
  const double matrices[][6] = {
      {4, 2, 5, 1, -1, 3}, {1e6, 30, 1e-2, -200, 0.01, 1}, {1, 2, 1, 0, 0, 1}, {1, 0, 1, 1, 0, 1}};
  for (const auto& m : matrices) {
    double h1[6], h2[6], g1[3] = {1, -1, 2}, g2[3] = {1, -1, 2}, p1[3], p2[3];
    std::copy_n(m, 6, h1);
    std::copy_n(m, 6, h2);
    EXPECT_EQ(InvertHessian<3>(options, 3, h1, g1, p1, block), 0);
    EXPECT_EQ(InvertHessian<0>(options, 3, h2, g2, p2, block), 0);
    EXPECT_NEAR(log_determinant(3, p1), log_determinant(3, p2), 1e-12);
    for (int k = 0; k < 6; ++k) EXPECT_NEAR(h1[k], h2[k], 1e-12 * (1 + std::abs(h2[k])));
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(g1[k], g2[k], 1e-12 * (1 + std::abs(g2[k])));
  }
}

TEST(InvertHessian, OverflowIsRefused)
{
  const model::RunOptions options;
  auto block = block_for(1);
  double h = -1e300, g = 1.0, pivot;
  EXPECT_EQ(InvertHessian<1>(options, 1, &h, &g, &pivot, block), 1);
}

TEST(Ridge, DefiniteMatrixIsLeftAlone)
{
  double m[6] = {2, 1, 3, 0.5, 0.25, 1}, work[32];
  const std::vector<double> before(m, m + 6);
  EXPECT_EQ(ridgmat(m, 3, 1e-8, work), 0.0);
  EXPECT_EQ(std::vector<double>(m, m + 6), before);
}

// The ridge is the first of e, 5e, 21e, ... that makes the matrix definite, times 1.05, relative to the matrix.
TEST(Ridge, FirstSufficientTrialInAnyUnits)
{
  double work[32];
  for (const double unit : {1e-12, 1.0, 1e9}) {
    double m[3] = {unit, 2 * unit, unit}; // eigenvalues -1, 3
    const double ridge = ridgmat(m, 2, 1e-8, work) / unit;
    double trial = 0.0, t = 1e-8 / 4.0;
    while (!(trial > 1.0 + definite_bound)) trial += t *= 4.0;
    EXPECT_NEAR(ridge, 1.05 * trial, 1e-9 * trial);
    double values[2], eigen_work[10];
    matrix::zeigval(2, m, values, 2, eigen_work);
    EXPECT_GT(values[1], 0.0);
  }
  double zero[1] = {0.0};
  EXPECT_DOUBLE_EQ(ridgmat(zero, 1, 1e-8, work), 1.05e-8 * (1 + 4)); // the first trial lies below the bound
}

} // namespace torvale::modes
