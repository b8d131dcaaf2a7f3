#include "solve/judgement/fit_end.h"

#include "integration/kept_evaluation.h"
#include "solve/judgement/straight_judgement.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace torvale::solve {

using optimizer::MINSTR;

namespace {

// Whether the objective rises inside the bound of coordinate i as its slope g there promises. Where it rises by far
// more the bound is hardly pressed on and may be the end of a ridge; where it rises by less the slope is rounding, as
// next to the end of a variance that is written out.
bool rises_inside(FitSurface& surface, int i, double f, double g)
{
  constexpr double rise = 100.0 * gain_allowed, most = 2.0;
  const FitCoordinates& c = surface.coordinates();
  std::vector<double> t(static_cast<std::size_t>(c.size()), 0.0);
  const double slope = g * c.scale(i);
  t[static_cast<std::size_t>(i)] = std::clamp(0.5 * rise / slope, c.lower(i), c.upper(i));
  const double promised = slope * t[static_cast<std::size_t>(i)];
  double there = 0.0;
  return surface.value(t.data(), there) && there - f >= promised / most && there - f <= promised * most;
}

} // namespace

// The Hessian that the covariance needs anyway, where it leaves no doubt: definite by far, G away from its edge.
bool FitEnd::quickly_confirmed()
{
  const host::StageScope stage(n_.host->stages(), host::Stage::covariance);
  const MINSTR& str = *n_.str;
  const integration::KeptEvaluation kept(n_); // the tests evaluate elsewhere
  const auto& hessian = n_.covstr->hessian;
  if (!hessian.present || str.hfrm == 2) return false;
  auto c = std::make_unique<FitCoordinates>(n_, str.x, false);
  const FitCoordinates factors(n_, str.x);
  if (factors.near_edge(FitCoordinates::edge_share)) return false;
  Curvature curvature;
  curvature.accuracy = 1e-6;
  curvature.free = free_coordinates(*c, str.grad);
  const auto h = [&](int i, int j) {
    return hessian
        .elements[static_cast<std::size_t>(i) * static_cast<std::size_t>(i + 1) / 2 + static_cast<std::size_t>(j)];
  };
  // Whether a variance is held by its bound, or merely stands there, shows in the coordinates of the factor.
  for (const int i : factors.edge_diagonals())
    if (std::find(curvature.free.begin(), curvature.free.end(), i) == curvature.free.end() && !factors.fixed(i))
      return false;
  std::vector<double> g(str.grad, str.grad + n_.nparm);
  for (const int i : curvature.free) {
    if (!(h(i, i) > 0)) return false;
    c->set_scale(i, 1.0 / std::sqrt(h(i, i)));
    g[static_cast<std::size_t>(i)] *= c->scale(i);
    const bool variance = factors.in_factor(i) && factors.variance(i);
    if (variance && str.x[i] < 0.2 * c->scale(i)) return false;
  }
  const int m = curvature.size();
  curvature.hessian.resize(static_cast<std::size_t>(m * m));
  for (int r = 0; r < m; ++r)
    for (int k = 0; k < m; ++k) {
      const int i = curvature.free[static_cast<std::size_t>(r)], j = curvature.free[static_cast<std::size_t>(k)];
      curvature.hessian[static_cast<std::size_t>(r * m + k)] =
          h(std::max(i, j), std::min(i, j)) * c->scale(i) * c->scale(j);
    }
  curvature.unturned();
  FitSurface surface(n_, *c);
  for (int i = 0; i < n_.nparm; ++i) {
    const bool held = std::find(curvature.free.begin(), curvature.free.end(), i) == curvature.free.end();
    if (!held || c->fixed(i)) continue;
    if (i == factors.logarithm() || !rises_inside(surface, i, str.crit, str.grad[i])) return false;
  }
  if (!ends_at_zero(surface, curvature.free).empty()) return false;
  constexpr double least = 1e-2; // curvature that leaves no doubt
  Judgement found = judge_given(surface, std::move(curvature), str.crit, g.data(), least);
  if (!found.minimum() || found.doubtful_curvature || !found.null.empty() ||
      (m > 0 && found.eigenvalues.back() < least))
    return false;
  judgement_ = std::move(found);
  coordinates_ = std::move(c);
  return true;
}

} // namespace torvale::solve
