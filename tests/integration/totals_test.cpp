// Sums over records from sums of terms against those of the outputs themselves.

#include "engine/stages/native_stage.h"
#include "evaluation/likelihood_programs.h"
#include "integration/model_family.h"
#include "integration/objective.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace torvale::tests::totals {

namespace {

std::vector<model::ModelProgram*> programs_of(model::NX& n)
{
  return {&n.programs.mode, &n.programs.gradient, &n.programs.closing, &n.programs.closing_point};
}

// As many programs as there are forms for, or none.
void use_totals(model::NX& n, bool all)
{
  for (model::ModelProgram* const p : programs_of(n)) {
    p->terms = p->totals = nullptr;
    p->term_count = 0;
    p->looked_for_totals = !all;
  }
  n.dograd = true;
  if (all) evaluation::specialise_totals(n, 1e9);
  integration::size_contexts(n);
}

int programs_with_totals(model::NX& n)
{
  const auto all = programs_of(n);
  return static_cast<int>(std::count_if(all.begin(), all.end(), [](const auto* p) { return p->terms != nullptr; }));
}

struct Result {
  double value;
  std::vector<double> gradient;
};

Result evaluate(const ModelText& text, const Rule& rule, const std::vector<double>& theta, bool by_totals,
                int& programs)
{
  const auto n = make_run(text, rule);
  n->dograd = true;
  integration::size_contexts(*n);
  use_totals(*n, by_totals);
  if (by_totals) programs += programs_with_totals(*n);
  const double value = objective(*n, theta, true);
  return {value, n->objgrad};
}

void expect_same(const ModelText& text, const Rule& rule, const std::vector<double>& theta, int& programs)
{
  const Result plain = evaluate(text, rule, theta, false, programs);
  const Result by_totals = evaluate(text, rule, theta, true, programs);
  ASSERT_LT(plain.value, model::failure_objective);
  EXPECT_NEAR(by_totals.value, plain.value, 1e-13 * std::abs(plain.value));
  double size = 0.0;
  for (const double g : plain.gradient) size = std::max(size, std::abs(g));
  for (std::size_t j = 0; j < plain.gradient.size(); ++j)
    EXPECT_NEAR(by_totals.gradient[j], plain.gradient[j], 1e-10 * size) << j;
}

// A one-compartment curve whose rates of absorption are those of elimination times exp(apart), and a little.
ModelText curve(double apart, int subjects)
{
  std::mt19937 random(5);
  std::normal_distribution<double> normal;
  std::vector<double> subject, y, time;
  for (int s = 0; s < subjects; ++s) {
    const double ka = std::exp(-1.0 + apart + 1e-3 * normal(random)), cl = std::exp(-3.0 + 0.2 * normal(random)),
                 ke = std::exp(-1.0);
    for (int i = 0; i < 3 + s % 7; ++i) {
      const double t = 0.3 * std::pow(1.6, i);
      subject.push_back(s + 1);
      time.push_back(t);
      y.push_back(4.0 * ke * ka / (cl * (ka - ke)) * (std::exp(-ke * t) - std::exp(-ka * t)) + 0.5 * normal(random));
    }
  }
  ModelText m;
  m.parameters = {"b1", "b2", "b3", "s2", "g1", "c12", "g2"};
  m.effects = {"u1", "u2"};
  m.assignments = {{"ka", exp(Term("b1") + "u1")}, {"cl", exp(Term("b2") + "u2")}, {"ke", exp(Term("b3"))}};
  m.assignments.emplace_back("m", Term(4.0) * "ke" * "ka" / (Term("cl") * (Term("ka") - "ke")) *
                                      (exp(-(Term("ke") * "time")) - exp(-(Term("ka") * "time"))));
  m.assignments.emplace_back("_ll", Term(-0.5) * ((Term("y") - "m") * (Term("y") - "m") / "s2" + log(Term("s2"))));
  m.prior = {Term(0.0), Term(0.0), Term("g1"), Term("c12"), Term("g2")};
  m.columns = {{"subject", subject}, {"y", y}, {"time", time}};
  return m;
}

// The same with guards that some of its records fail: by the model, so that which do depends on the random effects, and
// by the data, where the other side of a choice is missing.
ModelText guarded_curve(double largest_residual)
{
  using syntax::Op;
  ModelText m = curve(1.5, 60);
  const Term residual = Term("y") - "m", by_log = log(Term("y")) - log(Term("m"));
  const Term near = Term(-0.5) * (residual * residual / "s2" + log(Term("s2")));
  const Term near_by_log = Term(-0.5) * (by_log * by_log / "s2" + log(Term("s2"))) - log(Term("y"));
  m.assignments.pop_back();
  m.assignments.emplace_back(
      "ll", Term::choose(Term::binary(Op::greater, residual * residual, Term(largest_residual)), Term(-3.0), near));
  m.assignments.emplace_back(
      "_ll", Term("ll") + Term::choose(Term::binary(Op::greater, Term("y"), Term(0.4)), near_by_log, Term(-1.0)));
  return m;
}

} // namespace

TEST(Totals, AreTheSumsOfTheOutputs)
{
  int programs = 0;
  for (const Response response : responses)
    for (const int effects : {1, 2, 3})
      for (const int points : {1, 5}) {
        SCOPED_TRACE(std::string(name_of(response)) + ", effects " + std::to_string(effects));
        const auto text = regression(response, effects);
        expect_same(text, {true, true, points}, parameters(text, 3), programs);
      }
  for (const Response response : {Response::normal, Response::binary, Response::gamma}) {
    const auto text = nested(response, 2);
    expect_same(text, {true, true, 3}, parameters(text, 4), programs);
  }
  EXPECT_GT(programs, 20);
}

TEST(Totals, OfACurveInFewerOperations)
{
  int programs = 0;
  const auto text = curve(1.5, 40);
  const std::vector<double> theta = {0.5, -3.0, -1.0, 0.25, 0.04, 0.01, 0.05};
  expect_same(text, {true, true, 1}, theta, programs);
  EXPECT_EQ(programs, 4);
  const auto n = make_run(text, {true, true, 1});
  n->dograd = true;
  integration::size_contexts(*n);
  for (const auto* const p : {&n->programs.mode, &n->programs.closing_point}) {
    ASSERT_NE(p->terms, nullptr);
    EXPECT_LT(2 * engine::program_size(*p->terms).lane, engine::program_size(*p->code).lane);
  }
  // What records have in common at all points is computed once for all programs of an evaluation.
  EXPECT_GT(engine::program_size(*n->programs.record_terms).observation, 0);
  for (const auto* const p : {&n->programs.mode, &n->programs.closing_point})
    EXPECT_EQ(engine::program_size(*p->terms).observation, 0);
}

// Records that fail a guard yield the sums nothing, a missing value of the other side neither; and the gradient is that
// of the value.
TEST(Totals, OfGuardedRecords)
{
  const std::vector<double> theta = {0.5, -3.0, -1.0, 0.25, 0.04, 0.01, 0.05};
  for (const double largest : {0.09, 0.7, 1e300})
    for (const int points : {1, 3}) {
      SCOPED_TRACE(largest);
      const auto text = guarded_curve(largest);
      int programs = 0;
      expect_same(text, {true, true, points}, theta, programs);
      EXPECT_GT(programs, 1);
      if (largest < 1.0) continue; // a record may cross the guard within a difference
      const Result at = evaluate(text, {true, true, points}, theta, true, programs);
      for (std::size_t j = 0; j < theta.size(); ++j) {
        const double h = 1e-5 * (0.1 + std::abs(theta[j]));
        auto up = theta, down = theta;
        up[j] += h;
        down[j] -= h;
        const double difference = (evaluate(text, {true, true, points}, up, true, programs).value -
                                   evaluate(text, {true, true, points}, down, true, programs).value) /
                                  (2.0 * h);
        EXPECT_NEAR(at.gradient[j], difference, 1e-5 * (1.0 + std::abs(difference))) << j;
      }
    }
}

TEST(Totals, SameBitsForThreadsAndWithoutMachineCode)
{
  for (const auto& text : {curve(1.5, 300), guarded_curve(0.7)})
    for (const int points : {1, 4}) {
      const auto evaluated = [&](int threads) {
        const auto n = make_run(text, {true, true, points, 0, 0, threads});
        n->dograd = true;
        integration::size_contexts(*n);
        EXPECT_NE(n->programs.closing.terms, nullptr);
        std::vector<double> result = {objective(*n, {0.5, -3.0, -1.0, 0.25, 0.04, 0.01, 0.05}, true)};
        result.insert(result.end(), n->objgrad.begin(), n->objgrad.end());
        return result;
      };
      const auto expected = evaluated(1);
      ASSERT_LT(expected[0], model::failure_objective);
      for (const int threads : {2, 3, 7}) EXPECT_EQ(evaluated(threads), expected) << threads;
      engine::set_native(false);
      EXPECT_EQ(evaluated(1), expected);
      engine::set_native(true);
    }
}

// Where the two rates are nearly the same the derivatives are small differences of large terms: no more is lost of them
// than without terms, where values at points next to each other scatter by what is lost.
TEST(Totals, KeepWhatCancels)
{
  const auto text = curve(1e-4, 20);
  const auto scatter = [&](bool by_totals, int& programs) {
    double least = 1e300, most = -1e300;
    for (int k = 0; k < 12; ++k) {
      const std::vector<double> theta = {-1.0 + 1e-4 + k * 1e-13, -3.0, -1.0, 0.25, 1e-6, 0.0, 0.05};
      const double value = evaluate(text, {true, true, 1}, theta, by_totals, programs).value;
      least = std::min(least, value);
      most = std::max(most, value);
    }
    return std::pair(least, most);
  };
  int programs = 0;
  const auto plain = scatter(false, programs), by_totals = scatter(true, programs);
  ASSERT_GT(programs, 0);
  ASSERT_LT(plain.second, model::failure_objective);
  const double lost = plain.second - plain.first;
  EXPECT_LT(by_totals.second - by_totals.first, 4.0 * lost);
  EXPECT_NEAR(by_totals.first, plain.first, 4.0 * lost);
}

} // namespace torvale::tests::totals
