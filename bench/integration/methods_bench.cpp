// One evaluation by the ways of integrating beside adaptive quadrature, 2,000 subjects of 5 observations (FirstOrder:
// of as many as its argument says), one thread.
//
// FirstOrder: y ~ normal(exp(b0 + b1 x + u), s2). The yardstick is a vector loop in the same binary, subjects side by
// side, over the sums of the linearized model and then over the subjects (`ratio`: value). SupportPoints: a logistic
// model with 7 support points, value and gradient; the yardstick is quadrature with 7 points that do not adapt
// (`ratio`). Hardy: the same logistic model; counter `evaluations` of a subject's likelihood, mode search included, and
// `ratio` of the value to adaptive quadrature with 15 points.

#include "integration/hand_loop.h"
#include "integration/objective.h"
#include "integration/small_model.h"
#include "integration/timing.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>

namespace {

using namespace torvale;
using bench::seconds_of;
using tests::Term;

constexpr int subjects = 2000;

struct Columns {
  std::vector<double> subject, y, x;
};

template <class Draw> Columns columns(int observations, Draw draw)
{
  std::mt19937 random(2024);
  std::normal_distribution<double> normal;
  Columns c;
  for (int s = 0; s < subjects; ++s) {
    const double u = 0.5 * normal(random);
    for (int i = 0; i < observations; ++i) {
      c.subject.push_back(s + 1);
      c.x.push_back(normal(random));
      c.y.push_back(draw(0.2 + 0.3 * c.x.back() + u, random));
    }
  }
  return c;
}

tests::ModelText with_columns(tests::ModelText m, const Columns& c)
{
  m.columns = {{"subject", c.subject}, {"y", c.y}, {"x", c.x}};
  return m;
}

double evaluation_seconds(model::NX& n, const std::vector<double>& theta, bool gradient)
{
  tests::objective(n, theta, gradient);
  integration::accept_modes(n);
  n.parm[0] += 1e-3;
  n.dograd = gradient;
  return seconds_of([&] { tests::evaluate_anew(n); });
}

void FirstOrder(benchmark::State& state)
{
  const int observations = static_cast<int>(state.range(0));
  const Columns c = columns(observations, [](double eta, std::mt19937& random) {
    return std::exp(eta) + 0.4 * std::normal_distribution<double>()(random);
  });
  tests::ModelText m;
  m.parameters = {"b0", "b1", "s2", "g"};
  m.effects = {"u"};
  m.prior = {Term(0.0), Term("g")};
  const Term e = Term("y") - "eta";
  m.assignments = {{"eta", exp(Term("b0") + Term("b1") * "x" + "u")},
                   {"var", Term("s2")},
                   {"_ll", Term(-0.5) * (Term(1.8378770664093456) + e * e / "var" + log(Term("var")))}};
  const auto n = tests::make_run(with_columns(m, c), {.adaptive = false, .adscale = false, .points = 0, .method = 1});
  // By level, subjects side by side.
  std::vector<double> x, y;
  for (int i = 0; i < observations; ++i)
    for (int s = 0; s < subjects; ++s) {
      x.push_back(c.x[static_cast<std::size_t>(s * observations + i)]);
      y.push_back(c.y[static_cast<std::size_t>(s * observations + i)]);
    }
  for (auto _ : state) {
    const double hand = seconds_of([&] {
      benchmark::DoNotOptimize(
          bench::first_order_objective(x.data(), y.data(), subjects, observations, 0.2, 0.3, 0.16, 0.25));
    });
    state.counters["ratio"] = evaluation_seconds(*n, {0.2, 0.3, 0.16, 0.25}, false) / hand;
    state.counters["ratio_gradient"] = evaluation_seconds(*n, {0.2, 0.3, 0.16, 0.25}, true) / hand;
  }
}
BENCHMARK(FirstOrder)->Arg(5)->Arg(20)->Iterations(3)->Unit(benchmark::kMillisecond);

tests::ModelText logistic()
{
  const Columns c = columns(5, [](double eta, std::mt19937& random) {
    return std::bernoulli_distribution(1.0 / (1.0 + std::exp(-eta)))(random) ? 1.0 : 0.0;
  });
  tests::ModelText m;
  m.parameters = {"b0", "b1", "g"};
  m.effects = {"u"};
  m.prior = {Term(0.0), Term("g")};
  m.assignments = {{"eta", Term("b0") + Term("b1") * "x" + "u"},
                   {"_ll", Term("y") * "eta" - log(Term(1.0) + exp(Term("eta")))}};
  return with_columns(m, c);
}

void SupportPoints(benchmark::State& state)
{
  auto classes = logistic();
  classes.prior.clear();
  for (int t = 0; t < 6; ++t) {
    classes.prior.push_back(Term("g") * (0.5 * t - 1.5));
    classes.prior.emplace_back(1.0 / 7.0);
  }
  const auto discrete = tests::make_run(classes, {.adaptive = false, .adscale = false, .points = 0, .method = 4});
  const auto quadrature = tests::make_run(logistic(), {.adaptive = false, .adscale = false, .points = 7});
  const std::vector<double> theta = {0.2, 0.3, 0.6};
  for (auto _ : state) {
    state.counters["ratio"] = evaluation_seconds(*discrete, theta, true) / evaluation_seconds(*quadrature, theta, true);
    state.counters["ratio_value"] =
        evaluation_seconds(*discrete, theta, false) / evaluation_seconds(*quadrature, theta, false);
  }
}
BENCHMARK(SupportPoints)->Iterations(3)->Unit(benchmark::kMillisecond);

void Hardy(benchmark::State& state)
{
  const auto hardy = tests::make_run(logistic(), {.adaptive = true, .adscale = false, .points = 0, .method = 2});
  const auto quadrature = tests::make_run(logistic(), {.adaptive = true, .adscale = true, .points = 15});
  const std::vector<double> theta = {0.2, 0.3, 0.6};
  for (auto _ : state) {
    state.counters["ratio"] = evaluation_seconds(*hardy, theta, false) / evaluation_seconds(*quadrature, theta, false);
    hardy->ncmprun = 0;
    tests::evaluate_anew(*hardy);
    state.counters["evaluations"] = static_cast<double>(hardy->ncmprun) / static_cast<double>(hardy->store->nobs);
  }
}
BENCHMARK(Hardy)->Iterations(3)->Unit(benchmark::kMillisecond);

} // namespace
