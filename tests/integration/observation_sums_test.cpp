// The likelihood without random effects, its gradient and the outer products of the records' gradients against a plain
// loop, whichever records are left out and whatever they count for.

#include "integration/objective.h"
#include "integration/small_model.h"
#include "matrix/packed.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace torvale::tests {

namespace {

constexpr int all_records = 2600; // blocks and tiles, and a part of one

struct LeftOut {
  const char* name;
  bool (*out)(int row);
  bool weighted;
};

const LeftOut ways_to_leave[] = {
    {"none", [](int) { return false; }, false},
    {"none, weighted", [](int) { return false; }, true},
    {"single ones", [](int row) { return row % 97 == 5; }, false},
    {"single ones, weighted", [](int row) { return row % 97 == 5; }, true},
    {"a stretch", [](int row) { return row > 300 && row < 1500; }, false},
    {"the ends", [](int row) { return row == 0 || row == all_records - 1; }, false},
    {"every second", [](int row) { return row % 2 == 1; }, false},
};

struct PlainSums {
  long double value = 0;
  long double gradient[3] = {};
  long double products[6] = {};
};

PlainSums plain_sums(const ModelText& m, const LeftOut& left, const std::vector<double>& theta)
{
  PlainSums sum;
  const auto &x = m.columns[0].second, &y = m.columns[1].second;
  for (int r = 0; r < all_records; ++r) {
    if (left.out(r)) continue;
    const auto at = static_cast<std::size_t>(r);
    const long double w = left.weighted ? m.weights[at] : 1.0, e = y[at] - (theta[0] + theta[1] * x[at]), v = theta[2];
    const long double g[] = {e / v, e * x[at] / v, -0.5L / v + 0.5L * e * e / (v * v)};
    sum.value += w * 0.5L * (e * e / v + std::log(v));
    for (int i = 0, k = 0; i < 3; ++i) {
      sum.gradient[i] -= w * g[i];
      for (int j = 0; j <= i; ++j) sum.products[k++] += w * g[i] * g[j];
    }
  }
  return sum;
}

ModelText plain_regression(const LeftOut& left)
{
  std::mt19937 random(3);
  std::normal_distribution<double> normal;
  std::vector<double> x, y, weights;
  for (int r = 0; r < all_records; ++r) {
    x.push_back(left.out(r) ? NAN : normal(random));
    y.push_back(0.3 + 0.5 * normal(random));
    weights.push_back(1.0 + r % 3);
  }
  ModelText m;
  m.parameters = {"b0", "b1", "v"};
  const Term e = Term("y") - "eta";
  m.assignments = {{"eta", Term("b0") + Term("b1") * "x"}, {"_ll", Term(-0.5) * (e * e / "v" + log(Term("v")))}};
  m.columns = {{"x", x}, {"y", y}};
  if (left.weighted) m.weights = weights;
  return m;
}

} // namespace

TEST(ObservationSums, AreThoseOfAPlainLoop)
{
  const std::vector<double> theta = {0.2, -0.3, 0.6};
  for (const LeftOut& left : ways_to_leave) {
    const ModelText text = plain_regression(left);
    const auto n = make_run(text, {false, false, 1});
    for (int r = 0; r < all_records; ++r)
      if (left.out(r)) n->store->badobs[static_cast<std::size_t>(r)] = model::BadCause::dependent;
    integration::size_contexts(*n);
    const PlainSums plain = plain_sums(text, left, theta);
    const auto close = [&](double got, long double truth) {
      EXPECT_NEAR(got, static_cast<double>(truth), 1e-12 * (1.0 + std::fabs(static_cast<double>(truth)))) << left.name;
    };
    close(objective(*n, theta, false), plain.value);
    close(objective(*n, theta, true), plain.value);
    for (std::size_t j = 0; j < 3; ++j) close(n->objgrad[j], plain.gradient[j]);
    std::vector<double> products;
    ASSERT_EQ(integration::outer_products(*n, products), 0);
    for (std::size_t k = 0; k < products.size(); ++k) close(products[k], plain.products[k]);
  }
}

// One record that the likelihood cannot take fails the evaluation, wherever it stands; left out it does not.
TEST(ObservationSums, OneImpossibleRecordFailsTheEvaluation)
{
  const LeftOut none = ways_to_leave[0];
  for (const int bad : {0, 511, 512, 1023, 1024, all_records - 1})
    for (const double y : {static_cast<double>(NAN), 1e200, -1e200}) {
      ModelText text = plain_regression(none);
      text.columns[1].second[static_cast<std::size_t>(bad)] = y;
      const auto n = make_run(text, {false, false, 1});
      EXPECT_FALSE(objective(*n, {0.2, -0.3, 0.6}, true) < model::failure_objective) << bad << ", " << y;
      n->store->badobs[static_cast<std::size_t>(bad)] = model::BadCause::log_likelihood;
      integration::size_contexts(*n);
      EXPECT_LT(objective(*n, {0.2, -0.3, 0.6}, true), model::failure_objective) << bad << ", " << y;
    }
}

} // namespace torvale::tests
