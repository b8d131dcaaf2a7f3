// One evaluation, value and gradient, of a logistic model with nested intercepts: 2,000 outer subjects with 4 inner
// ones of 5 records, 3 points a level: 360,000 (record, joint point) lanes. The yardstick, in the same binary, is one
// level with as many lanes: 8,000 subjects of 5 records, 9 points. Counter `ratio`: time of the first to the second;
// `lanes`, `single_lanes`: lanes of either, the searches for modes included, in such numbers. One thread.

#include "integration/objective.h"
#include "integration/small_model.h"
#include "integration/timing.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>

namespace {

using namespace torvale;
using tests::Term;

constexpr int outer = 2000, inner = 4, records = 5;

tests::ModelText logistic(bool nested)
{
  std::mt19937 random(2025);
  std::normal_distribution<double> normal;
  std::vector<double> subject, child, y, x;
  for (int s = 0; s < outer; ++s) {
    const double u = 0.8 * normal(random);
    for (int c = 0; c < inner; ++c) {
      const double v = 0.5 * normal(random);
      for (int i = 0; i < records; ++i) {
        subject.push_back(nested ? s + 1 : s * inner + c + 1);
        child.push_back(c + 1);
        x.push_back(normal(random));
        y.push_back(std::bernoulli_distribution(1.0 / (1.0 + std::exp(-(0.2 + 0.7 * x.back() + u + v))))(random) ? 1.0
                                                                                                                 : 0.0);
      }
    }
  }
  tests::ModelText m;
  m.parameters = {"b0", "b1", "s2", "t2"};
  Term eta = Term("b0") + Term("b1") * "x" + "u";
  m.columns = {{"subject", subject}, {"y", y}, {"x", x}};
  if (nested) {
    eta = eta + "v";
    m.levels = {{"subject", {"u"}, {Term(0.0), Term("s2")}}, {"child", {"v"}, {Term(0.0), Term("t2")}}};
    m.columns.emplace_back("child", child);
  } else {
    m.effects = {"u"};
    m.prior = {Term(0.0), Term("s2") + "t2"};
  }
  m.assignments = {{"eta", eta}, {"_ll", Term("y") * "eta" - log(Term(1.0) + exp(Term("eta")))}};
  return m;
}

std::shared_ptr<model::NX> ready(bool nested, int points)
{
  const auto n = tests::make_run(logistic(nested), {true, true, points});
  tests::objective(*n, {0.15, 0.65, 0.55, 0.3}, true);
  integration::accept_modes(*n);
  n->parm = {0.2, 0.7, 0.6, 0.25};
  n->dograd = true;
  return n;
}

void evaluation_of_nested_intercepts(benchmark::State& state)
{
  const auto nested = ready(true, 3), single = ready(false, 9);
  const double whole = bench::seconds_of([&] { tests::evaluate_anew(*nested); });
  const double yardstick = bench::seconds_of([&] { tests::evaluate_anew(*single); });
  for (auto _ : state) tests::evaluate_anew(*nested);
  constexpr double lanes = static_cast<double>(outer) * inner * records * 9;
  state.counters["lanes"] = static_cast<double>(nested->ctx[0]->ncmpRuns) / lanes;
  state.counters["single_lanes"] = static_cast<double>(single->ctx[0]->ncmpRuns) / lanes;
  state.counters["ratio"] = whole / yardstick;
  state.counters["nested_us"] = 1e6 * whole;
  state.counters["single_us"] = 1e6 * yardstick;
}

} // namespace

BENCHMARK(evaluation_of_nested_intercepts)->Unit(benchmark::kMicrosecond);
