// What a result must not depend on: the number of workers, the order of rows, the other subjects of a batch, the points
// that were evaluated before.

#include "integration/model_family.h"
#include "integration/objective.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace torvale::tests {

namespace {

struct Result {
  double value;
  std::vector<double> gradient, modes;
  bool operator==(const Result&) const = default;
};

Result evaluate(model::NX& n, const std::vector<double>& theta)
{
  const double value = objective(n, theta, true);
  return {value, n.objgrad, n.ebtrial};
}

} // namespace

TEST(Invariance, ThreadCountsGiveEqualBits)
{
  for (const int effects : {1, 2}) {
    const auto text = regression(Response::negbin, effects, 150);
    const auto theta = parameters(text, 3);
    const auto one = make_run(text, {true, true, 5});
    const Result expected = evaluate(*one, theta);
    ASSERT_LT(expected.value, model::failure_objective);
    for (const int threads : {2, 3, 5}) {
      const auto n = make_run(text, {true, true, 5, 0, 0, threads});
      ASSERT_EQ(n->ctx.size(), static_cast<std::size_t>(threads));
      for (int repeat = 0; repeat < 3; ++repeat) EXPECT_EQ(evaluate(*n, theta), expected) << threads;
    }
  }
}

TEST(Invariance, ThreadCountsWithoutRandomEffects)
{
  auto text = regression(Response::gamma, 1, 900);
  text.effects.clear();
  text.prior.clear();
  text.parameters = {"b0", "b1", "s2"};
  text.assignments[0].second = Term("b0") + Term("b1") * "x";
  const auto one = make_run(text, {false, false, 1});
  const Result expected = evaluate(*one, {0.2, 0.3, 0.6});
  for (const int threads : {2, 3, 5}) {
    const auto n = make_run(text, {false, false, 1, 0, 0, threads});
    EXPECT_EQ(evaluate(*n, {0.2, 0.3, 0.6}), expected);
  }
}

// Each subject alone gives the same bits as in company: tiles, batches and lockstep do not show, whether subjects or
// points lie side by side in the lanes, and in how many chunks.
TEST(Invariance, SubjectsDoNotSeeTheirBatch)
{
  struct {
    int effects, points;
  } const cases[] = {{1, 7}, {1, 20}, {2, 7}, {2, 17}};
  for (const auto& c : cases) {
    const auto text = regression(Response::binary, c.effects, 40);
    const auto theta = parameters(text, 4);
    const auto together = make_run(text, {true, true, c.points});
    ASSERT_LT(objective(*together, theta, true), model::failure_objective);
    for (const double subject : {100.0, 107.0, 139.0}) {
      auto alone = text;
      for (auto& column : alone.columns) {
        std::vector<double> kept;
        for (std::size_t r = 0; r < column.second.size(); ++r)
          if (text.columns[0].second[r] == subject) kept.push_back(column.second[r]);
        column.second = kept;
      }
      const auto n = make_run(alone, {true, true, c.points});
      EXPECT_EQ(objective(*n, theta, true), together->slot_value[static_cast<std::size_t>(subject - 100)]) << c.points;
      const double* const gradient =
          together->slot_grad.data() + static_cast<long>(subject - 100) * together->grad_stride;
      for (std::size_t j = 0; j < theta.size(); ++j) EXPECT_EQ(n->slot_grad[j], gradient[j]) << c.points;
    }
  }
}

// Subjects are decided and closed four at a time; those beside them, or places that are left, do not show either:
// subjects whose log likelihood is missing, and ones with data so odd that their search takes many steps.
TEST(Invariance, SubjectsDoNotSeeThoseThatFail)
{
  for (const int effects : {1, 2, 3})
    for (const int count : {1, 3, 6, 37})
      for (const int points : {1, 4}) {
        auto text = regression(Response::poisson, effects, count);
        const auto theta = parameters(text, 5);
        auto& names = text.columns[0].second;
        auto flag = text.columns[0];
        flag.first = "flag";
        for (double& f : flag.second) f = std::fmod(f, 5.0) == 2.0 ? -1.0 : 1.0;
        text.columns.push_back(flag);
        for (auto& [name, values] : text.columns)
          for (std::size_t r = 0; name == "y" && r < values.size(); ++r)
            if (std::fmod(names[r], 4.0) == 1.0) values[r] = 300.0 * values[r] + 40.0;
        text.assignments[1].second = text.assignments[1].second + log(Term("flag"));
        const auto together = make_run(text, {true, true, points});
        together->dograd = true;
        integration::size_contexts(*together);
        objective(*together, theta, true);
        for (int s = 0; s < count; ++s) {
          const auto at = static_cast<std::size_t>(s);
          const double name = 100.0 + s;
          EXPECT_EQ(together->slot_status[at] != 0, std::fmod(name, 5.0) == 2.0) << s;
          if (together->slot_status[at] != 0) continue;
          auto alone = text;
          for (auto& column : alone.columns) {
            std::vector<double> kept;
            for (std::size_t r = 0; r < column.second.size(); ++r)
              if (names[r] == name) kept.push_back(column.second[r]);
            column.second = kept;
          }
          const auto n = make_run(alone, {true, true, points});
          n->dograd = true;
          integration::size_contexts(*n);
          EXPECT_EQ(objective(*n, theta, true), together->slot_value[at]) << s;
          for (std::size_t j = 0; j < theta.size(); ++j)
            EXPECT_EQ(n->slot_grad[j], together->slot_grad[at * static_cast<std::size_t>(together->grad_stride) + j])
                << s;
          const auto nr = static_cast<std::size_t>(effects);
          for (std::size_t i = 0; i < nr; ++i) EXPECT_EQ(n->ebtrial[i], together->ebtrial[at * nr + i]) << s;
        }
      }
}

TEST(Invariance, ShuffledRowsGiveTheSameAnswer)
{
  const auto sorted = regression(Response::poisson, 2, 30), shuffled = regression(Response::poisson, 2, 30, true);
  const auto theta = parameters(sorted, 8);
  const auto a = make_run(sorted, {true, true, 5}), b = make_run(shuffled, {true, true, 5});
  // Rows of a subject and subjects come in another order: sums differ in rounding only.
  const double value = objective(*a, theta, true);
  EXPECT_NEAR(objective(*b, theta, true), value, 1e-13 * std::abs(value));
  for (std::size_t j = 0; j < theta.size(); ++j)
    EXPECT_NEAR(a->objgrad[j], b->objgrad[j], 1e-10 * (1.0 + std::abs(a->objgrad[j])));
}

// A value is a function of the point and of the accepted iterate: far trials leave no trace.
TEST(Invariance, FarTrialsLeaveNoTrace)
{
  const auto text = regression(Response::poisson, 2, 20);
  const auto theta = parameters(text, 9);
  const auto n = make_run(text, {true, true, 3});
  evaluate(*n, theta);
  integration::accept_modes(*n);
  const Result before = evaluate(*n, theta);
  for (const double away : {3.0, -4.0, 6.0}) {
    auto far = theta;
    far[0] += away;
    far[4] += std::abs(away);
    evaluate(*n, far);
    EXPECT_EQ(evaluate(*n, theta), before) << away;
  }
}

// Weights count subjects: a weight of 2 is the subject twice, a weight of 0 is none.
TEST(Invariance, ReplicateCounts)
{
  auto text = regression(Response::normal, 1, 3);
  const auto theta = parameters(text, 2);
  const auto plain = make_run(text, {true, true, 3});
  objective(*plain, theta, true);
  const auto values = plain->slot_value;
  const auto gradients = plain->slot_grad;
  const double counts[] = {2.0, 0.0, 1.5};
  for (const double s : text.columns[0].second) text.weights.push_back(counts[static_cast<std::size_t>(s - 100)]);
  const auto weighted = make_run(text, {true, true, 3});
  EXPECT_NEAR(objective(*weighted, theta, true), 2.0 * values[0] + 1.5 * values[2], 1e-12);
  ASSERT_EQ(integration::form_meat(*weighted), 0);
  double expected = 0.0; // first element: sum of count times squared derivative
  for (std::size_t s = 0; s < 3; ++s) {
    const double g = gradients[s * static_cast<std::size_t>(plain->grad_stride)];
    expected += counts[s] * g * g;
  }
  EXPECT_NEAR(weighted->meat[0], expected, 1e-12 * expected);
}

} // namespace torvale::tests
