// One evaluation, value and gradient, of a logistic model with a random intercept and 98 covariates: 1,000 subjects of
// 5 observations, 5 points, one thread. The yardstick, in the same binary, is the same gradient parameter by parameter,
// as for models whose derivatives have no coefficients in common. Counter `gain`: time of the second to the first.

#include "integration/objective.h"
#include "integration/small_model.h"
#include "integration/timing.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>

namespace {

using namespace torvale;
using tests::Term;

constexpr int subjects = 1000, observations = 5, covariates = 98, points = 5;

tests::ModelText logistic()
{
  std::mt19937 random(2026);
  std::normal_distribution<double> normal;
  tests::ModelText m;
  m.parameters = {"b", "s2"};
  m.effects = {"u"};
  Term eta = Term("b");
  std::vector<double> subject, y, truth(subjects * observations);
  for (int k = 0; k < covariates; ++k) {
    const std::string b = "b" + std::to_string(k), x = "x" + std::to_string(k);
    m.parameters.push_back(b);
    eta = eta + Term(b.c_str()) * Term(x.c_str());
    std::vector<double> column;
    const double slope = 0.15 * normal(random);
    for (double& t : truth) {
      column.push_back(normal(random));
      t += slope * column.back();
    }
    m.columns.emplace_back(x, column);
  }
  for (int s = 0; s < subjects; ++s) {
    const double u = 0.8 * normal(random);
    for (int i = 0; i < observations; ++i) {
      subject.push_back(s + 1);
      const double t = truth[static_cast<std::size_t>(s * observations + i)] + u;
      y.push_back(std::bernoulli_distribution(1.0 / (1.0 + std::exp(-t)))(random) ? 1.0 : 0.0);
    }
  }
  m.columns.emplace_back("subject", subject);
  m.columns.emplace_back("y", y);
  m.assignments = {{"eta", eta + "u"},
                   {"p", Term(1.0) / (Term(1.0) + exp(-Term("eta")))},
                   {"_ll", Term("y") * log(Term("p")) + (Term(1.0) - "y") * log(Term(1.0) - "p")}};
  m.prior = {Term(0.0), Term("s2")};
  return m;
}

std::shared_ptr<model::NX> ready(bool factored)
{
  const auto n = tests::make_run(logistic(), {true, true, points});
  if (!factored) {
    n->programs.factored = {};
    integration::size_contexts(*n);
  }
  std::vector<double> theta(static_cast<std::size_t>(n->nparm), 0.05);
  theta[1] = 0.6;
  tests::objective(*n, theta, true);
  integration::accept_modes(*n);
  theta[0] += 0.05;
  n->parm = theta;
  n->dograd = true;
  return n;
}

void evaluation_with_many_covariates(benchmark::State& state)
{
  const auto factored = ready(true), plain = ready(false);
  const double whole = bench::seconds_of([&] { tests::evaluate_anew(*factored); });
  const double yardstick = bench::seconds_of([&] { tests::evaluate_anew(*plain); });
  for (auto _ : state) tests::evaluate_anew(*factored);
  state.counters["gain"] = yardstick / whole;
  state.counters["evaluation_us"] = 1e6 * whole;
  state.counters["plain_us"] = 1e6 * yardstick;
}

} // namespace

BENCHMARK(evaluation_with_many_covariates)->Unit(benchmark::kMicrosecond);
