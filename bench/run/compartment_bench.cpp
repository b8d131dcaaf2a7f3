// Compartment models, whole programs on one thread, processor time.
//
// fixed_doses: the oral one-compartment model with two effects, 1,200 subjects of 11 records, by CMPTMODEL and by the
// formula written by hand; both are fitted. `ratio`: time of CMPTMODEL's fit over the other's, each for one evaluation
// (reading the data is outside: a run without a fit is taken off).
// histories: dose histories as event records, 10 to 1,000 events a subject and 20,000 in all, one evaluation with
// gradient. `ns`: time for one event. `fit_s` of fit_of_histories: the whole fit of 100 subjects of 30 events, two
// effects, one point.

#include "run/timed_run.h"

#include <benchmark/benchmark.h>

#include <random>

namespace {

using namespace torvale::bench;

void write_fixed_doses(std::ofstream file)
{
  std::mt19937 random(7);
  std::normal_distribution<double> normal;
  constexpr double times[] = {0.25, 0.5, 1, 2, 3.5, 5, 7, 9, 12, 18, 24};
  file << "id,time,dose,conc\n";
  for (int s = 1; s <= 1200; ++s) {
    const double cl = std::exp(-3.2 + 0.2 * normal(random)), ka = std::exp(0.5 + 0.6 * normal(random)), ke = 0.085;
    for (const double t : times) {
      const double mean = 4.5 * ke * ka / (cl * (ka - ke)) * (std::exp(-ke * t) - std::exp(-ka * t));
      file << s << ',' << t << ",4.5," << mean + 0.6 * normal(random) << '\n';
    }
  }
}

std::string fixed_program(const std::string& options, const std::string& prediction)
{
  return "TORVALE DATA=fixed QPOINTS=1 " + options +
         "; PARMS lcl0=-3 lka0=0.3 lke0=-2.4 v1=0.1 c12=0 v2=0.3 s2=0.5; BOUNDS v1 > 0, v2 > 0, s2 > 0;"
         "cl = exp(lcl0 + b1); ka = exp(lka0 + b2); ke = exp(lke0);" +
         prediction + "MODEL conc ~ NORMAL(pred, s2); RANDOM b1 b2 ~ NORMAL([0,0],[v1,c12,v2]) SUBJECT=id; RUN;";
}

// A fit and the same run without one, each the fastest of several that take turns with the other model's.
struct FitAlone {
  std::string prediction;
  TimedRun fit, none;
  void run(const std::string& folder)
  {
    const auto faster = [](TimedRun& best, const TimedRun& now) {
      if (!(best.seconds <= now.seconds)) best = now;
    };
    faster(fit, timed_run(folder, fixed_program("", prediction)));
    faster(none, timed_run(folder, fixed_program("TECHNIQUE=NONE", prediction), 6));
  }
  double evaluation() const { return (fit.seconds - none.seconds) / (fit.evaluations - 1.0); }
};

void fixed_doses(benchmark::State& state)
{
  const DataFolder folder("torvale-compartment-bench");
  write_fixed_doses(folder.file("fixed.csv"));
  FitAlone statement{"vol = cl/ke; CMPTMODEL NCOMPS=1 ADMTYPE=ORAL PARMTYPE=2 CL=cl VOL=vol KA=ka "
                     "SCALE1=vol DOSE0=dose TIME=time PCONC=pred;",
                     {},
                     {}},
      hand{"pred = dose*ke*ka/(cl*(ka - ke))*(exp(-ke*time) - exp(-ka*time));", {}, {}};
  for (auto _ : state) {
    statement.run(folder.path());
    hand.run(folder.path());
  }
  state.counters["ratio"] = statement.evaluation() / hand.evaluation();
  state.counters["difference"] = statement.fit.minus2 - hand.fit.minus2; // of -2 log likelihood: the fits are the same
}
BENCHMARK(fixed_doses)->Iterations(15)->Unit(benchmark::kMillisecond);

// One subject: a dose, and three samples after it, again and again; the last dose 12 hours after the one before.
void write_histories(std::ofstream file, int subjects, int events)
{
  std::mt19937 random(11);
  std::normal_distribution<double> normal;
  file << "id,time,amt,conc\n";
  for (int s = 1; s <= subjects; ++s) {
    const double level = std::exp(0.3 * normal(random));
    for (int e = 0; e < events; ++e) {
      const double t = 12.0 * (e / 4) + (e % 4 == 0 ? 0.0 : e % 4 == 1 ? 1.0 : e % 4 == 2 ? 4.0 : 9.0);
      if (e % 4 == 0)
        file << s << ',' << t << ",100,\n";
      else
        file << s << ',' << t << ",0," << level * (6.0 - 0.4 * (e % 4)) * std::exp(0.1 * normal(random)) << '\n';
    }
  }
}

std::string history_program(const std::string& options)
{
  return "TORVALE DATA=histories QPOINTS=1 " + options +
         "; PARMS lcl0=1.5 lv0=3 lka0=0 v1=0.1 v2=0.1 s2=0.3; BOUNDS v1 > 0, v2 > 0, s2 > 0;"
         "cl = exp(lcl0 + b1); vol = exp(lv0 + b2); ka = exp(lka0);"
         "CMPTMODEL EVENTS NCOMPS=1 ADMTYPE=ORAL PARMTYPE=2 CL=cl VOL=vol KA=ka SCALE1=vol PCONC=pred;"
         "lc = log(conc); MODEL lc ~ NORMAL(log(pred), s2);"
         "RANDOM b1 b2 ~ NORMAL([0,0],[v1,0,v2]) SUBJECT=id; RUN;";
}

void histories(benchmark::State& state)
{
  const int events = static_cast<int>(state.range(0));
  constexpr int all = 20000;
  const DataFolder folder("torvale-history-bench");
  write_histories(folder.file("histories.csv"), all / events, events);
  for (auto _ : state) {
    const TimedRun few = timed_run(folder.path(), history_program("MAXITER=1"), 5),
                   more = timed_run(folder.path(), history_program("MAXITER=6"), 5);
    state.counters["ns"] = 1e9 * (more.seconds - few.seconds) / (more.evaluations - few.evaluations) / all;
  }
}
BENCHMARK(histories)->Arg(10)->Arg(100)->Arg(1000)->Iterations(3)->Unit(benchmark::kMillisecond);

void fit_of_histories(benchmark::State& state)
{
  const DataFolder folder("torvale-history-bench");
  write_histories(folder.file("histories.csv"), 100, 30);
  for (auto _ : state) state.counters["fit_s"] = timed_run(folder.path(), history_program("")).seconds;
}
BENCHMARK(fit_of_histories)->Iterations(3)->Unit(benchmark::kMillisecond);

} // namespace
