#include "solve/judgement/continuation.h"

#include "integration/objective.h"
#include "optimizer/optimizer.h"
#include "solve/course/course.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::solve {

using model::NX;
using optimizer::MINSTR;

namespace {

// What the callbacks of the run find behind its record.
struct Run {
  FitSurface* surface = nullptr;
  const Curvature* directions = nullptr; // of the run, where they are not the coordinates
  std::vector<double> start;             // t at which the run's point is 0
  std::vector<double> t;                 // the point by the coordinates
  std::vector<double> by_t, gradient;    // by the coordinates, by the run's own
  int accepted = 0;                      // iterations
  double mark = 0.0;                     // objective at the last look back
  double best = 0.0;                     // lowest objective of an accepted point
  std::vector<double> at;                // and the point; empty: none

  void go_to(const double* w)
  {
    for (std::size_t i = 0; i < t.size(); ++i) t[i] = start[i] + w[i];
    if (directions == nullptr) return;
    const auto& free = directions->free;
    for (int r = 0; r < directions->size(); ++r) {
      double sum = 0.0;
      for (int k = 0; k < directions->size(); ++k)
        sum += directions->direction(r, k) * w[free[static_cast<std::size_t>(k)]];
      const auto i = static_cast<std::size_t>(free[static_cast<std::size_t>(r)]);
      t[i] = start[i] + sum;
    }
  }

  void turn_gradient()
  {
    gradient = by_t;
    if (directions == nullptr) return;
    const auto& free = directions->free;
    for (int k = 0; k < directions->size(); ++k) {
      double sum = 0.0;
      for (int r = 0; r < directions->size(); ++r)
        sum += directions->direction(r, k) * by_t[static_cast<std::size_t>(free[static_cast<std::size_t>(r)])];
      gradient[static_cast<std::size_t>(free[static_cast<std::size_t>(k)])] = sum;
    }
  }
};

constexpr double largest = std::numeric_limits<double>::max();
constexpr int most_iterations = 200; // of one run
constexpr int look_back = 8;         // iterations after which a run must have gained something

Run& run_of(MINSTR* str)
{
  return *static_cast<Run*>(str->comstr);
}

int objective(MINSTR* str)
{
  Run& run = run_of(str);
  ++str->nfct;
  run.go_to(str->x);
  const bool good = run.surface->analytic() ? run.surface->gradient(run.t.data(), str->crit, run.by_t.data())
                                            : run.surface->value(run.t.data(), str->crit);
  if (!good) str->crit = model::failure_objective;
  // On flat ground a single iteration may go on for ever.
  const bool spent = static_cast<double>(str->nfct) > str->maxf + static_cast<double>(str->nvar);
  str->stop = run.surface->run().str->stop != 0 || spent ? 1 : 0;
  return 0;
}

// The library asks for a gradient at the point of its last call only.
int gradient(MINSTR* str)
{
  ++str->ngrd;
  run_of(str).turn_gradient();
  std::copy_n(run_of(str).gradient.begin(), str->nvar, str->grad);
  return 0;
}

// The modes of an accepted point are the next start; the fit's history shows it.
int termination(MINSTR* str, int job)
{
  NX& n = run_of(str).surface->run();
  Run& run = run_of(str);
  if (job > 0) {
    run.go_to(str->x);
    run.surface->coordinates().parameters(run.t.data(), n.parm.data());
    integration::accept_modes(n);
  }
  if (job > 0 && job % 2 == 1) continued_row(n, *str);
  if (job > 0 && (run.at.empty() || str->crit < run.best)) {
    run.best = str->crit;
    run.at = run.t;
  }
  if (n.host->interrupted()) str->stop = 1;
  if (const int code = optimizer::znlptrm(str, job); code != 0 || job <= 0) return code;
  if (job == 10) run.mark = str->crit;
  if (job == 10 || ++run.accepted % look_back != 0) return 0;
  const bool creeps = 2.0 * (run.mark - str->crit) < 0.1 * gain_allowed;
  run.mark = str->crit;
  return creeps ? optimizer::code_fconv : 0;
}

// Directions that are not coordinates have no bounds; along flat ones there is nothing to gain but rounding.
void set_problem(MINSTR& region, const FitSurface& surface, const std::vector<double>& start,
                 const Curvature* directions)
{
  const FitCoordinates& c = surface.coordinates();
  for (int i = 0; i < c.size(); ++i) {
    const double at = start[static_cast<std::size_t>(i)], lower = c.lower(i), upper = c.upper(i);
    region.lb[i] = c.fixed(i) ? 0.0 : lower > -largest ? lower - at : lower;
    region.ub[i] = c.fixed(i) ? 0.0 : upper < largest ? upper - at : upper;
    region.x[i] = 0.0;
  }
  for (int k = 0; directions != nullptr && k < directions->size(); ++k)
    if (directions->flat[static_cast<std::size_t>(k)] != 0) {
      const int i = directions->free[static_cast<std::size_t>(k)];
      region.lb[i] = region.ub[i] = 0.0;
    }
  region.bounds = 1;
  region.usfct = objective;
  region.usgrd = surface.analytic() ? gradient : nullptr;
  region.uster = termination;
  region.clock = [](MINSTR* str) { return run_of(str).surface->run().host->seconds(); };
}

} // namespace

bool continue_fit(FitSurface& surface, const std::vector<double>& start, double f_start, std::vector<double>& x,
                  double& f, const Curvature* directions, double radius)
{
  NX& n = surface.run();
  const FitCoordinates& c = surface.coordinates();
  Run run;
  run.surface = &surface;
  run.directions = directions != nullptr && directions->turned ? directions : nullptr;
  run.start = start;
  run.t = start;
  run.by_t.resize(start.size());
  MINSTR region;
  optimizer::tvlopti(&region);
  region.comstr = &run;
  region.nvar = c.size();
  region.nreb = n.nreff();
  region.fail = model::failure_objective;
  region.tech = optimizer::TRUREG;
  region.fidi = surface.analytic() ? 0 : 2;
  region.gtol = 1e-12; // the judge decides what has converged
  region.agtl = 1e-9;
  region.ftol = 1e-15;
  optimizer::continue_run(*n.str, &region); // the limits hold for all runs of a fit together
  region.maxi = std::min(n.str->maxi, n.str->nitr + most_iterations);
  region.maxf = n.str->maxf;
  region.upti = n.str->upti;
  if (optimizer::tvlopta(&region) != 0) return false;
  set_problem(region, surface, start, run.directions);
  if (optimizer::tvloptc(&region) != 0) return false;
  int code = optimizer::znlpdrv(&region, 1, 0, 0, 0);
  if (radius > 0.0) {
    double square = 0.0; // the library's first radius is INSTEP times the length of the gradient
    for (int i = 0; i < c.size(); ++i) square += region.grad[i] * region.grad[i];
    if (square > 0.0) region.salf = radius / std::sqrt(square);
  }
  if (code == 0) code = optimizer::znlpdrv(&region, 2, 0, 0, 0);
  optimizer::continue_run(region, n.str.get());
  if (run.at.empty() || !(run.best < f_start)) return false;
  f = run.best;
  x.resize(static_cast<std::size_t>(c.size()));
  c.parameters(run.at.data(), x.data());
  return true;
}

} // namespace torvale::solve
