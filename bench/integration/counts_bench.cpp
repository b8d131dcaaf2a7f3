// One evaluation, value and gradient, of a regression of counts without random effects: 400,000 records, two
// covariates, as MODEL y ~ NEGBIN(1/k, 1/(1 + k*mu)) and MODEL y ~ POISSON(mu) write their log likelihoods. Counters:
// `ratio` of the negative binomial to the Poisson, in turns; nanoseconds a record of each. One thread.

#include "integration/objective.h"
#include "integration/small_model.h"
#include "integration/timing.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>

namespace {

using namespace torvale;
using tests::Term;

constexpr int records = 400000;

Term missing(const char* name)
{
  return Term::call("missing", {Term(name)});
}

Term any(std::initializer_list<Term> conditions)
{
  const Term* last = conditions.begin();
  Term all = *last;
  while (++last != conditions.end()) all = Term::binary(syntax::Op::or_, all, *last);
  return all;
}

Term is(const char* a, syntax::Op how, double b)
{
  return Term::binary(how, Term(a), Term(b));
}

constexpr double smallest = 0x1p-53, impossible = -1e20;

tests::ModelText poisson()
{
  tests::ModelText m;
  m.parameters = {"b0", "b1", "b2"};
  const Term ll = -Term("mu") - lgamma(Term(1.0) + "y") + Term("y") * log(Term("mu"));
  const Term bad = any({is("mu", syntax::Op::less, smallest), is("mu", syntax::Op::greater, 1.3407807929943e+154),
                        is("y", syntax::Op::less, 0.0)});
  m.assignments = {
      {"mu", exp(Term("b0") + Term("b1") * "x" + Term("b2") * "z")},
      {"_ll", Term::choose(any({missing("y"), missing("mu")}), Term(NAN), Term::choose(bad, Term(impossible), ll))}};
  return m;
}

tests::ModelText negative_binomial()
{
  tests::ModelText m;
  m.parameters = {"b0", "b1", "b2", "k"};
  const Term ll = lgamma(Term("n") + "y") - lgamma(Term("n")) - lgamma(Term(1.0) + "y") + Term("n") * log(Term("p")) +
                  Term("y") * log(Term(1.0) - "p");
  const Term bad = any({is("y", syntax::Op::less, 0.0), is("n", syntax::Op::less_equal, smallest),
                        is("p", syntax::Op::less_equal, smallest), is("p", syntax::Op::greater_equal, 1.0 - smallest)});
  m.assignments = {{"mu", exp(Term("b0") + Term("b1") * "x" + Term("b2") * "z")},
                   {"n", Term(1.0) / "k"},
                   {"p", Term(1.0) / (Term(1.0) + Term("k") * "mu")},
                   {"_ll", Term::choose(any({missing("y"), missing("n"), missing("p")}), Term(NAN),
                                        Term::choose(bad, Term(impossible), ll))}};
  return m;
}

tests::ModelText with_counts(tests::ModelText m)
{
  std::mt19937 random(5);
  std::normal_distribution<double> normal;
  std::vector<double> y, x, z;
  for (int i = 0; i < records; ++i) {
    x.push_back(normal(random));
    z.push_back(normal(random));
    const double mean = std::exp(0.5 + 0.3 * x.back() - 0.2 * z.back());
    y.push_back(std::poisson_distribution<int>(std::gamma_distribution<double>(2.0, 0.5 * mean)(random))(random));
  }
  m.columns = {{"y", y}, {"x", x}, {"z", z}};
  return m;
}

void counts(benchmark::State& state)
{
  const auto many = tests::make_run(with_counts(negative_binomial()), {}),
             few = tests::make_run(with_counts(poisson()), {});
  tests::objective(*many, {0.4, 0.25, -0.15, 0.6}, true);
  tests::objective(*few, {0.4, 0.25, -0.15}, true);
  many->parm = {0.5, 0.3, -0.2, 0.5};
  few->parm = {0.5, 0.3, -0.2};
  double of_many = 1e9, of_few = 1e9;
  for (auto _ : state) {
    of_few = std::min(of_few, bench::seconds_of([&] { tests::evaluate_anew(*few); }, 10));
    of_many = std::min(of_many, bench::seconds_of([&] { tests::evaluate_anew(*many); }, 10));
  }
  state.counters["ratio"] = of_many / of_few;
  state.counters["negative_binomial_ns"] = 1e9 * of_many / records;
  state.counters["poisson_ns"] = 1e9 * of_few / records;
}

} // namespace

BENCHMARK(counts)->Iterations(10)->Unit(benchmark::kMillisecond);
