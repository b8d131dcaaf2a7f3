// Nested levels: the exact likelihood of linear models, and what a result must not depend on.

#include "integration/model_family.h"
#include "integration/objective.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>

namespace torvale::tests {

namespace {

// Minus the log of a normal density with mean m and covariance v (rows of a square), by a plain Cholesky factorization.
double normal_objective(std::vector<double> y, std::vector<std::vector<double>> v)
{
  const std::size_t n = y.size();
  double value = 0.5 * static_cast<double>(n) * 1.8378770664093456;
  for (std::size_t j = 0; j < n; ++j) {
    for (std::size_t k = 0; k < j; ++k) v[j][j] -= v[j][k] * v[j][k];
    v[j][j] = std::sqrt(v[j][j]);
    for (std::size_t i = j + 1; i < n; ++i) {
      for (std::size_t k = 0; k < j; ++k) v[i][j] -= v[i][k] * v[j][k];
      v[i][j] /= v[j][j];
    }
    for (std::size_t k = 0; k < j; ++k) y[j] -= v[j][k] * y[k];
    y[j] /= v[j][j];
    value += std::log(v[j][j]) + 0.5 * y[j] * y[j];
  }
  return value;
}

// The marginal likelihood of nested(Response::normal, depth): observations of an outer subject are jointly normal.
double marginal_objective(const ModelText& text, int depth, const std::vector<double>& theta)
{
  std::map<std::string, double> p;
  for (std::size_t j = 0; j < theta.size(); ++j) p[text.parameters[j]] = theta[j];
  std::map<std::string, std::vector<double>> column(text.columns.begin(), text.columns.end());
  std::map<double, std::vector<std::size_t>> nests;
  for (std::size_t row = 0; row < column["y"].size(); ++row) nests[column["subject"][row]].push_back(row);
  double value = 0.0;
  for (const auto& [name, rows] : nests) {
    std::vector<double> residual;
    std::vector<std::vector<double>> v;
    for (const std::size_t i : rows) {
      const double xi = column["x"][i];
      residual.push_back(column["y"][i] - (p["b0"] + p["mu0"] + p["b1"] * xi + 0.2 * p["b1"]));
      v.emplace_back();
      for (const std::size_t j : rows) {
        const double xj = column["x"][j];
        const bool inner = column["inner"][i] == column["inner"][j],
                   leaf = inner && column["leaf"][i] == column["leaf"][j];
        v.back().push_back(p["g11"] + p["g21"] * (xi + xj) + p["g22"] * xi * xj + (inner ? p["g33"] : 0.0) +
                           (depth > 2 && leaf ? p["g44"] : 0.0) + (i == j ? p["s2"] : 0.0));
      }
    }
    value += normal_objective(residual, v);
  }
  return value;
}

} // namespace

TEST(Nested, LinearModelsHaveTheirExactLikelihood)
{
  for (const int depth : {2, 3}) {
    const auto text = nested(Response::normal, depth, 7, true);
    for (const unsigned seed : {1u, 2u, 3u}) {
      const auto theta = parameters(text, seed);
      const double expected = marginal_objective(text, depth, theta);
      for (const int points : {1, 2, 3, 5}) {
        const auto n = make_run(text, {true, true, points});
        EXPECT_NEAR(objective(*n, theta), expected, 1e-10 * std::abs(expected))
            << depth << " levels, " << points << " points";
      }
    }
  }
}

TEST(Nested, LevelsThatTakeTurnsFindTheSameModes)
{
  const auto text = nested(Response::poisson, 3, 12);
  const auto theta = parameters(text, 4);
  Rule turns{true, true, 3};
  turns.take_turns = true;
  const auto joint = make_run(text, {true, true, 3}), by_turns = make_run(text, turns);
  by_turns->ebmtol = 1e-9;
  const double expected = objective(*joint, theta);
  EXPECT_NEAR(objective(*by_turns, theta), expected, 1e-9 * std::abs(expected));
  ASSERT_EQ(joint->ebtrial.size(), by_turns->ebtrial.size());
  for (std::size_t k = 0; k < joint->ebtrial.size(); ++k) EXPECT_NEAR(joint->ebtrial[k], by_turns->ebtrial[k], 1e-7);
}

TEST(Nested, ThreadCountsGiveEqualBits)
{
  const auto text = nested(Response::negbin, 3, 80);
  const auto theta = parameters(text, 3);
  const auto one = make_run(text, {true, true, 3});
  const double expected = objective(*one, theta, true);
  ASSERT_LT(expected, model::failure_objective);
  for (const int threads : {2, 3, 7}) {
    const auto n = make_run(text, {true, true, 3, 0, 0, threads});
    ASSERT_NE(n->batches.size(), one->batches.size()); // other batches too
    EXPECT_EQ(objective(*n, theta, true), expected) << threads;
    EXPECT_EQ(n->objgrad, one->objgrad) << threads;
    EXPECT_EQ(n->ebtrial, one->ebtrial) << threads;
  }
}

TEST(Nested, OrderAndNamesOfSubjectsDoNotMatter)
{
  const auto plain = nested(Response::binomial, 3, 30);
  auto renamed = nested(Response::binomial, 3, 30, true);
  for (auto& [name, values] : renamed.columns)
    if (name == "subject" || name == "inner")
      for (double& v : values) v = 1000000.0 - 3.0 * v;
  const auto theta = parameters(plain, 2);
  const auto a = make_run(plain, {true, true, 5}), b = make_run(renamed, {true, true, 5});
  const double expected = objective(*a, theta, true);
  EXPECT_NEAR(objective(*b, theta, true), expected, 1e-12 * std::abs(expected));
  for (std::size_t j = 0; j < theta.size(); ++j)
    EXPECT_NEAR(a->objgrad[j], b->objgrad[j], 1e-9 * std::max(1.0, std::abs(a->objgrad[j])));
}

// A far point and back: evaluations start from accepted modes. A nest that fails does so with one result for all.
TEST(Nested, FarPointsAndFailures)
{
  const auto text = nested(Response::poisson, 2, 9);
  const auto n = make_run(text, {true, true, 3});
  const auto theta = parameters(text, 1);
  const double expected = objective(*n, theta, true);
  integration::accept_modes(*n);
  const double again = objective(*n, theta, true);
  EXPECT_NEAR(again, expected, 1e-12 * std::abs(expected));
  auto far = theta;
  far[0] += 6.0;
  far[1] -= 4.0;
  EXPECT_LT(objective(*n, far), model::failure_objective);
  EXPECT_EQ(objective(*n, theta, true), again);

  auto indefinite = theta;
  indefinite[5] = 3.0; // g21
  EXPECT_EQ(objective(*n, indefinite, true), model::failure_objective);
  EXPECT_EQ(n->slot_status[0], 132);
  EXPECT_EQ(objective(*n, theta, true), again);
}

// Nests of one leaf, and one large nest beside small ones: more leaves than a run over them takes.
TEST(Nested, NestsOfAnySize)
{
  auto text = nested(Response::normal, 2, 40, false);
  for (auto& [name, values] : text.columns)
    if (name == "subject" || name == "inner")
      for (std::size_t row = 0; row < values.size(); ++row)
        values[row] = name == "inner" ? static_cast<double>(row) : row < 4 ? static_cast<double>(row) : 100.0;
  std::vector<double> theta = parameters(text, 2);
  const auto n = make_run(text, {true, true, 2});
  const double expected = marginal_objective(text, 2, theta);
  EXPECT_NEAR(objective(*n, theta, true), expected, 1e-10 * std::abs(expected));
}

} // namespace torvale::tests
