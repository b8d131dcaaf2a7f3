#pragma once
// The curvature of the objective in fit coordinates, and how well it is known.

#include "solve/judgement/fit_surface.h"

#include <vector>

namespace torvale::solve {

// Curvature: the Hessian at t = 0 over the coordinates that are free, along m directions. These are the coordinates
// themselves, but where the plain ones hardly tell their effects apart (a covariate far from 0 beside an intercept,
// nearly collinear columns): there they are turned to the principal directions, each measured over its own length.
struct Curvature {
  std::vector<int> free;       // coordinates, ascending
  std::vector<double> basis;   // m x m; column k is direction k by the free coordinates
  std::vector<double> hessian; // m x m by the directions, symmetric, unit diagonal where there is curvature
  std::vector<double> own;     // curvature along each free coordinate: 1, -1, or about 0
  double accuracy = 0.0;       // of an element at unit diagonal, from what two estimates of it differ by
  double noise = 0.0;          // of the objective, from evaluations so near that nothing else can tell them apart
  double step = 0.0;           // of differences of gradients, in standard errors
  bool turned = false;         // the directions are not the coordinates
  std::vector<char> flat;      // directions that are flat as far as evaluations can tell; by turning alone

  int size() const { return static_cast<int>(free.size()); }
  double at(int i, int j) const { return hessian[static_cast<std::size_t>(i * size() + j)]; }
  double& at(int i, int j) { return hessian[static_cast<std::size_t>(i * size() + j)]; }
  double direction(int i, int k) const { return basis[static_cast<std::size_t>(i * size() + k)]; }
  double& direction(int i, int k) { return basis[static_cast<std::size_t>(i * size() + k)]; }
  // The coordinates as directions, own as the diagonal of the Hessian says.
  void unturned();
};

// measure: central differences of gradients over a thousandth of a standard error (more where the objective is noisy),
// or second differences of values over a twentieth of one where there are no analytic gradients; sets the scales of the
// coordinates so that the diagonal is 1 where there is curvature, and g with them. f and g belong to t = 0. False when
// the model cannot be evaluated close by.
bool measure(FitSurface& surface, const std::vector<int>& free, double f, std::vector<double>& g, Curvature& out);

// Steps of the differences, in standard errors; that of gradients unless there is noise.
inline constexpr double gradient_step = 1e-3;
inline constexpr double value_step = 0.05;
// Directions this much longer than the strongest are flat: columns that rounding alone tells apart are longer.
inline constexpr double longest_direction = 1e10;

// gradient_along: the derivative of the gradient along d (all coordinates), interval h: both sides, or three points of
// one; g0 is the gradient at 0. False when neither side can be evaluated.
bool gradient_along(FitSurface& surface, const std::vector<double>& d, double h, const double* g0,
                    std::vector<double>& column);

// resolve_flat_directions: turns the plain coordinates to directions of which none is slight beside the others, or that
// are flat (a row and column of zeros).
void resolve_flat_directions(FitSurface& surface, double f, const std::vector<double>& g, Curvature& out);

} // namespace torvale::solve
