// One evaluation, value and gradient, of a one-compartment oral model with two random effects: 2,000 subjects of 10
// observations, one point at the mode (Laplace), searches starting from the modes of a nearby point. The yardstick is a
// vector loop in the same binary that takes two exponentials for each observation, once. Counters: `ratio` to that
// loop, `passes` of a program over all observations, and `beside`: what an evaluation beside an accepted point costs,
// where predictions stand, in such evaluations. Once with the log likelihood written out, once with the guards that a
// MODEL statement gives it. One thread; data and programs are ready, as in the middle of a fit.

#include "integration/hand_loop.h"
#include "integration/objective.h"
#include "integration/small_model.h"
#include "integration/timing.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>

namespace {

using namespace torvale;
using tests::Term;

constexpr int subjects = 2000, observations = 10;

tests::ModelText kinetics(bool guarded)
{
  std::mt19937 random(77);
  std::normal_distribution<double> normal;
  std::vector<double> subject, y, time;
  for (int s = 0; s < subjects; ++s) {
    const double ka = std::exp(0.4 + 0.3 * normal(random)), cl = std::exp(-3.2 + 0.25 * normal(random)),
                 ke = std::exp(-2.45);
    for (int i = 0; i < observations; ++i) {
      const double t = 0.3 * std::pow(1.6, i);
      subject.push_back(s + 1);
      time.push_back(t);
      y.push_back(4.0 * ke * ka / (cl * (ka - ke)) * (std::exp(-ke * t) - std::exp(-ka * t)) + 0.5 * normal(random));
    }
  }
  tests::ModelText m;
  m.parameters = {"b1", "b2", "b3", "s2", "g1", "c12", "g2"};
  m.effects = {"u1", "u2"};
  m.assignments = {{"ka", exp(Term("b1") + "u1")}, {"cl", exp(Term("b2") + "u2")}, {"ke", exp(Term("b3"))}};
  m.assignments.emplace_back("m", Term(4.0) * "ke" * "ka" / (Term("cl") * (Term("ka") - "ke")) *
                                      (exp(-(Term("ke") * "time")) - exp(-(Term("ka") * "time"))));
  const Term residual = Term("y") - "m", ll = Term(-0.5) * (residual * residual / "s2" + log(Term("s2")));
  const auto missing = [](const Term& a) { return Term::call("missing", {a}); };
  const auto above = [](const Term& a, double b) { return Term::binary(syntax::Op::greater, a, Term(b)); };
  const auto either = [](const Term& a, const Term& b) { return Term::binary(syntax::Op::or_, a, b); };
  const Term impossible = either(Term::binary(syntax::Op::less, Term("s2"), Term(1e-60)),
                                 above(Term::call("abs", {residual}), 1.3407807929943e+154));
  m.assignments.emplace_back("_ll", !guarded
                                        ? ll
                                        : Term::choose(either(missing(Term("m")), missing(Term("y"))),
                                                       Term(std::nan("")), Term::choose(impossible, Term(-1e20), ll)));
  m.prior = {Term(0.0), Term(0.0), Term("g1"), Term("c12"), Term("g2")};
  m.columns = {{"subject", subject}, {"y", y}, {"time", time}};
  return m;
}

void evaluation_of_a_kinetic_model(benchmark::State& state, bool guarded)
{
  const auto n = tests::make_run(kinetics(guarded), {true, true, 1});
  n->dograd = true; // the mode is the only point: what is wanted there comes from one program, as in a fit
  integration::size_contexts(*n);
  tests::objective(*n, {0.38, -3.19, -2.44, 0.26, 0.1, 0.01, 0.07}, true);
  integration::accept_modes(*n);
  n->parm = {0.4, -3.2, -2.45, 0.25, 0.09, 0.005, 0.0625};
  n->dograd = true;
  constexpr int buffer = 512;
  std::vector<double> x(buffer);
  for (int i = 0; i < buffer; ++i) x[static_cast<std::size_t>(i)] = -6.0 + 6.0 * i / buffer;
  constexpr long records = static_cast<long>(subjects) * observations;
  const double hand = bench::seconds_of(
      [&] { benchmark::DoNotOptimize(bench::exponentials_and_logarithms(x.data(), buffer, 2 * records, 0)); });
  const double whole = bench::seconds_of([&] { tests::evaluate_anew(*n); });
  for (auto _ : state) tests::evaluate_anew(*n);
  state.counters["passes"] = static_cast<double>(n->ctx[0]->ncmpRuns) / static_cast<double>(records);
  // As the Hessian of a fit asks for it: beside the point of the accepted modes.
  integration::accept_modes(*n);
  integration::stand_by_prediction(*n, true);
  n->parm[0] += 1e-6;
  state.counters["beside"] = bench::seconds_of([&] { tests::evaluate_anew(*n); }) / whole;
  state.counters["ratio"] = whole / hand;
  state.counters["evaluation_us"] = 1e6 * whole;
  state.SetLabel(std::string(engine::isa_name()) + ", loop " + bench::hand_loop_isa());
}

} // namespace

BENCHMARK_CAPTURE(evaluation_of_a_kinetic_model, written_out, false)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(evaluation_of_a_kinetic_model, with_guards, true)->Unit(benchmark::kMicrosecond);
