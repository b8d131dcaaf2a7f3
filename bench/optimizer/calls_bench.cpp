// Value and gradient calls until the objective is within 1e-6 of the minimum (relative above 1), on the unconstrained
// reference problems that all of the methods solve: the default technique beside the quasi-Newton methods of NLopt
// and GSL. Exits with 1 when ours needs more than 1.3 times the calls of the better of the others.

#include "reference_problems.h"

#include <gsl/gsl_errno.h>
#include <gsl/gsl_multimin.h>
#include <nlopt.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>

using namespace torvale;
using test::Problem;

namespace {

// Counts calls, and remembers the count when the minimum was first reached.
struct Counter {
  explicit Counter(const Problem& p) : problem(p) {}
  double value(const double* x)
  {
    ++calls;
    const double f = problem.value(x);
    if (reached == 0 && close(f)) reached = calls;
    return f;
  }
  void gradient(const double* x, double* g)
  {
    ++calls;
    problem.gradient(x, g);
  }
  bool close(double f) const
  {
    return f - problem.minimum <= 1e-6 * std::max(1.0, std::abs(problem.minimum)) ||
           std::any_of(problem.local_minima.begin(), problem.local_minima.end(),
                       [&](double v) { return std::abs(f - v) <= 1e-6 * std::max(1.0, std::abs(v)); });
  }
  const Problem& problem;
  long calls = 0;
  long reached = 0; // 0: never
};

constexpr long most_calls = 20000;

long ours(const Problem& p, bool scaled)
{
  using namespace optimizer;
  Counter counter(p);
  MINSTR str;
  tvlopti(&str);
  str.nvar = p.n;
  str.comstr = &counter;
  str.usfct = [](MINSTR* s) {
    ++s->nfct;
    s->crit = static_cast<Counter*>(s->comstr)->value(s->x);
    return 0;
  };
  str.usgrd = [](MINSTR* s) {
    ++s->ngrd;
    static_cast<Counter*>(s->comstr)->gradient(s->x, s->grad);
    return 0;
  };
  str.tech = DUQUAN;
  str.start_scale = scaled;
  str.agtl = 0.0;
  str.gtol = 1e-14;
  str.maxi = most_calls;
  str.maxf = most_calls;
  tvlopta(&str);
  std::copy(p.start.begin(), p.start.end(), str.x);
  if (tvloptc(&str) == 0 && znlpdrv(&str, 1, 0, 0, 0) == 0) znlpdrv(&str, 2, 0, 0, 0);
  return counter.reached;
}

long by_nlopt(const Problem& p, nlopt_algorithm algorithm)
{
  Counter counter(p);
  nlopt_opt opt = nlopt_create(algorithm, static_cast<unsigned>(p.n));
  nlopt_set_min_objective(
      opt,
      [](unsigned, const double* x, double* g, void* data) {
        Counter& c = *static_cast<Counter*>(data);
        const double f = c.value(x);
        if (g != nullptr) c.gradient(x, g);
        return f;
      },
      &counter);
  nlopt_set_maxeval(opt, static_cast<int>(most_calls / 2));
  nlopt_set_ftol_rel(opt, 1e-15);
  std::vector<double> x = p.start;
  double f = 0.0;
  nlopt_optimize(opt, x.data(), &f);
  nlopt_destroy(opt);
  return counter.reached;
}

long by_gsl(const Problem& p)
{
  Counter counter(p);
  gsl_multimin_function_fdf function;
  function.n = static_cast<std::size_t>(p.n);
  function.params = &counter;
  function.f = [](const gsl_vector* x, void* data) { return static_cast<Counter*>(data)->value(x->data); };
  function.df = [](const gsl_vector* x, void* data, gsl_vector* g) {
    static_cast<Counter*>(data)->gradient(x->data, g->data);
  };
  function.fdf = [](const gsl_vector* x, void* data, double* f, gsl_vector* g) {
    *f = static_cast<Counter*>(data)->value(x->data);
    static_cast<Counter*>(data)->gradient(x->data, g->data);
  };
  gsl_vector* x = gsl_vector_alloc(function.n);
  for (std::size_t i = 0; i < function.n; ++i) gsl_vector_set(x, i, p.start[i]);
  gsl_multimin_fdfminimizer* s = gsl_multimin_fdfminimizer_alloc(gsl_multimin_fdfminimizer_vector_bfgs2, function.n);
  gsl_multimin_fdfminimizer_set(s, &function, x, 0.1, 0.1);
  while (counter.reached == 0 && counter.calls < most_calls && gsl_multimin_fdfminimizer_iterate(s) == GSL_SUCCESS) {
  }
  gsl_multimin_fdfminimizer_free(s);
  gsl_vector_free(x);
  return counter.reached;
}

} // namespace

int main()
{
  gsl_set_error_handler_off();
  struct Method {
    const char* name;
    std::function<long(const Problem&)> run;
    long total = 0;
    int solved = 0;
  };
  Method methods[] = {
      {"DUQUAN", [](const Problem& p) { return ours(p, false); }},
      {"DUQUAN scaled", [](const Problem& p) { return ours(p, true); }},
      {"NLopt L-BFGS", [](const Problem& p) { return by_nlopt(p, NLOPT_LD_LBFGS); }},
      {"NLopt VAR2", [](const Problem& p) { return by_nlopt(p, NLOPT_LD_VAR2); }},
      {"GSL bfgs2", by_gsl},
  };
  std::printf("%-28s", "problem");
  for (const Method& m : methods) std::printf(" %14s", m.name);
  std::printf("\n");
  int common = 0;
  for (const Problem& p : test::reference_problems()) {
    if (p.kind != "unconstrained") continue;
    std::vector<long> calls;
    for (Method& m : methods) {
      calls.push_back(m.run(p));
      m.solved += calls.back() > 0;
    }
    const bool all = std::all_of(calls.begin(), calls.end(), [](long c) { return c > 0; });
    common += all;
    std::printf("%-28s", p.name.c_str());
    for (std::size_t i = 0; i < calls.size(); ++i) {
      if (all) methods[i].total += calls[i];
      std::printf(" %14ld", calls[i]);
    }
    std::printf("\n");
  }
  std::printf("solved %21s", "");
  for (const Method& m : methods) std::printf(" %14d", m.solved);
  std::printf("\ncalls on the %2d all solve    ", common);
  for (const Method& m : methods) std::printf(" %14ld", m.total);
  const long best = std::min({methods[2].total, methods[3].total, methods[4].total});
  std::printf("\nratio to the best of the others: %.2f\n",
              static_cast<double>(methods[0].total) / static_cast<double>(best));
  return static_cast<double>(methods[0].total) <= 1.3 * static_cast<double>(best) ? 0 : 1;
}
