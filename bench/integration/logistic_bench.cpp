// One evaluation, value and gradient, of a logistic model with a random intercept: 2,000 subjects of 5 observations,
// adaptive quadrature with 7 points, searches starting from the modes of a nearby point. The yardstick is a vector loop
// in the same binary that only takes the exponentials and logarithms of those lanes: 10,000 observations at 7 points,
// and of three Newton steps. Counters: `ratio` to that loop, `to_least` to one exponential and one logarithm of the
// lanes at points alone, `mode_share` the part of the mode search, `steps` Newton passes of a subject. One thread; data
// and programs are ready, as in the middle of a fit.

#include "evaluation/random_covariance.h"
#include "integration/hand_loop.h"
#include "integration/objective.h"
#include "integration/small_model.h"
#include "integration/subjects/evaluation_parts.h"
#include "integration/timing.h"
#include "modes/mode_search.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>

namespace {

using namespace torvale;
using tests::Term;

constexpr int subjects = 2000, observations = 5, points = 7;

// Ways to write the same likelihood: with one logarithm; with the logarithms of both probabilities; and with the guards
// of what MODEL y ~ BINARY(p) writes.
enum class Form { softplus, probability, binary };

tests::ModelText logistic(Form form)
{
  std::mt19937 random(2024);
  std::normal_distribution<double> normal;
  std::vector<double> subject, y, x;
  for (int s = 0; s < subjects; ++s) {
    const double u = 0.8 * normal(random);
    for (int i = 0; i < observations; ++i) {
      subject.push_back(s + 1);
      x.push_back(normal(random));
      y.push_back(std::bernoulli_distribution(1.0 / (1.0 + std::exp(-(0.2 + 0.7 * x.back() + u))))(random) ? 1.0 : 0.0);
    }
  }
  tests::ModelText m;
  m.parameters = {"b0", "b1", "s2"};
  m.effects = {"u"};
  const Term eta = Term("b0") + Term("b1") * "x" + "u";
  m.assignments = {{"eta", eta}};
  if (form == Form::softplus) {
    m.assignments.emplace_back("_ll", Term("y") * "eta" - log(Term(1.0) + exp(Term("eta"))));
  } else {
    m.assignments.emplace_back("p", Term(1.0) / (Term(1.0) + exp(-Term("eta"))));
  }
  if (form == Form::binary) {
    const auto at_most = [](const Term& a, const Term& b) { return Term::binary(syntax::Op::less_equal, a, b); };
    const auto above = [](const Term& a, const Term& b) { return Term::binary(syntax::Op::greater, a, b); };
    const Term r = "y", p = "p", least = 1e-14, impossible = -1e20, zero = 0.0;
    const Term successes = Term::choose(above(r, 0.0), r * log(p), zero);
    const Term failures = Term::choose(above(1.0, r), (Term(1.0) - r) * log(Term(1.0) - p), zero);
    const auto both = [](const Term& a, const Term& b) { return Term::binary(syntax::Op::and_, a, b); };
    const Term high = both(above(1.0, r), at_most(Term(1.0) - least, p)), low = both(above(r, 0.0), at_most(p, least));
    m.assignments.emplace_back("_ll",
                               Term::choose(low, impossible, Term::choose(high, impossible, successes + failures)));
  } else if (form == Form::probability) {
    m.assignments.emplace_back("_ll", Term("y") * log(Term("p")) + (Term(1.0) - "y") * log(Term(1.0) - "p"));
  }
  m.prior = {Term(0.0), Term("s2")};
  m.columns = {{"subject", subject}, {"y", y}, {"x", x}};
  return m;
}

using bench::seconds_of;

// `evaluations`: lanes of the loop for each observation; with the points alone it is what an evaluation cannot do
// without.
double hand_loop_seconds(Form form, int evaluations)
{
  constexpr int buffer = 512;
  std::vector<double> x(buffer);
  for (int i = 0; i < buffer; ++i) x[static_cast<std::size_t>(i)] = -3.0 + 6.0 * i / buffer;
  const long lanes = static_cast<long>(subjects) * observations * evaluations;
  return seconds_of([&] {
    benchmark::DoNotOptimize(
        bench::exponentials_and_logarithms(x.data(), buffer, lanes, form == Form::probability ? 2 : 1));
  });
}

void search_modes(model::NX& n)
{
  auto& ctx = *n.ctx[0];
  ctx.frame->set_parameters(n.parm.data());
  ctx.batch.prior_loaded = false;
  for (const auto& batch : n.batches) {
    integration::take_batch(n, ctx, batch);
    evaluation::load_priors(n, ctx, true);
    modes::tvlebes(n, ctx);
  }
}

void evaluation_of_a_logistic_model(benchmark::State& state, Form form)
{
  const auto n = tests::make_run(logistic(form), {true, true, points});
  tests::objective(*n, {0.15, 0.65, 0.55}, true);
  integration::accept_modes(*n);
  n->parm = {0.2, 0.7, 0.6};
  n->dograd = true;
  const double hand = hand_loop_seconds(form, points + 3), least = hand_loop_seconds(Form::softplus, points);
  const double whole = seconds_of([&] { tests::evaluate_anew(*n); });
  const double modes = seconds_of([&] { search_modes(*n); });
  for (auto _ : state) tests::evaluate_anew(*n);
  state.counters["ratio"] = whole / hand;
  state.counters["to_least"] = whole / least;
  state.counters["loop_us"] = 1e6 * hand;
  state.counters["evaluation_us"] = 1e6 * whole;
  state.counters["mode_share"] = modes / whole;
  state.counters["steps"] = static_cast<double>(n->ctx[0]->ncmpRuns - 10000L * (points + 1)) / 10000.0;
  state.SetLabel(std::string(engine::isa_name()) + ", loop " + bench::hand_loop_isa());
}

} // namespace

BENCHMARK_CAPTURE(evaluation_of_a_logistic_model, softplus, Form::softplus)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(evaluation_of_a_logistic_model, probability, Form::probability)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(evaluation_of_a_logistic_model, binary, Form::binary)->Unit(benchmark::kMicrosecond);
