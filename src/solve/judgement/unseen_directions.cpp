#include "solve/judgement/unseen_directions.h"

#include "integration/objective.h"
#include "matrix/eigenvalues.h"
#include "matrix/packed.h"
#include "solve/judgement/fit_surface.h"
#include "solve/judgement/test_steps.h"
#include "solve/start/point_selection.h"

#include <cmath>
#include <utility>

namespace torvale::solve {

using model::NX;

namespace {

// Eigenvalues of the outer products at unit diagonal: squares of what a direction changes in the subjects' gradients,
// beside what its parameters change. Of a ridge more points leave a thousandth or less, of data nearly all.
constexpr double suspect = 1e-2; // with the points in use
constexpr double unseen = 1e-4;  // with more of them
constexpr double left = 1e-2;    // share of it that more points leave
constexpr double none = 1e-13;   // where rounding begins
constexpr double noise = 1e-3;   // of a direction's elements

// What the subjects know of the parameters of G: the outer products of their gradients over these, at unit diagonal.
struct Information {
  std::vector<int> parameter;
  std::vector<double> unit;        // 1 / root of the diagonal
  std::vector<double> eigenvalues; // descending
  std::vector<double> vectors;     // column k belongs to eigenvalue k

  std::size_t size() const { return parameter.size(); }
  bool take(NX& n, const std::vector<double>& x, int points);
};

bool Information::take(NX& n, const std::vector<double>& x, int points)
{
  take_points(n, points);
  n.parm = x;
  n.dograd = true;
  ++n.str->nfct;
  std::vector<double> products;
  if (integration::tvllike(n) != 0 || n.failed || integration::outer_products(n, products) != 0) return false;
  const auto of_covariance = integration::parameters_of_covariance(n);
  for (int i = 0; i < n.nparm; ++i) {
    const double d = products[static_cast<std::size_t>(matrix::packed_diagonal(i))];
    if (of_covariance[static_cast<std::size_t>(i)] == 0 || !(d > 0.0)) continue;
    parameter.push_back(i);
    unit.push_back(1.0 / std::sqrt(d));
  }
  const auto m = size();
  vectors.resize(m * m);
  eigenvalues.resize(m);
  for (std::size_t r = 0; r < m; ++r)
    for (std::size_t c = 0; c < m; ++c)
      vectors[r * m + c] =
          products[static_cast<std::size_t>(matrix::packed_index(parameter[r], parameter[c]))] * unit[r] * unit[c];
  std::vector<double> off(m);
  if (m < 2) return false;
  matrix::ztred2(static_cast<int>(m), vectors.data(), eigenvalues.data(), off.data());
  return matrix::ztql2(static_cast<int>(m), vectors.data(), eigenvalues.data(), off.data(), 1) == 0;
}

// Whether more points leave less of an eigenvalue than of one of the data, and more than of a ridge.
bool between(double before, double after)
{
  constexpr double most = 0.5;
  return after < most * before && after > std::max(none, left * before);
}

// x with variances that vanished at a part of the largest one, so that ridges go on to both sides.
std::vector<double> inside(const NX& n, const std::vector<double>& x)
{
  constexpr double part = 0.25;
  std::vector<double> there(x);
  const auto variances = FitCoordinates(n, x.data()).edge_diagonals();
  double most = 0.0;
  for (const int i : variances) most = std::max(most, x[static_cast<std::size_t>(i)]);
  for (const int i : variances) {
    double& v = there[static_cast<std::size_t>(i)];
    v = std::max(v, part * most);
  }
  return there;
}

// Whether the objective has no curvature along a direction either: few subjects may have gradients of fewer dimensions
// than there are parameters, and a likelihood that tells them apart.
class Way {
public:
  Way(NX& n, const std::vector<double>& x, const std::vector<double>& direction)
      : here_(FitCoordinates::straight(n, x.data())), surface_(n, here_), direction_(direction)
  {
  }

  bool flat()
  {
    constexpr double longest = 0.5, shortest = 1e-3, curvature = 1e-2;
    const double f = at(0.0);
    for (double length = longest; length > shortest; length *= 0.5) {
      const double second = at(length) + at(-length) - 2.0 * f;
      if (!std::isnan(second)) return std::abs(second) <= curvature * length * length + evaluation_noise(f);
    }
    return false;
  }

private:
  double at(double a)
  {
    std::vector<double> t(direction_);
    for (double& v : t) v *= a;
    double f = 0.0;
    return surface_.value(t.data(), f) ? f : std::nan("");
  }

  FitCoordinates here_;
  FitSurface surface_;
  const std::vector<double>& direction_;
};

} // namespace

std::vector<std::vector<double>> unseen_directions(NX& n, const std::vector<double>& x, int finer)
{
  std::vector<std::vector<double>> found;
  const int in_use = n.nqp;
  Information now, then;
  bool known = now.take(n, x, in_use) && now.eigenvalues.back() < suspect && then.take(n, x, finer);
  // Integrands as hard as these may take another step.
  const int finest = finer_points(n, finer);
  if (known && between(now.eigenvalues.back(), then.eigenvalues.back()) && affordable_points(n, in_use, finest)) {
    then = {};
    known = then.take(n, x, finest);
  }
  if (known && then.parameter == now.parameter) {
    const auto m = then.size();
    const auto there = inside(n, x);
    for (std::size_t k = 0; k < m; ++k) {
      const double value = then.eigenvalues[k];
      if (value > unseen || value > std::max(none, left * now.eigenvalues[k])) continue;
      std::vector<double> direction(x.size(), 0.0);
      for (std::size_t i = 0; i < m; ++i)
        if (const double share = then.vectors[i * m + k]; std::abs(share) > noise)
          direction[static_cast<std::size_t>(then.parameter[i])] = then.unit[i] * share;
      if (Way(n, there, direction).flat()) found.push_back(std::move(direction));
    }
  }
  take_points(n, in_use);
  return found;
}

} // namespace torvale::solve
