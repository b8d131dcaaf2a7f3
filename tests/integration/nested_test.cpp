// Nested levels: the exact likelihood of linear models, and what a result must not depend on.

#include "integration/model_family.h"
#include "integration/objective.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>

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

// Counts with one effect at each of `depth` levels, the deepest with a variance that its records decide where it
// `varies`. Outer subjects have 1 to 6 children, leaves 1 to 4 observations.
ModelText single_effects(int depth, int subjects, bool varies)
{
  std::mt19937 random(31);
  std::normal_distribution<double> normal;
  std::uniform_int_distribution<int> children(1, 6), records(1, 4);
  std::vector<double> outer, middle, leaf, y, x, flag;
  for (int s = 0; s < subjects; ++s)
    for (int c = 0, last = children(random); c < last; ++c)
      for (int l = 0, leaves = depth > 2 ? children(random) : 1; l < leaves; ++l)
        for (int i = 0, count = records(random); i < count; ++i) {
          outer.push_back(100 + s), middle.push_back(c), leaf.push_back(l);
          x.push_back(normal(random));
          flag.push_back(s % 7 == 3 ? -1.0 : 1.0);
          y.push_back(std::poisson_distribution<int>(std::exp(0.3 + 0.4 * x.back() + 0.5 * normal(random)))(random));
        }
  ModelText m;
  m.parameters = {"b0", "b1", "s1", "s2", "mu", "s3"};
  const Term inner = varies ? Term("s2") * exp(Term("b1") * 0.1 * "flag") : Term("s2");
  m.levels = {{"subject", {"u"}, {Term(0.0), Term("s1")}}, {"middle", {"v"}, {Term("mu"), inner}}};
  Term eta = Term("b0") + Term("b1") * "x" + "u" + "v";
  if (depth > 2) {
    m.levels.push_back({"leaf", {"w"}, {Term(0.0), Term("s3")}});
    eta = eta + Term("w") * 1.5;
  } else {
    m.parameters.pop_back();
  }
  m.columns = {{"subject", outer}, {"middle", middle}, {"leaf", leaf}, {"y", y}, {"x", x}, {"flag", flag}};
  m.assignments = {{"eta", eta}, {"_ll", Term("y") * "eta" - exp(Term("eta"))}};
  return m;
}

std::vector<double> single_parameters(const ModelText& m)
{
  std::vector<double> theta = {0.2, 0.35, 0.3, 0.2, 0.1, 0.15};
  theta.resize(m.parameters.size());
  return theta;
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

TEST(Nested, GradientsOfSingleEffectsAgreeWithDifferences)
{
  for (const int depth : {2, 3})
    for (const bool varies : {false, true})
      for (const Rule rule : {Rule{true, true, 3}, Rule{true, true, 1}, Rule{true, false, 4}, Rule{false, false, 4}}) {
        const auto text = single_effects(depth, 9, varies);
        const auto theta = single_parameters(text);
        const auto n = make_run(text, rule);
        ASSERT_LT(objective(*n, theta, true), model::failure_objective);
        const auto gradient = n->objgrad;
        for (std::size_t j = 0; j < theta.size(); ++j) {
          constexpr double h = 2e-5;
          auto up = theta, down = theta;
          up[j] += h, down[j] -= h;
          const double difference = (objective(*n, up) - objective(*n, down)) / (2.0 * h);
          EXPECT_NEAR(gradient[j], difference, 1e-6 * (1.0 + std::abs(difference)))
              << depth << varies << rule.points << ' ' << j;
        }
      }
}

TEST(Nested, ModesMoveWithTheParameters)
{
  for (const int depth : {2, 3}) {
    const auto several = nested(Response::poisson, depth, 9);
    expect_moving_modes(several, parameters(several, 2));
    for (const bool varies : {false, true}) {
      const auto single = single_effects(depth, 9, varies);
      expect_moving_modes(single, single_parameters(single));
    }
  }
}

// What predictions save: beside an accepted point one pass is enough where they stand, and its gradient is even in the
// error of the modes.
TEST(Nested, PassesBesideAnAcceptedPoint)
{
  const auto text = single_effects(3, 20, false);
  const auto theta = single_parameters(text);
  const auto n = make_run(text, {true, true, 3}), exact = make_run(text, {true, true, 3});
  objective(*n, theta, true);
  integration::accept_modes(*n);
  const auto lanes = [&](auto&& evaluate) {
    n->ncmprun = 0;
    evaluate();
    return static_cast<double>(n->ncmprun) / static_cast<double>(n->store->nobs);
  };
  const double points = 27.0, h = 1e-4;
  auto up = theta, down = theta;
  up[0] += h, down[0] -= h;
  EXPECT_LE(lanes([&] { objective(*n, up, true); }), points + 2.5);
  auto far = theta; // third derivatives bend the first step
  far[0] += 0.01, far[3] -= 0.01;
  EXPECT_LE(lanes([&] { objective(*n, far, true); }), points + 2.2);
  EXPECT_NEAR(n->objfun, objective(*exact, far, true), 1e-12 * n->objfun);
  for (std::size_t j = 0; j < theta.size(); ++j)
    EXPECT_NEAR(n->objgrad[j], exact->objgrad[j], 1e-8 * (1.0 + std::abs(exact->objgrad[j]))) << j;
  integration::stand_by_prediction(*n, true);
  EXPECT_LE(lanes([&] { objective(*n, up, true); }), points + 1.1);
  const auto above = n->objgrad;
  objective(*n, down, true);
  for (std::size_t j = 0; j < theta.size(); ++j) {
    const double difference = above[j] - n->objgrad[j];
    objective(*exact, up, true);
    double expected = exact->objgrad[j];
    objective(*exact, down, true);
    expected -= exact->objgrad[j];
    EXPECT_NEAR(difference, expected, 1e-7 * std::abs(expected) + 1e-10) << j;
  }
}

// Leaves are taken four at a time, across nests: who stands beside them, and nests that fail, do not show.
TEST(Nested, NestsDoNotSeeThoseBesideThem)
{
  for (const int depth : {2, 3}) {
    auto text = single_effects(depth, 20, true);
    text.assignments[1].second = text.assignments[1].second + log(Term("flag"));
    const auto theta = single_parameters(text);
    const auto& names = text.columns[0].second;
    const auto together = make_run(text, {true, true, 3});
    objective(*together, theta, true);
    int compared = 0;
    for (int s = 0; s < 20; ++s) {
      const auto at = static_cast<std::size_t>(s);
      if (together->slot_value[at] == 0.0) continue; // its batch came after one with a failure
      EXPECT_EQ(together->slot_status[at] != 0, s % 7 == 3) << s;
      if (together->slot_status[at] != 0) continue;
      ++compared;
      auto alone = text;
      for (auto& column : alone.columns) {
        std::vector<double> kept;
        for (std::size_t r = 0; r < column.second.size(); ++r)
          if (names[r] == 100.0 + s) kept.push_back(column.second[r]);
        column.second = kept;
      }
      const auto n = make_run(alone, {true, true, 3});
      EXPECT_EQ(objective(*n, theta, true), together->slot_value[at]) << s;
      for (std::size_t j = 0; j < theta.size(); ++j)
        EXPECT_EQ(n->slot_grad[j], together->slot_grad[at * static_cast<std::size_t>(together->grad_stride) + j]) << s;
    }
    EXPECT_GT(compared, 8);
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
