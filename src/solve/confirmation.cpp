#include "solve/confirmation.h"

#include "matrix/cholesky.h"
#include "optimizer/optimizer.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

using model::NX;
using optimizer::MINSTR;

namespace {

constexpr int most_restarts = 4;

// Techniques that carry an approximation of the Hessian; the others use the true one, or none at all.
bool approximates_hessian(int tech)
{
  return tech == optimizer::QUANEW || tech == optimizer::DUQUAN || tech == optimizer::DBLDOG || tech == optimizer::CONGRA;
}

} // namespace

double newton_reduction(const NX& n)
{
  const MINSTR& str = *n.str;
  const auto& hessian = n.covstr->hessian;
  if (!hessian.present) return host::missing;
  std::vector<int> free;
  for (int i = 0; i < n.nparm; ++i)
    if (str.iabc == nullptr || str.iabc[i] == 0) free.push_back(i);

  // L L' = H on the free parameters, scaled to a unit diagonal; then g' H^-1 g = |L^-1 g|^2.
  const auto m = static_cast<int>(free.size());
  std::vector<double> factor, g(static_cast<std::size_t>(m));
  const auto h = [&](int i, int j) { return hessian.elements[static_cast<std::size_t>(i) * static_cast<std::size_t>(i + 1) / 2 + static_cast<std::size_t>(j)]; };
  for (int r = 0; r < m; ++r) {
    const int i = free[static_cast<std::size_t>(r)];
    if (!(h(i, i) > 0)) return host::missing;
    g[static_cast<std::size_t>(r)] = str.grad[i] / std::sqrt(h(i, i));
    for (int c = 0; c <= r; ++c) {
      const int j = free[static_cast<std::size_t>(c)];
      factor.push_back(h(i, j) / std::sqrt(h(i, i)) / std::sqrt(h(j, j)));
    }
    if (matrix::zchol(r, factor.data(), 1e-10) != 0) return host::missing;
  }
  matrix::zchol2(m, factor.data(), g.data());
  double reduction = 0.0;
  for (const double z : g) reduction += z * z;
  return std::isfinite(reduction) ? reduction : host::missing;
}

int optimize(NX& n, bool user_gave_gradient_test, bool user_gave_function_test)
{
  MINSTR& str = *n.str;
  const int load = str.load;
  for (int restart = 0;; ++restart) {
    n.optimizer_messages.clear();
    n.dependencies.clear();
    const double start = str.crit;
    const int code = optimizer::znlpdrv(&str, 2, 0, 0, 0);
    const bool unsure = code == optimizer::code_gconv || code == optimizer::code_no_progress ||
                        (code == optimizer::code_absgconv && !user_gave_gradient_test) ||
                        (code == optimizer::code_fconv && !user_gave_function_test);
    if (!unsure || n.nparm == 0 || !approximates_hessian(str.tech) || n.host->interrupted()) break;
    const double reduction = newton_reduction(n);
    if (std::isnan(reduction)) break; // a singular or indefinite Hessian speaks for itself
    const double allowed = std::max(std::abs(str.crit), str.fsiz) * str.gtol;
    if (reduction <= allowed) {
      if (code == optimizer::code_no_progress) {
        str.rcod = optimizer::code_gconv;
        n.optimizer_messages.clear();
      }
      break;
    }
    const bool gained = start - str.crit > 0.1 * reduction || restart == 0;
    if (restart == most_restarts || !gained || static_cast<double>(str.nfct) >= str.maxf) break;
    n.iterations_before += static_cast<long>(str.nitr);
    str.load = 1; // go on with the true Hessian as the metric
  }
  str.load = load;
  return str.rcod;
}

} // namespace torvale::solve
