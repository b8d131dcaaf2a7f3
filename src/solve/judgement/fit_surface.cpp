#include "solve/judgement/fit_surface.h"

#include "integration/objective.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace torvale::solve {

using model::NX;

FitSurface::FitSurface(NX& n, FitCoordinates& coordinates)
    : n_(n), coordinates_(coordinates), x_(static_cast<std::size_t>(coordinates.size()))
{
}

bool FitSurface::evaluate(const double* t, bool with_gradient)
{
  if (!coordinates_.inside(t) || n_.str->stop != 0) return false;
  coordinates_.parameters(t, x_.data());
  n_.parm = x_;
  n_.dograd = with_gradient;
  ++n_.str->nfct;
  if (integration::tvllike(n_) != 0 || n_.host->interrupted()) n_.str->stop = 1;
  n_.parmlast.clear();
  return n_.str->stop == 0 && !n_.failed && std::isfinite(n_.objfun) && n_.objfun < model::failure_objective;
}

bool FitSurface::value(const double* t, double& f)
{
  const bool good = evaluate(t, false);
  f = n_.objfun;
  return good;
}

bool FitSurface::gradient(const double* t, double& f, double* g)
{
  if (!analytic()) return value(t, f) && difference_gradient(t, f, g);
  const bool good = evaluate(t, true);
  f = n_.objfun;
  if (!good || !std::all_of(n_.objgrad.begin(), n_.objgrad.end(), [](double v) { return std::isfinite(v); }))
    return false;
  coordinates_.gradient(t, n_.objgrad.data(), g);
  return true;
}

// Central differences over a hundredth of a standard error; one-sided where there is one side.
bool FitSurface::difference_gradient(const double* t, double f, double* g)
{
  constexpr double h = 1e-2;
  std::vector<double> at(t, t + coordinates_.size());
  for (int i = 0; i < coordinates_.size(); ++i) {
    double& ti = at[static_cast<std::size_t>(i)];
    const double centre = ti;
    g[i] = 0.0;
    if (coordinates_.fixed(i)) continue;
    double up = 0.0, down = 0.0, far = 0.0;
    ti = centre + h;
    const bool has_up = value(at.data(), up);
    ti = centre - h;
    const bool has_down = value(at.data(), down);
    if (has_up && has_down) {
      g[i] = (up - down) / (2.0 * h);
    } else {
      if (!has_up && !has_down) return false;
      const double side = has_up ? h : -h;
      ti = centre + 2.0 * side;
      if (!value(at.data(), far)) return false;
      g[i] = (4.0 * (has_up ? up : down) - 3.0 * f - far) / (2.0 * side);
    }
    ti = centre;
  }
  return true;
}

} // namespace torvale::solve
